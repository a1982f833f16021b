// environment_media.h - boards with a boot environment on every medium, and its block past the library.
#pragma once

#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <cstring>
#include <ostream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "board/core/board.h"
#include "os/hook.h"

namespace qel::test {

using Octets = std::vector<uint8_t>;

constexpr size_t kBlockBytes = 0x20000;

// A shipped board, with changes to its text.
struct Medium {
    const char *name;
    const char *board;
    std::vector<std::pair<std::string, std::string>> changes;
    const char *node;                // of "hwid"
    std::vector<uint64_t> sections;  // where they stand
    bool reversed = false;
    size_t bytes = kBlockBytes;

    size_t section_bytes() const { return bytes / sections.size(); }
    std::string description() const {
        std::string text = board::find_board(board);
        for (const auto &[from, to] : changes) {
            const size_t at = text.find(from);
            if (at == std::string::npos) throw std::runtime_error(from + " is not in the board");
            text.replace(at, from.size(), to);
        }
        return text;
    }
};

inline void PrintTo(const Medium &medium, std::ostream *out) { *out << medium.name; }

inline std::vector<uint64_t> row(size_t count, uint64_t step) {
    std::vector<uint64_t> offsets;
    for (size_t i = 0; i < count; ++i) offsets.push_back(i * step);
    return offsets;
}

inline const Medium kMedia[] = {
    {"nor", "nor", {}, "/dev/mtd/1", row(2, 0x10000)},
    {"nand", "nand-backup", {}, "/dev/mtd/1", {0x20000}},
    {"nand_small_blocks",
     "nand-backup",
     {{"erase_bytes = 0x20000", "erase_bytes = 0x8000"}},
     "/dev/mtd/1",
     {0x8000, 0x10000, 0x20000, 0x28000}},
    {"mlc_large_blocks",
     "nand-backup",
     {{"kind = \"nand\"", "kind = \"mlc-nand\""},
      {"erase_bytes = 0x20000", "erase_bytes = 0x40000"},
      {"bad = [0, 3]", "bad = [0]"},
      {"bad = [0, 17, 18, 159]", ""},
      {"type = 0x11001, backup = 0x4600000, ", "type = 0x11001, backup = 0x4600000"}},
     "/dev/mtd/1",
     {0x40000}},
    {"emmc", "emmc", {}, "/dev/mmcblk0p2", row(8, 0x4000)},
    {"nor_reversed",
     "nor",
     {{"5 = 3 ", "5 = 18 "},
      {"environment_bytes = 0x20000", "environment_bytes = 0x40000\nenvironment_reversed = true"}},
     "/dev/mtd/1",
     row(4, 0x10000),
     true,
     0x40000},
};

inline const qel_os_ops &ops() { return *qel_world_hook()->os; }

// The block as it stands in flash, past the library.
inline Octets block_in_flash(const Medium &medium) {
    Octets block(medium.bytes);
    const int fd = ops().open(medium.node, 2, 0);
    EXPECT_GE(fd, 0);
    for (size_t i = 0; i < medium.sections.size(); ++i) {
        uint8_t *const at = block.data() + i * medium.section_bytes();
        EXPECT_GE(ops().seek(fd, static_cast<int64_t>(medium.sections[i]), 0), 0);
        EXPECT_EQ(ops().read(fd, at, medium.section_bytes()), static_cast<ssize_t>(medium.section_bytes()));
    }
    ops().close(fd);
    if (medium.reversed) {
        for (size_t at = 0; at < block.size(); at += 4) std::reverse(&block[at], &block[at] + 4);
    }
    return block;
}

inline bool has_right_crc(const Octets &block) {
    uint32_t stored = 0;
    memcpy(&stored, block.data(), sizeof stored);
    return stored == crc32(0, block.data() + 4, static_cast<uInt>(block.size() - 4));
}

// name=value, in order.
inline std::vector<std::string> entries_of(const Octets &block) {
    std::vector<std::string> entries;
    for (size_t at = 4; at < block.size() && block[at] != 0; at += entries.back().size() + 1) {
        entries.emplace_back(reinterpret_cast<const char *>(&block[at]));
    }
    return entries;
}

}  // namespace qel::test
