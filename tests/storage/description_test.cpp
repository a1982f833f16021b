// The partition description file: every field, what is refused, and where the table ends.
#include "storage/partition_description.h"

#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

#include "tests/support/library.h"

namespace qel::description {
namespace {

struct Table {
    int status;
    std::vector<PartitionDescription> records;
};

Table parse_text(std::string text, uint32_t version, uint32_t room = QEL_MAX_DESCRIPTIONS) {
    std::vector<PartitionDescription> records(room);
    uint32_t count = room;
    const int status = parse(text.data(), version, records.data(), &count);
    records.resize(count);
    return {status, records};
}

constexpr char kKernel[] = "Kernel, 1, 0x200000, 0x300000, R, RW, squashfs, mount -t squashfs, 0x1200000";

TEST(Description, GivesEveryField) {
    const Table table = parse_text(std::string(kKernel) + "\n", 3);
    ASSERT_EQ(table.status, 0);
    ASSERT_EQ(table.records.size(), 1u);
    const PartitionDescription &kernel = table.records[0];
    EXPECT_STREQ(kernel.name, "Kernel");
    EXPECT_EQ((std::array<uint64_t, 3>{kernel.offset, kernel.size, kernel.backupOffset}),
              (std::array<uint64_t, 3>{0x200000, 0x300000, 0x1200000}));
    EXPECT_EQ((std::array<uint64_t, 4>{kernel.cs, kernel.maskFlags, kernel.fsFlags, kernel.fsType}),
              (std::array<uint64_t, 4>{1, 1024, 3, 2}));
}

TEST(Description, TakesBlanksQuotesCommentsAndContinuedLines) {
    const Table table = parse_text(
        "# name, cs, offset ... END\r\n"
        " \t\"Kernel\" ,0 , 0x00000000ABCDEF01,\"0x1\",\tRW, , , \"mount -o ro,noatime\", 0xff  \t\r\n"
        "romfs, 0, 0x400000, 0x100000, \\  \n"
        "# in between\n"
        "RW,R,cramfs,\\\n"
        "mount, XX2000000\r\n"
        "END of the table\n"
        "rest, 0, 0x0, 0x1, R, , , this is not read any more, 0x1\n",
        2);
    ASSERT_EQ(table.status, 0);
    ASSERT_EQ(table.records.size(), 2u);
    EXPECT_STREQ(table.records[0].name, "Kernel");
    EXPECT_EQ(table.records[0].offset, 0xABCDEF01u);
    EXPECT_EQ(table.records[0].maskFlags, 0u);
    EXPECT_EQ(table.records[0].fsFlags, 0u);
    EXPECT_EQ(table.records[0].backupOffset, 0xFFu);
    EXPECT_STREQ(table.records[1].name, "romfs");
    EXPECT_EQ(table.records[1].fsFlags, 1u);
    EXPECT_EQ(table.records[1].fsType, 1u);
    EXPECT_EQ(table.records[1].backupOffset, 0x2000000u);  // any two characters stand before the digits
}

TEST(Description, Version1EndsAfterTheMaskFlags) {
    const Table table =
        parse_text("Kernel, 0, 0x200000, 0x300000, R, what, ever\nsecond, 0, 0x1, 0x2,            RW\n", 1);
    ASSERT_EQ(table.status, 0);
    ASSERT_EQ(table.records.size(), 2u);
    EXPECT_EQ(table.records[0].backupOffset, QEL_NO_BACKUP);
    EXPECT_EQ(table.records[0].fsFlags, 0u);
}

TEST(Description, EndsAtAShortLineAndAtTheEndOfTheText) {
    const std::string first = std::string(kKernel) + "\n";
    const std::string short_line = "shortest, 0, 0x10, 0x20, RW    ,";  // 32 bytes
    ASSERT_EQ(short_line.size(), 32u);
    EXPECT_EQ(parse_text(short_line.substr(1), 1).records.size(), 0u);
    EXPECT_EQ(parse_text(short_line.substr(1), 1).status, 0);
    EXPECT_EQ(parse_text(short_line, 1).records.size(), 1u);
    EXPECT_EQ(parse_text(first + "\n" + first, 3).records.size(), 1u);
    EXPECT_EQ(parse_text(first + kKernel, 3).records.size(), 2u);          // no line end
    EXPECT_EQ(parse_text(first + kKernel + " \\", 3).records.size(), 2u);  // nothing to join
}

TEST(Description, RefusesALineThatIsTooLong) {
    const std::string line = "Kernel, 0, 0x200000, 0x300000, R, ";
    const auto padded = [&](size_t bytes) { return line + std::string(bytes - line.size(), 'x'); };
    EXPECT_EQ(parse_text(padded(4095), 1).status, 0);
    EXPECT_EQ(parse_text(padded(4096), 1).status, -1);
    EXPECT_EQ(parse_text(padded(3000) + "\\\n" + std::string(1095, 'x'), 1).status, 0);
    EXPECT_EQ(parse_text(padded(3000) + "\\\n" + std::string(1096, 'x'), 1).status, -1);
}

TEST(Description, HoldsAtMost32Records) {
    std::string text;
    for (int i = 0; i < 33; ++i) text += std::string(kKernel) + "\n";
    const Table table = parse_text(text, 3, 40);
    EXPECT_EQ(table.status, 0);
    EXPECT_EQ(table.records.size(), 32u);
    EXPECT_EQ(parse_text(text, 3, 5).records.size(), 5u);
}

TEST(Description, NamesTheBadField) {
    const std::pair<const char *, const char *> cases[] = {
        {"a234567890123456, 0, 0x200000, 0x300000, R, , , , 0x0", "fail to parse name\n"},
        {", 0, 0x200000, 0x300000, RW, , , , 0x0000000000000", "fail to parse name\n"},
        {"Kernel, , 0x200000, 0x300000, R, , , , 0x0000000000", "fail to parse cs\n"},
        {"Kernel, 1x, 0x200000, 0x300000, R, , , , 0x00000000", "fail to parse cs\n"},
        {"Kernel, 4294967296, 0x200000, 0x300000, R, , , , 0x", "fail to parse cs\n"},
        {"Kernel, 0, 200000, 0x300000, R, , , , 0x0000000000", "fail to parse offset\n"},
        {"Kernel, 0, 0x2g0000, 0x300000, R, , , , 0x00000000", "fail to parse offset\n"},
        {"Kernel, 0, 0x10000000000000000, 0x300000, R, , , ,", "fail to parse offset\n"},
        {"Kernel, 0, 0x200000, 0x, R, , , , 0x00000000000000", "fail to parse size\n"},
        {"Kernel, 0, 0x200000, 0x300000, W, , , , 0x00000000", "fail to parse mask_flags\n"},
        {"Kernel, 0, 0x0000000000200000, 0x00300000, R      ", "fs_flags isn't exist\n"},
        {"Kernel, 0, 0x200000, 0x300000, R, W, , , 0x0000000", "fs_flags isn't exist\n"},
        {"Kernel, 0, 0x200000, 0x300000, R, R, xfs, , 0x0000", "fail to parse fs_type\n"},
        {"Kernel, 0, 0x200000, 0x300000, R, R, ubi          ", "fail to parse fs_mountcmd\n"},
        {"Kernel, 0, 0x200000, 0x300000, R, R, ext4, mount  ", "fail to parse backup_offset \n"},
        {"Kernel, 0, 0x200000, 0x300000, R, R, ubi, mount, 0x", "fail to parse backup_offset \n"},
    };
    for (const auto &[line, message] : cases) {
        test::Log log;
        EXPECT_EQ(parse_text(std::string(kKernel) + "\n" + line, 2).status, -1) << line;
        log.expect({"ERROR  (PART_parsePartinfoLine|", message, "fail to parse pBuf line\n",
                    "fail to parse partition\n"});
    }
    for (const size_t bytes : {1023, 1024}) {
        const std::string command(bytes, 'm');
        const Table table = parse_text("Kernel, 0, 0x200000, 0x300000, R, , , " + command + ", 0x1", 2);
        EXPECT_EQ(table.status, bytes < 1024 ? 0 : -1);
    }
}

}  // namespace
}  // namespace qel::description
