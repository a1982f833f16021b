// The block of boot parameters as bytes: sizes by board, walks over blocks of any content, changes.
#include "product/env_block.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace qel::environment {
namespace {

using Octets = std::vector<uint8_t>;

Octets block_of(const std::string &content, size_t bytes = 64, uint8_t rest = 0) {
    std::string block = std::string(kCrcBytes, static_cast<char>(rest)) + content;
    block.resize(bytes, static_cast<char>(rest));
    return {block.begin(), block.end()};
}

std::string operator""_z(const char *text, size_t length) { return {text, length}; }

std::string value_of(const Octets &block, const char *name) {
    const Value found = find(block, name);
    return found.text != nullptr ? std::string(found.text, found.length) : "none";
}

TEST(EnvBlock, ItsSizeIsTheBoards) {
    constexpr uint64_t kPartition = 0x30000;
    struct Case {
        uint32_t type;
        int category, board;
        uint64_t bytes;
    };
    const Case cases[] = {
        {4, 2, 14, 0x20000},    {5, 2, 14, 0x20000},    {8, 4, 5, 0x20000},  {3, 0, 3, 0x20000},
        {3, 2, 3, 0x40000},     {3, 3, 1, 0x40000},     {3, 3, 15, 0x20000}, {3, 2, 41, 0x20000},
        {3, 4, 5, 0x4000},      {3, 4, 6, 0x20000},     {3, 2, 5, 0x40000},  {3, 2, 14, kPartition},
        {3, 4, 18, kPartition}, {3, 0, 65, kPartition}, {3, 0, 62, 0x20000}, {3, 0, 66, 0x20000},
        {3, -1, -1, 0x20000},   {3, 0, 65535, 0x20000}, {0, 0, 0, 0},        {6, 0, 0, 0},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(block_bytes({c.type, kPartition, c.category, c.board}), c.bytes)
            << c.type << " " << c.category << " " << c.board;
    }
    EXPECT_TRUE(has_reversed_words({3, kPartition, 0, 18}));
    EXPECT_FALSE(has_reversed_words({4, kPartition, 0, 18}));
    EXPECT_FALSE(has_reversed_words({3, kPartition, 0, 19}));
}

TEST(EnvBlock, AnEntryIsFoundByItsWholeName) {
    const Octets block = block_of("ethaddr=1\0eth=2\0x\0=3\0long=a=b\0empty=\0eth=4\0"_z);
    EXPECT_EQ(value_of(block, "eth"), "2");
    EXPECT_EQ(value_of(block, "ethaddr"), "1");
    EXPECT_EQ(value_of(block, "long"), "a=b");
    EXPECT_EQ(value_of(block, "empty"), "");
    for (const char *name : {"", "ethadd", "ethaddr1", "x", "long=a", "eth=2"}) {
        EXPECT_EQ(value_of(block, name), "none") << name;
    }
}

TEST(EnvBlock, AWalkEndsWithTheListOrTheBlock) {
    struct Case {
        const char *what;
        Octets block;
        size_t in_use;
    };
    const Case cases[] = {
        {"erased", Octets(64, 0xFF), 0},
        {"zero", Octets(64, 0), 0},
        {"list, then other bytes", block_of("a=1\0\0a=2\0b=2\0"_z, 64, 0xFF), 4},
        {"no end of the last entry", block_of("a=1\0b=2"_z, 4 + 7), 4},
        {"full to the last byte", block_of("a=1\0b=2\0"_z, 4 + 8), 8},
        {"one entry without an end", block_of("b=2"_z, 4 + 3), 0},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(bytes_in_use(c.block), c.in_use) << c.what;
        EXPECT_EQ(value_of(c.block, "b"), c.in_use == 8 ? "2" : "none") << c.what;
    }
}

TEST(EnvBlock, RemovingMovesTheRestDown) {
    Octets block = block_of("a=1\0b=22\0a=3\0c=4\0\0left over"_z);
    remove(block, "a");
    EXPECT_EQ(block, block_of("b=22\0c=4\0"_z));
    remove(block, "none");
    EXPECT_EQ(block, block_of("b=22\0c=4\0"_z));
    remove(block, "c");
    remove(block, "b");
    EXPECT_EQ(block, block_of(""));
    Octets torn = block_of("\xFF\xFF\xFFlue=3\0b=22\0"_z);
    EXPECT_EQ(value_of(torn, "\xFF\xFF\xFFlue"), "none");
    remove(torn, "none");
    EXPECT_EQ(torn, block_of("b=22\0"_z)) << "what was torn while it was erased goes";
}

TEST(EnvBlock, AppendingStopsWhereTheListsEndWouldNotFit) {
    Octets block(kCrcBytes + 12);
    EXPECT_TRUE(append(block, "a", "1"));
    const Octets before = block;
    EXPECT_FALSE(append(block, "b", "12345"));  // with both terminators one too many
    EXPECT_EQ(block, before);
    EXPECT_TRUE(append(block, "b", "1234"));
    EXPECT_EQ(block, block_of("a=1\0b=1234\0"_z, kCrcBytes + 12));
    EXPECT_FALSE(append(block, "c", ""));
    Octets erased(64, 0xFF);
    EXPECT_TRUE(append(erased, "a", ""));
    Octets wanted = block_of("a=\0"_z);
    std::fill_n(wanted.begin(), kCrcBytes, uint8_t{0xFF});
    EXPECT_EQ(erased, wanted) << "the rest of the block is zero";
}

TEST(EnvBlock, TheCrcIsOfAllBehindIt) {
    Octets block = block_of("a=1\0"_z);
    store_crc(block);
    const auto crc = static_cast<uint32_t>(crc32(0, block.data() + 4, 60));
    EXPECT_EQ(block[0] | block[1] << 8 | block[2] << 16 | static_cast<uint32_t>(block[3]) << 24, crc);
    Octets turned = block;
    reverse_words(turned);
    EXPECT_EQ(turned[0], block[3]);
    EXPECT_EQ(turned[61], block[62]);
    reverse_words(turned);
    EXPECT_EQ(turned, block);
}

TEST(EnvBlock, HardwareAddressesAreReadAsFarAsTheyGo) {
    struct Case {
        const char *text;
        Octets mac;
    };
    const Case cases[] = {
        {"02:51:45:4c:00:10", {2, 0x51, 0x45, 0x4C, 0, 0x10}},
        {"A-b-C", {0xA, 0xB, 0xC, 0, 0, 0}},
        {"", {0, 0, 0, 0, 0, 0}},
        {":::1", {0, 0, 0, 1, 0, 0}},
        {"1:2:3:4:5:6:7", {1, 2, 3, 4, 5, 6}},
        {"1:", {1, 0, 0, 0, 0, 0}},
    };
    for (const Case &c : cases) {
        uint8_t mac[kMacBytes];
        parse_mac(c.text, mac);
        EXPECT_EQ(Octets(mac, mac + kMacBytes), c.mac) << c.text;
    }
}

// Against the simplest model: a list of pairs.
TEST(EnvBlock, ManyChangesLeaveWhatAListWouldHold) {
    std::mt19937 random(3);
    Octets block(300);
    std::vector<std::pair<std::string, std::string>> model;
    for (int i = 0; i < 2000; ++i) {
        const std::string name(1 + random() % 4, static_cast<char>('a' + random() % 6));
        const std::string value(random() % 40, 'v');
        std::erase_if(model, [&](const auto &pair) { return pair.first == name; });
        remove(block, name.c_str());
        size_t used = 0;
        for (const auto &[n, v] : model) used += n.size() + v.size() + 2;
        ASSERT_EQ(bytes_in_use(block), used);
        const bool fits = used + name.size() + value.size() + 3 <= block.size() - kCrcBytes;
        ASSERT_EQ(append(block, name.c_str(), value.c_str()), fits);
        if (fits) model.emplace_back(name, value);
        for (const auto &[n, v] : model) ASSERT_EQ(value_of(block, n.c_str()), v);
    }
}

}  // namespace
}  // namespace qel::environment
