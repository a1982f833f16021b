#include "comm/commlen_waiters.h"

#include <algorithm>

#include "frame/log.h"

namespace qel::commlen {

namespace {

constexpr unsigned kMostPosts = 1024;

// The reply that a reader who was woken may take: its own, else that of another one, who then waits on.
Waiter *served_of(Waiter *first, Waiter &mine) {
    if (mine.served) return &mine;
    for (Waiter *waiter = first; waiter != nullptr; waiter = waiter->next) {
        if (waiter->served) return waiter;
    }
    return nullptr;
}

}  // namespace

int Waiters::create(const char *function) {
    if (mutex_.create() != 0) {
        QEL_ERROR_AS(function, "no memory for the link\n");
        return OSA_EFAIL;
    }
    const MutexLock lock(mutex_);
    requests_.fill(kNoRequest);
    closed_.fill({});
    replies_carry_numbers_ = true;
    for (size_t i = 0; i < slots_.size(); ++i) {
        if (OSA_semCreate(&slots_[i].arrived, kMostPosts, 0) == 0) continue;
        QEL_WARN_AS(function, "OSA_semCreate %d fail\n", static_cast<int>(i));
        return OSA_EFAIL;
    }
    return 0;
}

int Waiters::destroy() {
    {
        const MutexLock lock(mutex_);
        for (Slot &slot : slots_) {
            if (slot.arrived != nullptr) OSA_semDelete(&slot.arrived);
            slot = {};
        }
    }
    return mutex_.destroy();
}

Waiters::Slot *Waiters::find_locked(uint8_t command) {
    const auto used = [=](const Slot &slot) { return slot.first != nullptr && slot.command == command; };
    const auto found = std::ranges::find_if(slots_, used);
    return found != slots_.end() ? &*found : nullptr;
}

void Waiters::note_request(uint8_t command, uint8_t sequence, Waiter *waiter) {
    const MutexLock lock(mutex_);
    closed_[sequence].reset();
    requests_[command] = sequence;
    if (waiter != nullptr) waiter->request = sequence;
}

void Waiters::give_up_request(uint8_t command, uint8_t sequence) {
    const MutexLock lock(mutex_);
    end_request_locked(command, sequence, false);
}

void Waiters::end_request_locked(uint8_t command, int request, bool answered) {
    if (request == kNoRequest) return;
    if (!answered) closed_[static_cast<size_t>(request)].set(command);
    if (requests_[command] == request) requests_[command] = kNoRequest;
}

// One frame per number: were we wrong about the controller, the next one is taken and teaches us better.
bool Waiters::is_unwanted_locked(const Frame &frame) {
    std::bitset<kCodes> &closed = closed_[frame.sequence];
    const bool unwanted = replies_carry_numbers_ && closed.test(frame.command);
    if (unwanted) closed.reset(frame.command);
    return unwanted;
}

void Waiters::learn_locked(const Slot &slot, const Frame &frame) {
    bool asked = false;
    for (const Waiter *waiter = slot.first; waiter != nullptr; waiter = waiter->next) {
        asked = asked || waiter->request != kNoRequest;
        if (waiter->request != frame.sequence) continue;
        replies_carry_numbers_ = true;
        return;
    }
    if (asked) replies_carry_numbers_ = false;
}

bool Waiters::join(uint8_t command, Waiter &waiter) {
    waiter.served = false;
    waiter.next = nullptr;
    waiter.reply.command = command;
    const MutexLock lock(mutex_);
    waiter.request = requests_[command];
    Slot *slot = find_locked(command);
    if (slot == nullptr) {
        slot = std::ranges::find(slots_, nullptr, &Slot::first);
        if (slot == slots_.end()) return false;
        slot->command = command;
    }
    Waiter **last = &slot->first;
    while (*last != nullptr) last = &(*last)->next;
    *last = &waiter;
    return true;
}

void Waiters::leave_locked(Slot &slot, Waiter &waiter) {
    Waiter **at = &slot.first;
    while (*at != &waiter) at = &(*at)->next;
    *at = waiter.next;
    if (slot.first != nullptr) return;
    while (OSA_semPend(slot.arrived, 0) == 0) {
    }
}

void Waiters::leave(Waiter &waiter) {
    const MutexLock lock(mutex_);
    leave_locked(*find_locked(waiter.reply.command), waiter);
}

// A post says that one more of the slot's readers was served, not which. A reader whose time is over
// leaves with its own reply alone, so a post may be left for others, who find nothing and wait on; so do
// the readers of the next code when a post comes only after the slot's last reader has left.
bool Waiters::wait(Waiter &waiter, unsigned timeout_ms) {
    const uint64_t deadline_ms = OSA_timeMs() + timeout_ms;
    OSA_SemHandle arrived = nullptr;
    {
        const MutexLock lock(mutex_);
        arrived = find_locked(waiter.reply.command)->arrived;
    }
    for (;;) {
        const uint64_t now_ms = OSA_timeMs();
        const unsigned left_ms = now_ms < deadline_ms ? static_cast<unsigned>(deadline_ms - now_ms) : 0;
        const bool posted = OSA_semPend(arrived, left_ms) == 0;
        const MutexLock lock(mutex_);
        Slot &slot = *find_locked(waiter.reply.command);
        Waiter *served = served_of(posted ? slot.first : nullptr, waiter);
        if (served == nullptr && posted) continue;
        if (served != nullptr && served != &waiter) {
            waiter.reply = served->reply;
            served->served = false;
        }
        end_request_locked(waiter.reply.command, waiter.request, served != nullptr);
        leave_locked(slot, waiter);
        return served != nullptr;
    }
}

// Posts when the mutex is free again, so that who wakes up runs on.
void Waiters::deliver(const Frame &frame) {
    OSA_SemHandle arrived = nullptr;
    {
        const MutexLock lock(mutex_);
        Slot *slot = find_locked(frame.command);
        if (slot == nullptr || is_unwanted_locked(frame)) return;
        Waiter *waiter = slot->first;
        while (waiter != nullptr && waiter->served) waiter = waiter->next;
        if (waiter == nullptr) return;
        learn_locked(*slot, frame);
        if (waiter->request != kNoRequest) closed_[frame.sequence].set(frame.command);
        std::ranges::copy(frame.payload, waiter->reply.payload);
        waiter->reply.length = static_cast<uint8_t>(frame.payload.size());
        waiter->served = true;
        arrived = slot->arrived;
    }
    OSA_semPost(arrived);
}

}  // namespace qel::commlen
