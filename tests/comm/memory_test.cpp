// What the layer below cannot give, at every place where it is asked: the call fails and says so, nothing is
// left behind, and the next one works.
//
// The functions here stand before those of the OSA layer, which they hand on to.
#include <dlfcn.h>
#include <functional>

#include "platform/include/osa.h"
#include "tests/comm/port_bench.h"

namespace {

thread_local int left_to_give = -1;  // of this thread, -1 = without limit
thread_local int held = 0;           // given to this thread and not given back by it

bool gives() {
    if (left_to_give > 0) --left_to_give;
    return left_to_give != 0;
}

template <typename Function>
Function *next(const char *name) {
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

// The block or status of the real function, or what a failure gives.
template <typename Result, typename Call>
Result give(Result failure, Call call) {
    if (!gives()) return failure;
    const Result result = call();
    held += result != failure ? 1 : 0;
    return result;
}

template <typename Result, typename Call>
Result take_back(Result success, Call call) {
    const Result result = call();
    held -= result == success ? 1 : 0;
    return result;
}

}  // namespace

#define NEXT(name) next<decltype(name)>(#name)

extern "C" {

void *OSA_memCalloc(size_t bytes) {
    return give<void *>(nullptr, [=] { return NEXT(OSA_memCalloc)(bytes); });
}
void *OSA_memUCallocAlign(size_t bytes, size_t align) {
    return give<void *>(nullptr, [=] { return NEXT(OSA_memUCallocAlign)(bytes, align); });
}
void OSA_memFree(void *block) {
    held -= block != nullptr ? 1 : 0;
    NEXT(OSA_memFree)(block);
}
void OSA_memAlignFree(void *block) {
    held -= block != nullptr ? 1 : 0;
    NEXT(OSA_memAlignFree)(block);
}
int OSA_mutexCreate(OSA_MutexHandle *handle) {
    return give<int>(OSA_EFAIL, [=] { return NEXT(OSA_mutexCreate)(handle); });
}
int OSA_mutexDelete(OSA_MutexHandle *handle) {
    return take_back(0, [=] { return NEXT(OSA_mutexDelete)(handle); });
}
int OSA_semCreate(OSA_SemHandle *handle, unsigned max, unsigned initial) {
    return give<int>(OSA_EFAIL, [=] { return NEXT(OSA_semCreate)(handle, max, initial); });
}
int OSA_semDelete(OSA_SemHandle *handle) {
    return take_back(0, [=] { return NEXT(OSA_semDelete)(handle); });
}
int OSA_thrCreateEx(OSA_ThrHandle *handle, OSA_ThrEntry entry, int priority, unsigned stack, void *arg,
                    const char *name) {
    return give<int>(OSA_EFAIL,
                     [=] { return NEXT(OSA_thrCreateEx)(handle, entry, priority, stack, arg, name); });
}
int OSA_thrDelete(OSA_ThrHandle *handle) {
    return take_back(0, [=] { return NEXT(OSA_thrDelete)(handle); });
}

}  // extern "C"

using namespace qel::test;

namespace {

constexpr const char *kBoard =
    "[[chip.port]]\nnumber = 4\nkind = 3\n[[chip.uart]]\nnumber = 4\nport = 4\n"
    "[[chip.port]]\nnumber = 5\nkind = 1\n[[chip.tty]]\nnode = \"/dev/ttySCM5\"\nport = 5\n"
    "[[chip.port]]\nnumber = 6\nkind = 2\nusage = 1\n[[chip.tty]]\nnode = \"/dev/ttySPI6\"\nport = 6\n"
    "[[chip.port]]\nnumber = 7\nkind = 4\n[[chip.port]]\nnumber = 8\nkind = 7\nusage = 24\n"
    "[chip.mcu.raw]\n[[chip.mcu.channel]]\nnumber = 24\n";

std::string board() { return tty("0") + tty("1", "", "usage = 26") + kBoard; }

// Makes the call with ever more to give, until it succeeds; how often it failed. It must leave nothing
// behind, which `undo` does for the one that succeeds.
int failures_of(const std::function<bool()> &call, const std::function<void()> &undo) {
    for (int given = 1;; ++given) {
        const int held_before = held;
        Log log;
        left_to_give = given;
        const bool succeeded = call();
        left_to_give = -1;
        if (succeeded) {
            undo();
            EXPECT_EQ(held, held_before);
            return given - 1;
        }
        EXPECT_EQ(held, held_before) << "after " << given - 1;
        EXPECT_TRUE(log.contains("[libqel] ERROR  ") || log.contains("[libqel] WARN  "))
            << "after " << given - 1 << ": " << log.all();
        if (given == 100) return -1;
    }
}

}  // namespace

TEST(WithoutMemory, PortsAreNotMadeAndLeaveNothingBehind) {
    CommBench bench(board());
    for (const uint32_t number : {0U, 1U, 4U, 5U, 6U, 7U, 8U, QEL_COM_NULL_PORT}) {
        SCOPED_TRACE(number);
        const CommPortDesc desc{number};
        CommPort *port = nullptr;
        const auto create = [&] {
            port = reinterpret_cast<CommPort *>(&bench);
            const int status = CALL(bench, createCommPort)(&desc, &port);
            EXPECT_EQ(port != nullptr, status == 0);
            return status == 0;
        };
        const auto release = [&] { EXPECT_EQ(port->release(port), 0); };
        EXPECT_GE(failures_of(create, release), 2);
        ASSERT_TRUE(create());
        const auto open = [&] { return port->open(port) == 0; };
        const auto close = [&] { EXPECT_EQ(port->close(port), 0); };
        EXPECT_GE(failures_of(open, close), 0);
        EXPECT_EQ(port->close(port), number == QEL_COM_NULL_PORT ? 0 : -1);
        release();
    }
}

TEST(WithoutMemory, TheMicrocontrollersObjectIsNotMade) {
    CommBench bench(board());
    MCU_Device *device = nullptr;
    const uint32_t id = 0;
    const auto create = [&] {
        const int status = CALL(bench, createMcuDevice)(&id, &device);
        EXPECT_EQ(device != nullptr, status == 0);
        return status == 0;
    };
    EXPECT_EQ(failures_of(create, [&] { EXPECT_EQ(device->release(device), 0); }), 2);
}

TEST(WithoutMemory, ALineToAMicrocontrollerIsShutDownFromWhereverItCame) {
    CommBench bench(tty("1", "", "usage = 3"), {.dir = "", .time_scale = 100},
                    {.name = "PTD-4120", .category = 2});
    McuCommLink link{};
    const auto shut_down = [&] {
        EXPECT_EQ(CALL(bench, QEL_comShutdownCommunicationWithMCU)(&link), 0);
        EXPECT_EQ(link.handle, nullptr);
        EXPECT_EQ(link.thread, nullptr);
    };
    const auto wait = [](void *) -> void * {
        while (OSA_thrStopping() == 0) OSA_sleepMs(1000);
        return nullptr;
    };
    const auto start = [&] {
        if (CALL(bench, QEL_comCommunicationWithMCU)(&link, wait, "x", 1) == 0) return true;
        shut_down();
        return false;
    };
    EXPECT_EQ(failures_of(start, shut_down), 4);
}

TEST(WithoutMemory, TheModulesDoNotStart) {
    CommBench bench(board());
    const struct {
        int (*start)();
        int (*end)();
        int failures;
    } modules[] = {
        {CALL(bench, QEL_mcuInit), CALL(bench, QEL_mcuDeinit), 1},
        {CALL(bench, QEL_commlenInit), CALL(bench, QEL_commlenDeinit), 6 + QEL_COMMLEN_CODES_MAX},
    };
    for (const auto &module : modules) {
        EXPECT_EQ(module.end(), 0);
        const auto start = [&] { return module.start() == 0; };
        EXPECT_EQ(failures_of(start, [&] { EXPECT_EQ(module.end(), 0); }), module.failures);
        EXPECT_EQ(module.start(), 0);
    }
}
