// queue.h - a ring of fixed capacity between threads, in order of arrival.
#pragma once

#include <cstdint>
#include <memory>

#include "platform/common/mutex.h"
#include "platform/osa/wait.h"

namespace qel::osa {

template <typename Item>
class Queue {
public:
    // `slots` belongs to the queue.
    Queue(std::unique_ptr<Item[]> slots, uint32_t capacity)
        : filled_(capacity), free_(capacity, capacity), slots_(std::move(slots)), capacity_(capacity) {}

    bool put(const Item &item, unsigned timeout_ms) {
        if (free_.take(timeout_ms) != Wait::kSignalled) return false;
        {
            const platform::Lock lock(mutex_);
            slots_[tail_] = item;
            tail_ = next(tail_);
        }
        return filled_.post();
    }

    Wait get(Item *out, unsigned timeout_ms) {
        const Wait outcome = filled_.take(timeout_ms);
        if (outcome != Wait::kSignalled) return outcome;
        {
            const platform::Lock lock(mutex_);
            *out = slots_[head_];
            head_ = next(head_);
        }
        free_.post();
        return outcome;
    }

private:
    uint32_t next(uint32_t index) const { return index + 1 < capacity_ ? index + 1 : 0; }

    Semaphore filled_;
    Semaphore free_;
    platform::Mutex mutex_;
    const std::unique_ptr<Item[]> slots_;
    const uint32_t capacity_;
    uint32_t head_ QEL_GUARDED_BY(mutex_) = 0;
    uint32_t tail_ QEL_GUARDED_BY(mutex_) = 0;
};

}  // namespace qel::osa
