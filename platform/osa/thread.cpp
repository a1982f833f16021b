#include "platform/osa/thread.h"

#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <algorithm>
#include <climits>
#include <cstdio>
#include <new>

#include "platform/osa/wait.h"

namespace qel::osa {

using platform::Scope;

namespace {

// Below this even a log line with its buffers would not fit.
constexpr size_t kMinStackBytes = size_t{64} * 1024;
// A thread that was about to sleep when it was asked to end is woken again after this time.
constexpr int64_t kStopRetryRealMs = 2;

// Equal priorities take turns.
constexpr int kPolicy = SCHED_RR;

thread_local Thread *current = nullptr;

}  // namespace

Thread::Thread(OSA_ThrEntry entry, void *arg, int priority, const char *name)
    : entry_(entry), arg_(arg), priority_(priority) {
    snprintf(name_, sizeof name_, "%s", name != nullptr ? name : "");
}

int Thread::start(unsigned stack_bytes) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    if (stack_bytes != 0) {
        const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        const size_t wanted = std::max<size_t>(stack_bytes, kMinStackBytes);
        pthread_attr_setstacksize(&attributes, (wanted + page - 1) / page * page);
    }
    const int failure = pthread_create(&thread_, &attributes, run, this);
    pthread_attr_destroy(&attributes);
    return failure == 0 ? 0 : OSA_EFAIL;
}

void *Thread::run(void *self) {
    auto *const thread = static_cast<Thread *>(self);
    current = thread;
    thread->take_name_and_priority();
    void *const result = thread->entry_(thread->arg_);
    current = nullptr;
    thread->ended_.store(1, std::memory_order_release);
    platform::futex_wake(&thread->ended_, INT_MAX, Scope::kProcess);
    return result;
}

// The real-time classes need a right that ordinary users lack: the thread then runs at the ordinary
// priority. On a virtual board none is taken, a simulation must not starve the machine it runs on.
void Thread::take_name_and_priority() const {
    if (name_[0] != '\0') pthread_setname_np(pthread_self(), name_);
    if (platform::world() != nullptr) return;
    sched_param wanted{};
    wanted.sched_priority =
        std::clamp(priority_, sched_get_priority_min(kPolicy), sched_get_priority_max(kPolicy));
    pthread_setschedparam(pthread_self(), kPolicy, &wanted);
}

void Thread::stop_and_join() {
    stopping_.store(true, std::memory_order_seq_cst);
    while (ended_.load(std::memory_order_acquire) == 0) {
        const void *const word = waiting_on_.load(std::memory_order_seq_cst);
        if (word != nullptr) platform::futex_wake(word, INT_MAX, Scope::kProcess);
        platform::futex_wait(&ended_, 0, Deadline::after_real_ms(kStopRetryRealMs), Scope::kProcess);
    }
    pthread_join(thread_, nullptr);
}

bool Thread::is_self() const { return current == this; }

StopScope::StopScope(const void *word) : self_(current) {
    if (self_ != nullptr) self_->waiting_on_.store(word, std::memory_order_seq_cst);
}

StopScope::~StopScope() {
    if (self_ != nullptr) self_->waiting_on_.store(nullptr, std::memory_order_release);
}

bool StopScope::requested() const { return self_ != nullptr && self_->stopping(); }

}  // namespace qel::osa

using qel::osa::Thread;

extern "C" {

int OSA_thrCreateEx(OSA_ThrHandle *handle, OSA_ThrEntry entry, int priority, unsigned stack, void *arg,
                    const char *name) {
    if (handle == nullptr || entry == nullptr) return OSA_EFAIL;
    *handle = nullptr;
    auto *const thread = new (std::nothrow) Thread(entry, arg, priority, name);
    if (thread == nullptr) return OSA_EFAIL;
    // Stands before the thread runs, which may look at it.
    *handle = thread;
    if (thread->start(stack) == 0) return 0;
    *handle = nullptr;
    delete thread;
    return OSA_EFAIL;
}

int OSA_thrDelete(OSA_ThrHandle *handle) {
    if (handle == nullptr || *handle == nullptr) return OSA_EFAIL;
    auto *const thread = static_cast<Thread *>(*handle);
    if (thread->is_self()) return OSA_EFAIL;
    thread->stop_and_join();
    delete thread;
    *handle = nullptr;
    return 0;
}

int OSA_thrStopping(void) {
    const qel::osa::StopScope self(nullptr);
    return self.requested() ? 1 : 0;
}

int OSA_thrGetMaxPri(void) { return sched_get_priority_max(qel::osa::kPolicy); }

int OSA_thrGetMinPri(void) { return sched_get_priority_min(qel::osa::kPolicy); }

int OSA_thrGetTid(void) { return static_cast<int>(syscall(SYS_gettid)); }

}  // extern "C"
