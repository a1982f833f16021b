// wait.h - the one place where a thread of this layer blocks, and the counting semaphore on top of it.
#pragma once

#include <atomic>
#include <cstdint>

#include "platform/common/futex.h"
#include "platform/include/osa.h"

namespace qel::osa {

using platform::Deadline;

// kStopped: somebody deletes the calling thread, which must not block any more.
enum class Wait { kSignalled, kTimeOver, kStopped };

// Sleeps while the 32-bit `word` holds `expected`; may also return kSignalled for no reason.
Wait wait_on(const void *word, uint32_t expected, Deadline deadline);

inline Deadline deadline_of(unsigned timeout_ms) {
    return timeout_ms == OSA_WAIT_FOREVER ? Deadline::never() : Deadline::after_ms(timeout_ms);
}

// Count and number of waiters share one word, so that a post touches the semaphore for the last time
// in the very step that lets a waiter through: the waiter may free it at once.
class Semaphore {
public:
    explicit Semaphore(uint32_t max, uint32_t initial = 0) : state_(initial), max_(max) {}

    bool try_take();
    Wait take(unsigned timeout_ms);
    // False when the count stands at its maximum.
    bool post() { return post_below(max_); }
    // Posts unless something is left to take.
    void post_when_empty() { post_below(1); }
    uint32_t count() const { return count_of(state_.load(std::memory_order_relaxed)); }

private:
    static constexpr uint64_t kOneWaiter = uint64_t{1} << 32;
    static uint32_t count_of(uint64_t state) { return static_cast<uint32_t>(state); }
    bool post_below(uint32_t limit);
    const void *count_word() const { return &state_; }

    std::atomic<uint64_t> state_;  // low half: count, high half: threads that wait
    const uint32_t max_;
};

}  // namespace qel::osa
