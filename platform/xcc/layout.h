// layout.h - what two chips share: the channel's memory, and the packets by which they meet.
//
// The master makes one piece of memory for each meeting and hands it to the slave, so nothing of a dead
// process is ever taken over. No lock stands in it. A slot carries one message through its states, each
// step is one atomic exchange, and only one side may take it:
//
//   free -> posted -> taken -> answered            master, slave, slave; then the master frees it
//                          \-> returned            slave: given back without an answer
//   posted -> withdrawn -> returned                master: out of time; slave
//   taken -> abandoned -> returned                 master: out of time; slave
//   posted -> lost_untaken, taken -> lost          master: the slave is gone
//
// Which memory belongs to which slot, the master keeps to itself; the slave checks what it is told.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "platform/include/xcc.h"

namespace qel::xcc {

constexpr uint32_t kMagic = 0x31434358;  // "XCC1"
constexpr uint32_t kSlots = 64;
constexpr uint32_t kMaxRegionBytes = 16u << 20;
constexpr uint32_t kAlignBytes = 64;  // messages do not share cache lines

enum State : uint32_t {
    kFree,
    kPosted,
    kTaken,
    kAnswered,
    kReturned,
    kWithdrawn,
    kAbandoned,
    kLostUntaken,
    kLost,
};

using Word = std::atomic<uint32_t>;
static_assert(sizeof(Word) == 4 && Word::is_always_lock_free);

struct alignas(kAlignBytes) Slot {
    Word state;
    Word sleeping;  // the master sleeps on `state`
    uint32_t offset;
    uint32_t length;
    uint32_t wants_answer;
};

struct Control {
    // The master posts a slot by writing its number into the ring and moving the tail.
    alignas(kAlignBytes) Word tail;
    Word bell;      // changes with every reason for the slave to look
    Word sleepers;  // slave threads that sleep on it
    // Changes with every reason for a master that waits for room to look.
    alignas(kAlignBytes) Word room_bell;
    Word room_sleepers;
    alignas(kAlignBytes) Word ring[kSlots];
    Slot slots[kSlots];
};
static_assert(sizeof(Slot) == 64 && offsetof(Control, room_bell) == 64 && offsetof(Control, ring) == 128 &&
              offsetof(Control, slots) == 384 && sizeof(Control) == 4480);

constexpr uint32_t kRegionOffset = 8192;
static_assert(sizeof(Control) <= kRegionOffset);

// The name at which a slave's channel is met.
inline void meeting_name(int32_t process_id, uint32_t chip, const char *channel, char *out,
                         size_t out_bytes) {
    snprintf(out, out_bytes, "xcc%d-%u-%.*s", process_id, chip, XCC_NAME_BYTES - 1, channel);
}

// Master to slave, with the memory's descriptor.
struct Hello {
    uint32_t magic;
    uint32_t region_bytes;
    uint32_t chip;  // of the sender
    int32_t process_id;
    char name[XCC_NAME_BYTES];  // of the sender's channel
    char peer_name[XCC_NAME_BYTES];
};
static_assert(sizeof(Hello) == 80);

// Slave to master. The connection then stays open and silent: its end is the end of the peer.
struct Welcome {
    uint32_t magic;
    uint32_t accepted;
};

}  // namespace qel::xcc
