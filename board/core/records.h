// records.h - how the argument of an ioctl crosses from a process to the board and back.
//
// A device class states it once per request, in a table. Most records are flat: `in_bytes` go over,
// `out_bytes` at the most come back, in place; the board refuses one of another size (EFAULT) before the
// device sees it. Records with pointers or native sizes have a pair of functions that run in the
// process; the device checks itself what they packed.
#pragma once

#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

namespace qel::board {

constexpr uint32_t kAllBytes = 0xFFFFFFFFu;  // out_bytes: as many as the device answered

struct RequestSpec {
    uint32_t code;
    const char *name;  // as the trace shows it
    uint32_t in_bytes = 0;
    uint32_t out_bytes = 0;
    // In place of the flat copy. `argument` is the process's own record. False = EFAULT.
    bool (*pack)(const void *argument, std::vector<uint8_t> &in) = nullptr;
    bool (*unpack)(void *argument, std::span<const uint8_t> out) = nullptr;
};

}  // namespace qel::board
