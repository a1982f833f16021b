// What qelctl env check makes of a partition's content.
#include "tools/qelctl/environment_block.h"

#include <gtest/gtest.h>
#include <zlib.h>
#include <algorithm>

namespace qelctl {
namespace {

using Content = std::vector<uint8_t>;

// Entries in a block of that size, sealed, in an erased partition.
Content partition(const std::vector<std::string> &entries, size_t block_bytes, size_t partition_bytes) {
    Content content(partition_bytes, 0xFF);
    std::fill_n(content.begin(), block_bytes, uint8_t{0});
    auto at = content.begin() + 4;
    for (const std::string &entry : entries) at = std::copy(entry.begin(), entry.end(), at) + 1;
    const auto crc = static_cast<uint32_t>(crc32(0, content.data() + 4, static_cast<uInt>(block_bytes - 4)));
    for (size_t i = 0; i < 4; ++i) content[i] = static_cast<uint8_t>(crc >> 8 * i);
    return content;
}

TEST(EnvironmentBlock, HasTheSizeForWhichItsCheckSumIsRight) {
    for (const size_t block : {0x4000, 0x20000, 0x40000, 0x60000}) {
        const EnvironmentBlock found = parse_environment(partition({"a=1", "b=x=y"}, block, 0x60000));
        EXPECT_EQ(found.size_bytes, block);
        EXPECT_TRUE(found.is_sound());
        EXPECT_EQ(found.used_bytes, 10u);
        EXPECT_EQ(found.free_bytes, block - 14);
        EXPECT_EQ(found.parameters, (decltype(found.parameters){{"a", "1"}, {"b", "x=y"}}));
    }
}

TEST(EnvironmentBlock, ShowsTheOtherByteOrder) {
    Content content = partition({"abc=1"}, 0x4000, 0x8000);
    for (size_t at = 0; at < content.size(); at += 4) std::reverse(&content[at], &content[at] + 4);
    const EnvironmentBlock found = parse_environment(content);
    EXPECT_TRUE(found.other_byte_order);
    EXPECT_TRUE(found.crc_is_right());
    EXPECT_EQ(found.parameters.at(0).first, "abc");
}

TEST(EnvironmentBlock, NamesWhatIsWrong) {
    const EnvironmentBlock doubled = parse_environment(partition({"a=1", "b", "a=2", "a=3"}, 0x4000, 0x8000));
    EXPECT_EQ(doubled.duplicates, std::vector<std::string>{"a"});
    EXPECT_EQ(doubled.nameless, std::vector<std::string>{"b"});
    EXPECT_FALSE(doubled.is_sound());

    const EnvironmentBlock endless = parse_environment(Content(0x20000, 0xFF));
    EXPECT_FALSE(endless.ended);
    EXPECT_EQ(endless.free_bytes, 0u);
    EXPECT_FALSE(endless.crc_is_right());
    for (const size_t bytes : {0U, 4U, 5U}) EXPECT_FALSE(parse_environment(Content(bytes, 0xFF)).is_sound());
}

}  // namespace
}  // namespace qelctl
