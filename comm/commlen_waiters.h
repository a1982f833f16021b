// commlen_waiters.h - who waits for which command code, and what came for them.
#pragma once

#include <array>
#include <bitset>

#include "comm/commlen_frame.h"
#include "frame/mutex.h"
#include "qel/commlen.h"

namespace qel::commlen {

constexpr int kNoRequest = -1;

// One reader; lives on its stack from join to the end of wait.
struct Waiter {
    CommLenMsg reply;
    bool served;
    int request;  // number of the frame that it wants answered
    Waiter *next;
};

class Waiters {
public:
    // 0, or -1 with a line in the log under `function`.
    int create(const char *function);
    int destroy();

    // A request of this number goes out, whose reply has this code; for a waiter or for whoever joins next.
    void note_request(uint8_t command, uint8_t sequence, Waiter *waiter);
    // It has failed: its reply, should there be one, is for nobody.
    void give_up_request(uint8_t command, uint8_t sequence);
    // From now on a frame of this code is kept for the waiter. False: too many codes are waited for.
    bool join(uint8_t command, Waiter &waiter);
    // Waits for the frame and leaves. False: none came in time.
    bool wait(Waiter &waiter, unsigned timeout_ms);
    // Leaves without waiting.
    void leave(Waiter &waiter);

    // Keeps the frame for the waiter that came first of those who have none; dropped without one, and when
    // it answers a request that has been answered or given up.
    void deliver(const Frame &frame);

private:
    // One per code that is waited for; free without waiters.
    struct Slot {
        OSA_SemHandle arrived;
        uint8_t command;
        Waiter *first;
    };

    Slot *find_locked(uint8_t command) QEL_REQUIRES(mutex_);
    bool is_unwanted_locked(const Frame &frame) QEL_REQUIRES(mutex_);
    void learn_locked(const Slot &slot, const Frame &frame) QEL_REQUIRES(mutex_);
    void end_request_locked(uint8_t command, int request, bool answered) QEL_REQUIRES(mutex_);
    void leave_locked(Slot &slot, Waiter &waiter) QEL_REQUIRES(mutex_);

    Mutex mutex_;
    std::array<Slot, QEL_COMMLEN_CODES_MAX> slots_ QEL_GUARDED_BY(mutex_) = {};

    // By command code: the last request, unless somebody has its reply.
    static constexpr size_t kCodes = 256;
    std::array<int16_t, kCodes> requests_ QEL_GUARDED_BY(mutex_) = {};
    // By number, until it is used again: the codes of replies that nobody wants any more. Counts only while
    // replies carry the numbers of their requests: some controllers count on their own. What a reader heard
    // without a request of its own closes nothing: who speaks unasked uses its numbers again and again.
    std::array<std::bitset<kCodes>, 256> closed_ QEL_GUARDED_BY(mutex_) = {};
    bool replies_carry_numbers_ QEL_GUARDED_BY(mutex_) = true;
};

}  // namespace qel::commlen
