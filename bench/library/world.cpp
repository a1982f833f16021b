// world.cpp - provides the hook in the board's place and passes every request on, timed.
//
// So the cost of a load splits into what the devices answered and what the library did itself.
#include "bench/library/world.h"

#include <dlfcn.h>
#include <chrono>

#include "os/hook.h"

namespace qel::bench {

namespace {

Requests total;
const qel_os_ops *real_ops;

// Requests come from the loading thread only, so the sum needs no lock.
class Stopwatch {
public:
    Stopwatch() : started_(std::chrono::steady_clock::now()) {}
    Stopwatch(const Stopwatch &) = delete;
    Stopwatch &operator=(const Stopwatch &) = delete;
    ~Stopwatch() {
        ++total.count;
        total.seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - started_).count();
    }

private:
    std::chrono::steady_clock::time_point started_;
};

template <auto Operation, typename Member = decltype(Operation)>
struct Timed;

template <auto Operation, typename Result, typename... Arguments>
struct Timed<Operation, Result (*qel_os_ops::*)(Arguments...)> {
    static Result call(Arguments... arguments) {
        const Stopwatch stopwatch;
        return (real_ops->*Operation)(arguments...);
    }
};

template <auto... Operations>
qel_os_ops with_timed(qel_os_ops ops) {
    ((ops.*Operations = Timed<Operations>::call), ...);
    return ops;
}

qel_os_ops timed_ops() {
    return with_timed<&qel_os_ops::open, &qel_os_ops::close, &qel_os_ops::read, &qel_os_ops::write,
                      &qel_os_ops::seek, &qel_os_ops::ioctl, &qel_os_ops::map, &qel_os_ops::stat,
                      &qel_os_ops::list>(*real_ops);
}

}  // namespace

Requests take_requests() {
    const Requests taken = total;
    total = {};
    return taken;
}

}  // namespace qel::bench

extern "C" const qel_world *qel_world_hook() {
    using namespace qel::bench;
    static const qel_world *const boards = [] {
        auto *next = reinterpret_cast<decltype(&qel_world_hook)>(dlsym(RTLD_NEXT, "qel_world_hook"));
        return next != nullptr ? next() : nullptr;
    }();
    if (boards == nullptr) return nullptr;
    real_ops = boards->os;
    static const qel_os_ops ops = timed_ops();
    static qel_world timed;
    timed = *boards;  // run directory and time scale change with the board that was entered
    timed.os = &ops;
    return &timed;
}
