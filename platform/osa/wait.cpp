#include "platform/osa/wait.h"

#include <new>

#include "platform/osa/thread.h"

namespace qel::osa {

using platform::Scope;

Wait wait_on(const void *word, uint32_t expected, Deadline deadline) {
    const StopScope stop(word);
    if (stop.requested()) return Wait::kStopped;
    const bool in_time = platform::futex_wait(word, expected, deadline, Scope::kProcess);
    if (stop.requested()) return Wait::kStopped;
    return in_time ? Wait::kSignalled : Wait::kTimeOver;
}

// The count is the half of the state that stands first in memory.
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__ && sizeof(std::atomic<uint64_t>) == 8);

bool Semaphore::try_take() {
    uint64_t state = state_.load(std::memory_order_relaxed);
    while (count_of(state) != 0) {
        if (state_.compare_exchange_weak(state, state - 1, std::memory_order_acquire)) return true;
    }
    return false;
}

Wait Semaphore::take(unsigned timeout_ms) {
    if (try_take()) return Wait::kSignalled;
    if (timeout_ms == 0) return Wait::kTimeOver;
    const Deadline deadline = deadline_of(timeout_ms);
    uint64_t state = state_.fetch_add(kOneWaiter, std::memory_order_relaxed) + kOneWaiter;
    for (;;) {
        while (count_of(state) != 0) {
            if (state_.compare_exchange_weak(state, state - 1 - kOneWaiter, std::memory_order_acquire)) {
                return Wait::kSignalled;
            }
        }
        const Wait outcome = wait_on(count_word(), 0, deadline);
        state = state_.load(std::memory_order_relaxed);
        // What was posted in the last moment is still taken.
        if (outcome == Wait::kSignalled || count_of(state) != 0) continue;
        state_.fetch_sub(kOneWaiter, std::memory_order_relaxed);
        return outcome;
    }
}

bool Semaphore::post_below(uint32_t limit) {
    const void *const word = count_word();
    uint64_t state = state_.load(std::memory_order_relaxed);
    do {
        if (count_of(state) >= limit) return false;
    } while (!state_.compare_exchange_weak(state, state + 1, std::memory_order_release));
    if (state >= kOneWaiter) platform::futex_wake(word, 1, Scope::kProcess);
    return true;
}

}  // namespace qel::osa

using qel::osa::Semaphore;
using qel::osa::Wait;

extern "C" {

int OSA_semCreate(OSA_SemHandle *handle, unsigned max, unsigned initial) {
    if (handle == nullptr || max == 0 || initial > max) return OSA_EFAIL;
    *handle = new (std::nothrow) Semaphore(max, initial);
    return *handle != nullptr ? 0 : OSA_EFAIL;
}

int OSA_semPend(OSA_SemHandle handle, unsigned timeoutMs) {
    if (handle == nullptr) return OSA_EFAIL;
    return static_cast<Semaphore *>(handle)->take(timeoutMs) == Wait::kSignalled ? 0 : OSA_EFAIL;
}

int OSA_semPost(OSA_SemHandle handle) {
    return handle != nullptr && static_cast<Semaphore *>(handle)->post() ? 0 : OSA_EFAIL;
}

int OSA_semPostWhenEmpty(OSA_SemHandle handle) {
    if (handle == nullptr) return OSA_EFAIL;
    static_cast<Semaphore *>(handle)->post_when_empty();
    return 0;
}

int OSA_semGetCount(OSA_SemHandle handle, unsigned *count) {
    if (handle == nullptr || count == nullptr) return OSA_EFAIL;
    *count = static_cast<Semaphore *>(handle)->count();
    return 0;
}

int OSA_semDelete(OSA_SemHandle *handle) {
    if (handle == nullptr || *handle == nullptr) return OSA_EFAIL;
    delete static_cast<Semaphore *>(*handle);
    *handle = nullptr;
    return 0;
}

}  // extern "C"
