// receiver.h - the slave's end of one meeting: takes messages in the order they were posted, and gives
// their memory back in any order.
#pragma once

#include "platform/common/mutex.h"
#include "platform/xcc/link.h"

namespace qel::xcc {

class Receiver {
public:
    // `number` stands in the descriptors of its messages.
    Receiver(uint32_t number, Memory memory, Peer peer)
        : number_(number), memory_(std::move(memory)), peer_(std::move(peer)) {}

    const Peer &peer() const { return peer_; }

    // True with the next message; false when there is none.
    bool take(XCC_BufInfo *out);
    bool owns(const XCC_BufInfo &message) const;
    // Gives a message back, with its answer or without. XCC_EFAIL: it was not taken from here.
    int give_back(const XCC_BufInfo &message, bool answer);
    unsigned held() const;

    // What to sleep on: read it, find nothing to take, then wait until it changes.
    uint32_t heard() const { return memory_.control().bell.load(); }
    bool wait(uint32_t heard, Deadline deadline) const;
    void wake() const;

    bool is_lost() const { return lost_.load(); }
    // The master is gone. What it posted without waiting for an answer can still be taken.
    void lose();

private:
    struct Held {
        bool taken = false;
        uint32_t offset = 0;
    };

    bool take_slot(uint32_t slot, XCC_BufInfo *out) QEL_REQUIRES(mutex_);
    void drop(Slot &slot);
    void tell_master(Slot &slot, uint32_t state);

    const uint32_t number_;
    const Memory memory_;
    const Peer peer_;
    std::atomic<bool> lost_{false};
    mutable platform::Mutex mutex_;
    uint32_t head_ QEL_GUARDED_BY(mutex_) = 0;
    unsigned held_count_ QEL_GUARDED_BY(mutex_) = 0;
    Held held_[kSlots] QEL_GUARDED_BY(mutex_);
};

}  // namespace qel::xcc
