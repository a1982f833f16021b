#include "platform/xcc/sender.h"

#include <bit>
#include <climits>
#include <cstring>

#include "platform/common/futex.h"

namespace qel::xcc {

using platform::Lock;
using platform::Scope;

namespace {

static_assert(kSlots == 64, "one bit of a 64-bit word for each slot");

constexpr uint64_t bit(uint32_t slot) { return uint64_t{1} << slot; }

bool is_final(uint32_t state) { return state != kPosted && state != kTaken; }

bool advance(Slot &slot, uint32_t from, uint32_t to) {
    return slot.state.compare_exchange_strong(from, to, std::memory_order_acq_rel);
}

}  // namespace

int Sender::send(const XCC_BufInfo &message, Deadline deadline, bool *seen) {
    *seen = false;
    Reservation own;
    const int failure = reserve(message.length, deadline, &own);
    if (failure != 0) return failure;
    const bool wants_answer = message.waitReply != 0;
    memcpy(own.memory, message.addr, message.length);
    if (!post(own.slot, wants_answer)) {
        free(own.slot);
        return XCC_EPEER;
    }
    return wants_answer ? await(own, message.addr, deadline, seen) : 0;
}

// First fit; the few messages under way are looked at one by one.
bool Sender::find_room(uint32_t length, uint32_t *offset) const {
    const uint32_t size = (length + kAlignBytes - 1) / kAlignBytes * kAlignBytes;
    uint32_t candidate = 0;
    for (bool moved = true; moved;) {
        moved = false;
        for (uint64_t left = used_; left != 0; left &= left - 1) {
            const Place &other = places_[std::countr_zero(left)];
            const uint32_t other_end =
                (other.offset + other.length + kAlignBytes - 1) / kAlignBytes * kAlignBytes;
            if (candidate < other_end && other.offset < candidate + size) {
                candidate = other_end;
                moved = true;
            }
        }
        if (candidate > memory_.region_bytes() || memory_.region_bytes() - candidate < length) return false;
    }
    *offset = candidate;
    return true;
}

void Sender::collect() {
    for (uint64_t left = detached_; left != 0; left &= left - 1) {
        const auto slot = static_cast<uint32_t>(std::countr_zero(left));
        const uint32_t state = memory_.control().slots[slot].state.load(std::memory_order_acquire);
        if (state == kPosted || state == kTaken || state == kWithdrawn || state == kAbandoned) continue;
        detached_ &= ~bit(slot);
        used_ &= ~bit(slot);
    }
}

bool Sender::try_reserve(uint32_t length, Reservation *out) {
    collect();
    uint32_t offset = 0;
    if (used_ == ~uint64_t{0} || !find_room(length, &offset)) return false;
    const auto slot = static_cast<uint32_t>(std::countr_one(used_));
    used_ |= bit(slot);
    places_[slot] = {offset, length};
    Slot &shared = memory_.control().slots[slot];
    shared.offset = offset;
    shared.length = length;
    *out = {slot, memory_.at(offset), length};
    return true;
}

void Sender::leave_queue(const RoomWaiter *waiter) {
    RoomWaiter **link = &first_waiter_;
    while (*link != waiter) link = &(*link)->next;
    *link = waiter->next;
}

// In the order of arrival, so that small messages cannot keep a large one waiting for ever.
int Sender::reserve(uint32_t length, Deadline deadline, Reservation *out) {
    Control &control = memory_.control();
    RoomWaiter self;
    {
        const Lock lock(mutex_);
        if (lost_) return XCC_EPEER;
        if (first_waiter_ == nullptr && try_reserve(length, out)) return 0;
        RoomWaiter **link = &first_waiter_;
        while (*link != nullptr) link = &(*link)->next;
        *link = &self;
    }
    control.room_sleepers.fetch_add(1);
    int status = 0;
    for (bool in_time = true;;) {
        const uint32_t heard = control.room_bell.load();
        {
            const Lock lock(mutex_);
            const bool done = lost_ || !in_time || (first_waiter_ == &self && try_reserve(length, out));
            if (done) {
                status = lost_ ? XCC_EPEER : in_time ? 0 : XCC_ETIMEOUT;
                leave_queue(&self);
                break;
            }
        }
        in_time = platform::futex_wait(&control.room_bell, heard, deadline, Scope::kMachine);
    }
    control.room_sleepers.fetch_sub(1);
    announce_room();  // the next in the queue may fit as well
    return status;
}

void Sender::announce_room() {
    Control &control = memory_.control();
    control.room_bell.fetch_add(1);
    if (control.room_sleepers.load() != 0) platform::futex_wake(&control.room_bell, INT_MAX, Scope::kMachine);
}

bool Sender::post(uint32_t slot, bool wants_answer) {
    Control &control = memory_.control();
    {
        const Lock lock(mutex_);
        if (lost_) return false;
        if (!wants_answer) detached_ |= bit(slot);
        Slot &shared = control.slots[slot];
        shared.wants_answer = wants_answer ? 1 : 0;
        shared.sleeping.store(0, std::memory_order_relaxed);
        shared.state.store(kPosted, std::memory_order_release);
        const uint32_t tail = control.tail.load(std::memory_order_relaxed);
        control.ring[tail % kSlots].store(slot, std::memory_order_relaxed);
        control.tail.store(tail + 1, std::memory_order_release);
    }
    control.bell.fetch_add(1);
    if (control.sleepers.load() != 0) platform::futex_wake(&control.bell, 1, Scope::kMachine);
    return true;
}

int Sender::await(const Reservation &own, void *answer, Deadline deadline, bool *seen) {
    Slot &shared = memory_.control().slots[own.slot];
    uint32_t state = kFree;
    if (!spinner_.spin([&] { return is_final(shared.state.load(std::memory_order_acquire)); })) {
        shared.sleeping.store(1);
    }
    while (!is_final(state = shared.state.load())) {
        if (platform::futex_wait(&shared.state, state, deadline, Scope::kMachine)) continue;
        if (advance(shared, kPosted, kWithdrawn) || advance(shared, kTaken, kAbandoned)) {
            *seen = true;
            detach(own.slot);
            return XCC_ETIMEOUT;
        }
    }
    *seen = state != kLostUntaken;
    if (state == kAnswered) memcpy(answer, own.memory, own.length);
    free(own.slot);
    if (state == kAnswered) return 0;
    return state == kLost || state == kLostUntaken ? XCC_EPEER : XCC_EDROPPED;
}

void Sender::detach(uint32_t slot) {
    const Lock lock(mutex_);
    detached_ |= bit(slot);
}

void Sender::free(uint32_t slot) {
    {
        const Lock lock(mutex_);
        used_ &= ~bit(slot);
    }
    announce_room();
}

void Sender::lose() {
    Control &control = memory_.control();
    {
        const Lock lock(mutex_);
        lost_ = true;
        for (Slot &slot : control.slots) {
            if (!advance(slot, kPosted, kLostUntaken)) advance(slot, kTaken, kLost);
        }
    }
    peer_.hang_up();
    for (Slot &slot : control.slots) platform::futex_wake(&slot.state, INT_MAX, Scope::kMachine);
    announce_room();
}

}  // namespace qel::xcc
