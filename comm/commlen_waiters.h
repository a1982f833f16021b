// commlen_waiters.h - who waits for which command code, and what came for them.
#pragma once

#include <array>

#include "comm/commlen_frame.h"
#include "frame/mutex.h"
#include "qel/commlen.h"

namespace qel::commlen {

// One reader; lives on its stack from join to the end of wait.
struct Waiter {
    CommLenMsg reply;
    bool served;
    Waiter *next;
};

class Waiters {
public:
    // 0, or -1 with a line in the log under `function`.
    int create(const char *function);
    int destroy();

    // From now on a frame of this code is kept for the waiter. False: too many codes are waited for.
    bool join(uint8_t command, Waiter &waiter);
    // Waits for the frame and leaves. False: none came in time.
    bool wait(Waiter &waiter, unsigned timeout_ms);
    // Leaves without waiting.
    void leave(Waiter &waiter);

    // Keeps the frame for the waiter that came first of those who have none; dropped without one.
    void deliver(const Frame &frame);

private:
    // One per code that is waited for. A slot without waiters is free, and its semaphore then empty.
    struct Slot {
        OSA_SemHandle arrived;
        uint8_t command;
        Waiter *first;
    };

    Slot *find_locked(uint8_t command) QEL_REQUIRES(mutex_);
    void leave_locked(Slot &slot, Waiter &waiter) QEL_REQUIRES(mutex_);

    Mutex mutex_;
    std::array<Slot, QEL_COMMLEN_CODES_MAX> slots_ QEL_GUARDED_BY(mutex_) = {};
};

}  // namespace qel::commlen
