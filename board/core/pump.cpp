#include "board/core/pump.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <system_error>
#include <thread>

namespace qel::board {

struct Pump::Worker {
    ~Worker() {
        if (event_fd >= 0) ::close(event_fd);
    }
    const pid_t owner = ::getpid();
    const int event_fd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    std::atomic<bool> stopping{false};
    std::thread thread;

    void signal() const {
        const uint64_t one = 1;
        // Fails only when it is signalled 2^64 - 2 times already.
        [[maybe_unused]] const ssize_t put = ::write(event_fd, &one, sizeof(one));
    }
};

Pump::Pump(Mutex &mutex, Unit &unit) : mutex_(mutex), unit_(unit) {}

Pump::~Pump() {
    if (worker_ == nullptr) return;
    if (worker_->owner != ::getpid()) {
        [[maybe_unused]] const Worker *parents = worker_.release();  // its thread is not in this process
        return;
    }
    worker_->stopping = true;
    worker_->signal();
    worker_->thread.join();
}

void Pump::wake() {
    if (worker_ != nullptr && worker_->owner == ::getpid()) {
        worker_->signal();
        return;
    }
    [[maybe_unused]] const Worker *parents = worker_.release();
    if (!start()) fprintf(stderr, "qelboard: no thread for the serial lines: they stand still\n");
}

bool Pump::start() {
    auto worker = std::make_unique<Worker>();
    if (worker->event_fd < 0) return false;
    // Signals are for the threads of the program that lives on the board.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    bool started = true;
    try {
        worker->thread = std::thread([this, &worker = *worker] { loop(worker); });
        pthread_setname_np(worker->thread.native_handle(), "qelboard-lines");
    } catch (const std::system_error &) {
        started = false;
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (started) worker_ = std::move(worker);
    return started;
}

void Pump::loop(const Worker &worker) {
    while (!worker.stopping) {
        RunnerWaits waits;
        int64_t left_us = -1;
        {
            const Lock lock(mutex_);
            waits = unit_.run_runners();
            if (waits.deadline_us >= 0)
                left_us = std::max<int64_t>(waits.deadline_us - unit_.now_us(), 0) / unit_.time_scale() + 1;
        }
        waits.fds.push_back({worker.event_fd, POLLIN, 0});
        const timespec left{.tv_sec = static_cast<time_t>(left_us / 1000000),
                            .tv_nsec = static_cast<long>(left_us % 1000000) * 1000};
        if (::ppoll(waits.fds.data(), waits.fds.size(), left_us >= 0 ? &left : nullptr, nullptr) < 0 &&
            errno != EINTR)
            ::usleep(1000);  // out of memory: try again
        uint64_t count = 0;
        [[maybe_unused]] const ssize_t got = ::read(worker.event_fd, &count, sizeof(count));
    }
}

}  // namespace qel::board
