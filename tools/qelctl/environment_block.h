// environment_block.h - the boot environment as it lies in its partition, for looking at it without
// the library's copy in between. Pure code.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace qelctl {

struct EnvironmentBlock {
    uint32_t size_bytes;
    bool other_byte_order;  // every word of it is stored with its bytes reversed
    uint32_t stored_crc;
    uint32_t computed_crc;
    uint32_t used_bytes;  // of what may hold parameters: without the check sum
    uint32_t free_bytes;
    bool ended;  // the list has its closing zero
    std::vector<std::pair<std::string, std::string>> parameters;
    std::vector<std::string> nameless;    // entries without "="
    std::vector<std::string> duplicates;  // names that occur more than once

    bool crc_is_right() const { return stored_crc == computed_crc; }
    bool is_sound() const { return crc_is_right() && ended && nameless.empty() && duplicates.empty(); }
};

// `content`: the start of the partition. The size of the block depends on the board; it is the one
// for which the check sum is right, the usual one where there is none.
EnvironmentBlock parse_environment(const std::vector<uint8_t> &content);

}  // namespace qelctl
