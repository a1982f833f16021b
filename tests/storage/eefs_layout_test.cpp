// What may be believed of a head that came from a chip.
#include "storage/eefs_layout.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>

namespace qel::eefs {
namespace {

// Three files of 28 bytes' room behind the head.
Head three_files(uint32_t address, uint32_t capacity_bytes) {
    Head head = empty_head(address, capacity_bytes);
    head.count = 3;
    for (uint32_t i = 0; i < 3; ++i) head.entries[i] = {0, kHeadBytes + i * (kHeaderBytes + 28), 28};
    head.free_offset = kHeadBytes + 3 * (kHeaderBytes + 28);
    head.free_bytes = capacity_bytes - address - head.free_offset;
    return head;
}

// Every place that the table names lies on the chip, behind the head, and belongs to one file only.
void expect_sound(const Table &table, uint32_t capacity_bytes) {
    uint64_t end = uint64_t{table.head_address} + kHeadBytes;
    for (uint32_t i = 0; i < table.count; ++i) {
        const Table::File &file = table.files[i];
        if (file.header_address == kNoAddress) continue;
        ASSERT_GE(file.header_address, end);
        end = uint64_t{file.header_address} + kHeaderBytes + file.allocated_bytes;
        ASSERT_LE(end, capacity_bytes);
    }
    ASSERT_GE(table.free_address, end);
    ASSERT_LE(uint64_t{table.free_address} + table.free_bytes, capacity_bytes);
}

TEST(EefsLayout, TakesASoundHeadAsItStands) {
    for (const uint32_t address : {0u, 128u}) {
        const Head head = three_files(address, 2048);
        bool sound = false;
        const Table table = table_of(head, address, 2048, &sound);
        EXPECT_TRUE(sound);
        expect_sound(table, 2048);
        EXPECT_EQ(table.files[2].header_address, address + 120 + 2 * 84);
        EXPECT_EQ(table.free_address, address + 120 + 3 * 84);
        EXPECT_EQ(table.free_bytes, head.free_bytes);
    }
}

TEST(EefsLayout, MakesEveryHeadSafe) {
    std::mt19937 random(1);
    const auto any = [&](uint32_t most) { return std::uniform_int_distribution<uint32_t>(0, most)(random); };
    int unsound = 0;
    for (int round = 0; round < 20000; ++round) {
        const uint32_t capacity = 120 + any(3000);
        const uint32_t address = any(3) != 0 ? 0 : any(capacity - 120);
        Head head = three_files(address, capacity);
        auto *words = reinterpret_cast<uint32_t *>(&head);
        for (uint32_t changes = 1 + any(6); changes > 0; --changes)
            words[3 + any(26)] = any(1) != 0 ? any(4096) : any(UINT32_MAX);
        if (!head_is_valid(head)) continue;
        bool sound = true;
        const Table table = table_of(head, address, capacity, &sound);
        expect_sound(table, capacity);
        ASSERT_FALSE(testing::Test::HasFatalFailure()) << "round " << round;
        unsound += sound ? 0 : 1;
    }
    EXPECT_GT(unsound, 1000);
}

// A head whose first words were half overwritten never leads into the files behind it.
TEST(EefsLayout, MakesEveryTornHeadSafe) {
    const Head before = three_files(0, 2048);
    for (const uint32_t room : {4u, 172u, 200u, 1500u}) {
        Head after = before;
        after.free_offset += kHeaderBytes + room;
        after.free_bytes -= kHeaderBytes + room;
        after.count = 4;
        after.entries[3] = {0, before.free_offset, room};
        for (size_t torn = 0; torn <= kHeadStartBytes; ++torn) {
            Head head = after;  // the entry was written before
            memcpy(&head, &before, kHeadStartBytes);
            memcpy(&head, &after, torn);
            bool sound = true;
            const Table table = table_of(head, 0, 2048, &sound);
            expect_sound(table, 2048);
            EXPECT_TRUE(table.count == 3 || torn > 20) << "the new file comes last";
            for (uint32_t i = 0; i < 3; ++i) EXPECT_EQ(table.files[i].allocated_bytes, 28u);
        }
    }
}

TEST(EefsLayout, RoundsAsTheFormatSays) {
    EXPECT_EQ(next_slot(0, 32), 128u);
    EXPECT_EQ(next_slot(8, 32), 128u);
    EXPECT_EQ(next_slot(0, 0), 120u) << "a page size of 0 counts as 1";
    EXPECT_EQ(next_slot(0xFFFFFFFF, 4096), 0x100001000u);
    EXPECT_EQ(allocation_for(0, 1000), 16u);
    EXPECT_EQ(allocation_for(1, 1000), 20u);
    EXPECT_EQ(allocation_for(100, 57), 1u);
    EXPECT_EQ(allocation_for(0xFFFFFFFF, 0xFFFFFFFF), 0xFFFFFFFF - 56);
    EXPECT_EQ(allocation_for(1, 55), 0u);
}

TEST(EefsLayout, TakesNamesWithoutTheirTerminator) {
    FileHeader header = new_header("abc", 5);
    EXPECT_TRUE(has_name(header, "abc"));
    EXPECT_FALSE(has_name(header, "abcd"));
    memset(header.name, 'n', sizeof(header.name));
    char name[EEFS_NAME_BYTES];
    copy_name(header, name);
    EXPECT_EQ(strlen(name), 39u);
    EXPECT_FALSE(has_name(header, name));
}

}  // namespace
}  // namespace qel::eefs
