// environment.cpp - the boot environment that a board comes with: a block at the start of partition
// "hwid", with a CRC-32 in its first word. On NAND its sections stand in the good blocks, in order.
#include <zlib.h>
#include <algorithm>

#include "board/model/flash_nodes.h"
#include "board/model/records.h"

namespace qel::board {

namespace {

constexpr const char *kPartition = "hwid";
constexpr int64_t kDefaultBytes = 0x20000;
constexpr int64_t kMostBytes = 1 << 24;
constexpr size_t kHeadBytes = 4;

Buffer make_block(const Description &parameters, size_t bytes) {
    Buffer block(kHeadBytes);
    for (const std::string &name : parameters.keys()) {
        const std::string value = parameters.text(name, "");
        const std::string entry = name + "=" + value;
        if (name.empty() || name.find('=') != std::string::npos || entry.find('\0') != std::string::npos)
            parameters.fail(name, "is no name or no value of a parameter");
        block.insert(block.end(), entry.begin(), entry.end());
        block.push_back(0);
        if (block.size() >= bytes) parameters.fail(name, "finds no room in the block");
    }
    block.resize(bytes);
    put_u32(
        block, 0,
        static_cast<uint32_t>(::crc32(0, block.data() + kHeadBytes, static_cast<uInt>(bytes - kHeadBytes))));
    return block;
}

void reverse_words(Buffer &block) {
    for (size_t at = 0; at + 4 <= block.size(); at += 4)
        std::reverse(block.begin() + static_cast<ptrdiff_t>(at),
                     block.begin() + static_cast<ptrdiff_t>(at + 4));
}

// Section by section into the good blocks. False: there are too few of them.
bool put_block(Flash &flash, const FlashPartition &partition, Bytes block) {
    const uint64_t erase_bytes = flash.geometry().erase_bytes;
    uint64_t at = partition.offset;
    while (!block.empty()) {
        if (flash.is_nand() && at < partition.offset + partition.size && flash.is_bad(at)) {
            at += erase_bytes;
            continue;
        }
        const size_t section = std::min<size_t>(block.size(), static_cast<size_t>(erase_bytes));
        if (at + section > partition.offset + partition.size || flash.put(at, block.first(section)) != 0)
            return false;
        at += erase_bytes;
        block = block.subspan(section);
    }
    return true;
}

}  // namespace

void write_environment(Flash &flash, const Chip &chip, const Description &flash_table) {
    const auto bytes =
        static_cast<size_t>(flash_table.number("environment_bytes", 64, kMostBytes, kDefaultBytes));
    const bool reversed = flash_table.flag("environment_reversed", false);
    for (const Description &parameters : chip.description().tables("environment")) {
        const auto &all = flash.partitions();
        const auto partition =
            std::find_if(all.begin(), all.end(), [](const auto &p) { return p.name == kPartition; });
        if (partition == all.end()) parameters.fail("", "wants a partition \"hwid\"");
        if (bytes % 4 != 0) flash_table.fail("environment_bytes", "must be whole words");
        Buffer block = make_block(parameters, bytes);
        if (reversed) reverse_words(block);
        if (flash.is_new() && !put_block(flash, *partition, block))
            flash_table.fail("environment_bytes", "partition \"hwid\" has too little room for the block");
    }
}

}  // namespace qel::board
