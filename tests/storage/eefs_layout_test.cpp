// What may be believed of a head and of names that came from a chip.
#include "storage/eefs_layout.h"

#include <gtest/gtest.h>

#include <cstring>

namespace qel::eefs {
namespace {

// Three files of 28 bytes' room behind the head.
Head three_files(uint32_t capacity_bytes) {
    Head head = empty_head(0, capacity_bytes);
    head.count = 3;
    for (uint32_t i = 0; i < 3; ++i) head.entries[i] = {0, kHeadBytes + i * (kHeaderBytes + 28), 28};
    head.free_offset = kHeadBytes + 3 * (kHeaderBytes + 28);
    head.free_bytes = capacity_bytes - head.free_offset;
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

// A head whose first words were half overwritten never leads into the files behind it.
TEST(EefsLayout, MakesEveryTornHeadSafe) {
    const Head before = three_files(2048);
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
