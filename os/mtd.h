// mtd.h - requests of the kernel's raw flash devices ("/dev/mtd/N"), and their records.
#pragma once

#include <cstdint>

namespace qel::os {

constexpr uint32_t kMtdGetInfo = 0x80204D01;      // MtdInfo out
constexpr uint32_t kMtdErase = 0x40084D02;        // MtdErase in
constexpr uint32_t kMtdGetBadBlock = 0x40084D0B;  // s64 offset in; > 0: bad
constexpr uint32_t kMtdSetBadBlock = 0x40084D0C;  // s64 offset in

struct MtdInfo {
    uint8_t type;
    uint8_t reserved[3];
    uint32_t flags;
    uint32_t size_bytes;
    uint32_t erase_bytes;
    uint32_t write_bytes;
    uint32_t oob_bytes;
    uint64_t padding;
};
static_assert(sizeof(MtdInfo) == 32);

struct MtdErase {
    uint32_t start;
    uint32_t length;
};
static_assert(sizeof(MtdErase) == 8);

}  // namespace qel::os
