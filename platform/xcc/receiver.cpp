#include "platform/xcc/receiver.h"

#include <climits>

#include "platform/common/futex.h"

namespace qel::xcc {

using platform::Lock;
using platform::Scope;

namespace {

// Where a descriptor keeps what it takes to find the message again.
enum { kSlotWord, kNumberWord };

}  // namespace

bool Receiver::take(XCC_BufInfo *out) {
    const Lock lock(mutex_);
    const Control &control = memory_.control();
    for (;;) {
        const uint32_t waiting = control.tail.load(std::memory_order_acquire) - head_;
        if (waiting == 0 || waiting > kSlots) return false;
        const uint32_t slot = control.ring[head_ % kSlots].load(std::memory_order_relaxed);
        ++head_;
        if (slot < kSlots && take_slot(slot, out)) return true;
    }
}

// The slot is the peer's word: whatever is read from it is read once, then checked.
bool Receiver::take_slot(uint32_t slot, XCC_BufInfo *out) {
    Slot &shared = memory_.control().slots[slot];
    uint32_t state = kPosted;
    if (held_[slot].taken) return false;
    if (!shared.state.compare_exchange_strong(state, kTaken, std::memory_order_acq_rel)) {
        if (state == kWithdrawn) drop(shared);
        return false;
    }
    const uint32_t offset = *static_cast<volatile uint32_t *>(&shared.offset);
    const uint32_t length = *static_cast<volatile uint32_t *>(&shared.length);
    const bool wants_answer = *static_cast<volatile uint32_t *>(&shared.wants_answer) != 0;
    const bool fits = offset % kAlignBytes == 0 && length != 0 && offset <= memory_.region_bytes() &&
                      length <= memory_.region_bytes() - offset;
    if (!fits || (wants_answer && is_lost())) {
        drop(shared);
        return false;
    }
    held_[slot] = {true, offset};
    ++held_count_;
    *out = {};
    out->addr = memory_.at(offset);
    out->length = length;
    out->waitReply = wants_answer ? 1 : 0;
    out->rsv[kSlotWord] = slot;
    out->rsv[kNumberWord] = number_;
    return true;
}

bool Receiver::owns(const XCC_BufInfo &message) const { return message.rsv[kNumberWord] == number_; }

int Receiver::give_back(const XCC_BufInfo &message, bool answer) {
    const uint32_t slot = message.rsv[kSlotWord];
    if (slot >= kSlots || !owns(message)) return XCC_EFAIL;
    {
        const Lock lock(mutex_);
        if (!held_[slot].taken || message.addr != memory_.at(held_[slot].offset)) return XCC_EFAIL;
        held_[slot].taken = false;
        --held_count_;
    }
    Slot &shared = memory_.control().slots[slot];
    const bool was_lost = is_lost();
    uint32_t state = kTaken;
    const uint32_t result = answer ? kAnswered : kReturned;
    if (!shared.state.compare_exchange_strong(state, result)) {
        drop(shared);  // nobody waits any more
        return answer ? XCC_EPEER : 0;
    }
    tell_master(shared, result);
    return answer && was_lost ? XCC_EPEER : 0;
}

// Only this side still moves the slot.
void Receiver::drop(Slot &slot) {
    slot.state.store(kReturned);
    tell_master(slot, kReturned);
}

// The slot may carry another message by now: a wake too many does no harm.
void Receiver::tell_master(Slot &slot, uint32_t state) {
    Control &control = memory_.control();
    if (slot.sleeping.load() != 0) platform::futex_wake(&slot.state, INT_MAX, Scope::kMachine);
    if (state == kAnswered) return;  // its master frees the room
    control.room_bell.fetch_add(1);
    if (control.room_sleepers.load() != 0) platform::futex_wake(&control.room_bell, INT_MAX, Scope::kMachine);
}

unsigned Receiver::held() const {
    const Lock lock(mutex_);
    return held_count_;
}

bool Receiver::wait(uint32_t heard, Deadline deadline) const {
    Control &control = memory_.control();
    control.sleepers.fetch_add(1);
    const bool in_time = platform::futex_wait(&control.bell, heard, deadline, Scope::kMachine);
    control.sleepers.fetch_sub(1);
    return in_time;
}

void Receiver::wake() const {
    Control &control = memory_.control();
    control.bell.fetch_add(1);
    platform::futex_wake(&control.bell, INT_MAX, Scope::kMachine);
}

void Receiver::lose() {
    lost_.store(true);
    peer_.hang_up();
    wake();
}

}  // namespace qel::xcc
