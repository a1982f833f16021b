// sender.h - the master's end of one meeting: finds room, posts messages, waits for their answers.
#pragma once

#include "platform/common/mutex.h"
#include "platform/xcc/link.h"
#include "platform/xcc/spinner.h"

namespace qel::xcc {

class Sender {
public:
    Sender(Memory memory, Peer peer) : memory_(std::move(memory)), peer_(std::move(peer)) {}

    const Peer &peer() const { return peer_; }
    uint32_t capacity() const { return memory_.region_bytes(); }
    // Sends and, if asked to, waits for the answer. *seen: whether the slave may have seen the message.
    int send(const XCC_BufInfo &message, Deadline deadline, bool *seen);
    // The slave is gone: ends every waiting send, and fails all others.
    void lose();

private:
    // Where a slot's message stands, out of the slave's reach.
    struct Place {
        uint32_t offset = 0;
        uint32_t length = 0;
    };
    struct Reservation {
        uint32_t slot = 0;
        uint8_t *memory = nullptr;
        uint32_t length = 0;
    };
    struct RoomWaiter {
        RoomWaiter *next = nullptr;
    };

    int reserve(uint32_t length, Deadline deadline, Reservation *out);
    bool try_reserve(uint32_t length, Reservation *out) QEL_REQUIRES(mutex_);
    bool find_room(uint32_t length, uint32_t *offset) const QEL_REQUIRES(mutex_);
    void collect() QEL_REQUIRES(mutex_);
    void leave_queue(const RoomWaiter *waiter) QEL_REQUIRES(mutex_);
    bool post(uint32_t slot, bool wants_answer);
    int await(const Reservation &own, void *answer, Deadline deadline, bool *seen);
    // The slave still holds the slot: whoever looks for room frees it later.
    void detach(uint32_t slot);
    void free(uint32_t slot);
    void announce_room();

    const Memory memory_;
    const Peer peer_;
    Spinner spinner_;
    platform::Mutex mutex_;
    bool lost_ QEL_GUARDED_BY(mutex_) = false;
    uint64_t used_ QEL_GUARDED_BY(mutex_) = 0;      // one bit for each slot
    uint64_t detached_ QEL_GUARDED_BY(mutex_) = 0;  // of these, the ones no thread waits for
    Place places_[kSlots] QEL_GUARDED_BY(mutex_);
    RoomWaiter *first_waiter_ QEL_GUARDED_BY(mutex_) = nullptr;
};

}  // namespace qel::xcc
