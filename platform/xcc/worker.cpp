#include "platform/xcc/worker.h"

#include <sys/eventfd.h>
#include <unistd.h>
#include <cerrno>
#include <climits>
#include <csignal>

#include "platform/common/futex.h"

namespace qel::xcc {

Worker::~Worker() { join(); }

int Worker::start(void *(*body)(void *), void *context, const char *name) {
    if (!signal_.is_open()) signal_.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!signal_.is_open()) return -errno;
    clear_signal();
    // The application's signals are for its own threads.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    const int failure = pthread_create(&thread_, nullptr, body, context);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (failure != 0) return -failure;
    pthread_setname_np(thread_, name);
    running_ = true;
    return 0;
}

void Worker::join() {
    if (running_) pthread_join(thread_, nullptr);
    running_ = false;
}

void Worker::signal() {
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t put = write(signal_.get(), &one, sizeof one);
}

void Worker::clear_signal() {
    uint64_t count = 0;
    [[maybe_unused]] const ssize_t got = read(signal_.get(), &count, sizeof count);
}

void Event::happened() {
    word_.fetch_add(1);
    platform::futex_wake(&word_, INT_MAX, platform::Scope::kProcess);
}

bool Event::wait(uint32_t seen, platform::Deadline deadline) const {
    return platform::futex_wait(&word_, seen, deadline, platform::Scope::kProcess);
}

}  // namespace qel::xcc
