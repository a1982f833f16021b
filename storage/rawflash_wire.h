// rawflash_wire.h - what the master and a slave chip say to each other about the slave's flash, in the
// payload of a forwarding message of the flash module.
//
// A request is a FlashRequest, for writes followed by the data, for reads and questions by room for the
// answer. It comes back in place with its status, and the answer behind it. A slave does not answer a
// payload that is too short for what it asks. Little-endian.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qel/frame.h"
#include "qel/rawflash.h"
#include "qel/storage.h"

namespace qel::rawflash {

// Beside upgrade_state::kWriteFlagCommand.
enum Command : uint32_t {
    kOpen = 1,        // unmounts the flash's directories; from here on the slave keeps an object open
    kClose = 2,       // releases it: ends an upgrade in progress
    kCaps = 3,        // answer: RawFlashCaps
    kRead = 4,        // answer: `bytes` from `address` on
    kWrite = 5,       // `bytes` of data to `address`; `count` more bytes follow in later requests
    kErase = 6,       // `count` bytes from `address` on
    kAbort = 7,       // ends the requests of the object that run
    kWritePiece = 8,  // as kWrite into the partition `name`; `address` counts from its start
};

struct FlashRequest {
    int32_t status;  // answer: 0 or -1
    uint32_t bytes;
    uint64_t address;
    uint64_t count;
    char name[QEL_PARTITION_NAME_BYTES];  // with its terminator
};
static_assert(sizeof(FlashRequest) == 40 && offsetof(FlashRequest, address) == 8);
static_assert(offsetof(FlashRequest, count) == 16 && offsetof(FlashRequest, name) == 24);
static_assert(sizeof(RawFlashCaps) == 32 && offsetof(RawFlashCaps, totalBytes) == 24);

// The most that one request carries.
constexpr uint32_t kMaxDataBytes = QEL_ADAPTER_MAX_PAYLOAD - sizeof(FlashRequest);

// The slave's side: answers one request in place. 0, or -1 where there is no answer to give.
int serve(uint32_t command, uint8_t *payload, uint32_t length);

}  // namespace qel::rawflash
