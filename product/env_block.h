// env_block.h - the block of boot parameters: entries "name=value", each with a zero byte behind it,
// another zero byte behind the last, in front of all a CRC-32. What a block holds comes from outside:
// every walk ends within the block, and what has no end of its own is no entry. Pure.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace qel::environment {

using Block = std::span<uint8_t>;
using ConstBlock = std::span<const uint8_t>;

constexpr size_t kCrcBytes = 4;
constexpr size_t kMinBlockBytes = 64;
constexpr size_t kMaxBlockBytes = 0x1000000;

// What decides how large the block is.
struct Place {
    uint32_t flash_type;
    uint64_t partition_bytes;
    int category;
    int board_type;
};
// 0 for a flash type that holds no block. May be more than a partition has: ask block_fits.
uint64_t block_bytes(const Place &place);
// NOR flash of this board type holds the block's words with their bytes in the other order.
bool has_reversed_words(const Place &place);
void reverse_words(Block block);

struct Value {
    const char *text = nullptr;  // into the block, with a terminator; nullptr: no such parameter
    size_t length = 0;
};
// The first entry of that name.
Value find(ConstBlock block, const char *name);

bool is_name(const char *name);  // not empty, without "=", begins with no erased byte (0xFF)

// Where the list ends: behind its last entry, in front of its own zero byte.
struct ListEnd {
    size_t at;
    bool is_marked;  // the zero byte is there
};
ListEnd find_end(ConstBlock block);
// Bytes of the entries with their terminators.
inline size_t bytes_in_use(ConstBlock block) { return find_end(block).at - kCrcBytes; }
// Drops all entries of that name and what an erase left in front of the others; the rest of the block is
// zero afterwards.
void remove(Block block, const char *name);
// False, and no change, where there is no room. `name` must not be there.
bool append(Block block, const char *name, const char *value);

uint32_t crc_of(ConstBlock block);  // of everything behind the CRC's own place
void store_crc(Block block);

// What stands in the CRC's place of the shared copy while that or the flash is not whole.
constexpr uint32_t kCopying = 0x5A1C0BE7;  // the copy is being replaced: flash has the block
constexpr uint32_t kSaving = 0x5A1C0BE8;   // flash is being written: the copy is whole

constexpr size_t kMacBytes = 6;
// Hexadecimal bytes with one character between; what is missing is 0.
void parse_mac(const char *text, uint8_t (&mac)[kMacBytes]);

}  // namespace qel::environment
