// The flags of upgrade and backup on every medium, and the files that tell other processes.
#include <cstring>

#include "tests/storage/flash_bench.h"

namespace qel::test {
namespace {

struct Medium {
    const char *name;
    const char *flash;
    const char *node;
    uint64_t erase, page;
    const char *bad = "";      // the first block of the partition
    uint64_t first_block = 0;  // where block 0 lies
};

class Flags : public ::testing::TestWithParam<Medium> {
protected:
    Flags() : medium(GetParam()), unit(flash_board(medium.flash, {{"kernel"}, {"updateflag", medium.bad}})) {}

    uint64_t address(uint32_t block, uint32_t page, uint32_t byte) const {
        return medium.first_block + block * medium.erase + page * medium.page + byte;
    }
    int stored(uint32_t block, uint32_t page, uint32_t byte) {
        return unit.byte_at(medium.node, address(block, page, byte));
    }
    bool is_raw() const { return strcmp(medium.name, "emmc") != 0; }
    int write(uint32_t block, uint32_t page, uint32_t byte, uint8_t value) const {
        return UNIT_CALL(unit, QEL_flashWriteBackUpFlag)(block, page, byte, value);
    }

    const Medium medium;
    Unit unit;
};

INSTANTIATE_TEST_SUITE_P(
    On, Flags,
    ::testing::Values(Medium{"nor", "kind = 'nor'\nerase_bytes = 0x1000", "/dev/mtd/1", 0x1000, 64},
                      Medium{"nand", kSmallNand, "/dev/mtd/1", 0x4000, 0x200, "size = 0x20000\nbad = [0]",
                             0x4000},
                      Medium{"mlc", "kind = 'mlc-nand'\nerase_bytes = 0x8000\npage_bytes = 0x800",
                             "/dev/mtd/1", 0x8000, 0x800, "size = 0x40000"},
                      Medium{"emmc", "kind = 'emmc'", "/dev/mmcblk0p2", 16384, 512}),
    [](const auto &info) { return info.param.name; });

TEST_P(Flags, AreWrittenWhereTheyAreReadFrom) {
    const auto read = UNIT_CALL(unit, QEL_flashReadBackUpFlag);
    const auto last = static_cast<uint32_t>(medium.page - 1);
    EXPECT_EQ(write(1, 2, last, 0x5A), 0);
    EXPECT_EQ(stored(1, 2, last), 0x5A);
    uint8_t value = 0;
    EXPECT_EQ(read(1, 2, last, &value), 0);
    EXPECT_EQ(value, 0x5A);
    EXPECT_EQ(write(1, 2, last, 0x5A), 0);
    unit.log.expect(
        {"[libqel] Write: blkIndex: 1,pageIndex: 2,byteIndex: ", "[libqel] same, backUpFLag=90\n"});
    EXPECT_EQ(stored(1, 1, last), 0xFF);
    EXPECT_EQ(stored(1, 3, last), 0xFF);
}

TEST_P(Flags, StayInsideTheirPageBlockAndPartition) {
    uint8_t value = 0x77;
    EXPECT_EQ(write(0, 0, static_cast<uint32_t>(medium.page), 0), -1);
    EXPECT_EQ(write(0, static_cast<uint32_t>(medium.erase / medium.page), 0, 0), -1);
    EXPECT_EQ(write(1000, 0, 0, 0), -1);
    EXPECT_EQ(write(0xFFFFFFFF, 0, 0, 0), -1);
    EXPECT_EQ(UNIT_CALL(unit, QEL_flashReadBackUpFlag)(1000, 0, 0, &value), -1);
    EXPECT_EQ(value, 0x77);
    EXPECT_EQ(UNIT_CALL(unit, QEL_flashClearBackUpFlag)(1000), -1);
    unit.log.expect({"createPartionTab or LookupTab failed! \n"});
}

TEST_P(Flags, OfRawFlashAreWrittenOncePerErase) {
    for (uint32_t block = 0; block < 3; ++block) EXPECT_EQ(write(block, 0, 0, 0x55), 0);
    EXPECT_EQ(write(1, 1, 0, 0xAA), 0);
    EXPECT_EQ(write(1, 0, 0, 0x6A), is_raw() ? -1 : 0);
    EXPECT_EQ(write(1, 0, 1, 0x6A), is_raw() ? -1 : 0);
    EXPECT_EQ(stored(1, 0, 0), is_raw() ? 0x55 : 0x6A);
    EXPECT_EQ(unit.log.count(" This page cannot be written!\n"), is_raw() ? 2 : 0);
    auto *const state = static_cast<uint8_t *>(unit.library->symbol("gBackupState"));
    *state = 0x55;
    EXPECT_EQ(UNIT_CALL(unit, QEL_flashClearBackUpFlag)(1), 0);
    EXPECT_EQ(*state, 0xFF);
    EXPECT_EQ(stored(1, 1, 0), 0xFF);
    for (uint32_t block = 0; block < 3; ++block) EXPECT_EQ(stored(block, 0, 0), block == 1 ? 0xFF : 0x55);
    EXPECT_EQ(write(1, 0, 0, 0x6A), 0);
}

TEST_P(Flags, TakeListsOfOnePageAtMost) {
    const auto length = static_cast<uint32_t>(medium.page);
    const std::vector<uint8_t> page(length + 8, 0x3C);
    const auto write_page = UNIT_CALL(unit, Flash_flashWriteFlagPage);
    EXPECT_EQ(write_page(0, 2, page.data(), length + 1), -1);
    EXPECT_EQ(write_page(0, 2, nullptr, 1), -1);
    EXPECT_EQ(write_page(0, 2, page.data(), 3), 0);
    EXPECT_EQ(stored(0, 2, 2), 0x3C);
    EXPECT_EQ(stored(0, 2, 3), 0xFF);
    EXPECT_EQ(write_page(0, 2, page.data(), 2), 0);
    unit.log.expect({"write size " + std::to_string(length + 1) + " is to long\n", "pBuf is null\n",
                     "[libqel] The same content \n"});
    EXPECT_EQ(write_page(0, 2, page.data(), 4), is_raw() ? -1 : 0);
    EXPECT_EQ(write_page(0, 3, page.data(), length), 0);

    const auto write_crc = UNIT_CALL(unit, QEL_flashWriteCrc);
    EXPECT_EQ(write_crc(page.data(), length / 8 + 1), -1);
    EXPECT_EQ(write_crc(page.data(), 0x20000001), -1);  // 8 bytes, were it cut to 32 bits
    EXPECT_EQ(write_crc(page.data(), length / 8), 0);
    EXPECT_EQ(stored(2, 0, length - 1), 0x3C);
    EXPECT_EQ(write_crc(page.data(), 1), is_raw() ? -1 : 0);
    EXPECT_EQ(UNIT_CALL(unit, QEL_flashClearCrc)(), 0);
    EXPECT_EQ(stored(2, 0, 0), 0xFF);

    Bytes back(length + 1, 0xEE);
    EXPECT_EQ(UNIT_CALL(unit, QEL_flashWriteCryptoUpFlag)(page.data(), 5), 0);
    EXPECT_EQ(UNIT_CALL(unit, QEL_flashReadCryptoUpFlag)(back.data(), 6), 0);
    EXPECT_EQ(slice(back, 0, 7), (Bytes{0x3C, 0x3C, 0x3C, 0x3C, 0x3C, 0xFF, 0xEE}));
    EXPECT_EQ(UNIT_CALL(unit, QEL_flashReadCryptoUpFlag)(back.data(), length + 1), -1);
    EXPECT_EQ(UNIT_CALL(unit, QEL_flashWriteCryptoUpFlag)(nullptr, 5), -1);
    unit.log.expect({"(QEL_flashWriteCrc|", "): flash Read Crypto UpFlag, ", "Crypto UpFlag is NULL!\n"});
}

TEST_P(Flags, KeepTheResetCountAndTheBackupVersionApart) {
    uint8_t count = 0;
    EXPECT_EQ(UNIT_CALL(unit, QEL_readErrCount)(&count), 0);
    EXPECT_EQ(count, 0xFF);
    EXPECT_EQ(UNIT_CALL(unit, QEL_readSysState)(), -1);
    unit.set_byte(medium.node, address(1, 1, 0), 9);
    EXPECT_EQ(UNIT_CALL(unit, QEL_clearResetCount)(), 0);
    EXPECT_EQ(stored(1, 0, 0), 0);
    EXPECT_EQ(stored(1, 1, 0), 0xFF) << "goes with the block";
    EXPECT_EQ(UNIT_CALL(unit, QEL_readSysState)(), 0);
    EXPECT_EQ(UNIT_CALL(unit, QEL_writeBackupVer)(0x1204), 0);
    EXPECT_EQ(UNIT_CALL(unit, QEL_clearResetCount)(), 0);
    EXPECT_EQ(stored(1, 2, 0), 4);
}

TEST_P(Flags, ReportWhatTheDeviceRefuses) {
    const std::pair<const char *, const char *> cases[] = {
        {"seek fail EIO", "Fail to lseek !\n"},
        {"read fail EIO", "red data failed\n"},
        {"write fail EIO", " write backUpFLag: 18 !!\n"},
        {"open fail EIO", "open /dev/"},
    };
    uint32_t page = 0;
    for (const auto &[fault, message] : cases) {
        unit.log.clear();
        unit.board.add_fault(std::string(medium.node) + " " + fault);
        EXPECT_EQ(write(3, page++, 0, 0x12), -1) << fault;
        unit.log.expect({message});
        unit.board.clear_faults();
    }
    unit.board.add_fault(std::string(medium.node) + " read short 3 at 1");
    EXPECT_EQ(write(3, page, 0, 0x12), 0) << "goes on where it stopped";
    if (!is_raw()) return;
    unit.board.add_fault(std::string(medium.node) + " ioctl:MEMERASE fail EIO");
    EXPECT_EQ(UNIT_CALL(unit, QEL_gotoStateInit)(), -1);
    unit.log.expect({" Flash erase error!, erase_info.start = "});
    EXPECT_EQ(UNIT_CALL(unit, QEL_clearResetCount)(), -1);
    unit.log.expect({"Fail to clear reset count flag\n"});
}

// ---- the state of an update ----

TEST(UpdateState, IsTheLastPageThatHoldsItsMark) {
    constexpr int kNoFile = -1;
    const std::tuple<int, Bytes, int> cases[] = {
        {kNoFile, {0xFF, 0xFF, 0xFF, 0xFF}, 0xFF}, {kNoFile, {0x55, 0xFF, 0x5A, 0xFF}, 0x5A},
        {kNoFile, {0x55, 0xAA, 0x5A, 0x6A}, 0x5A}, {kNoFile, {0xAA, 0x55, 0xFF, 0xFF}, 0xFF},
        {2, {0x55, 0xAA, 0xFF, 0x6A}, 0x6A},       {2, {0x55, 0xAA, 0xFF, 0xFF}, 0xAA},
        {4, {0x75, 0x77, 0xFF, 0x6A}, 0x77},       {4, {0x55, 0xAA, 0x5A, 0x6A}, 0xFF},
        {3, {0x55, 0xFF, 0xFF, 0x6A}, 0x55},
    };
    for (const auto &[version, pages, state] : cases) {
        Unit unit(flash_board("", {{"updateflag"}}));
        for (uint64_t page = 0; page < 4; ++page) unit.set_byte("/dev/mtd/0", page * 0x200, pages[page]);
        if (version != kNoFile) UNIT_CALL(unit, QEL_writeBackupVer)(static_cast<uint32_t>(version));
        EXPECT_EQ(UNIT_CALL(unit, QEL_getUpdateState)(), state) << version;
    }
}

TEST(UpdateState, WithoutFlagsEveryOperationDoesNothing) {
    Unit unit(flash_board("", {{"kernel"}}));
    unit.log.expect({"[libqel] Not support backup partition !!!\n"});
    unit.board.add_fault("/dev/mtd/* * fail EIO");
    uint8_t byte = 0x77;
    const int answers[] = {UNIT_CALL(unit, QEL_flashReadBackUpFlag)(0, 0, 0, &byte),
                           UNIT_CALL(unit, QEL_readErrCount)(&byte),
                           UNIT_CALL(unit, QEL_readBootBackupVerFromFlash)(&byte),
                           UNIT_CALL(unit, QEL_flashReadCryptoUpFlag)(&byte, 1),
                           UNIT_CALL(unit, QEL_flashWriteBackUpFlag)(0, 0, 99999, 1),
                           UNIT_CALL(unit, Flash_flashWriteFlagPage)(0, 0, &byte, 99999),
                           UNIT_CALL(unit, QEL_flashWriteCrc)(&byte, 99999),
                           UNIT_CALL(unit, QEL_flashWriteCryptoUpFlag)(&byte, 1),
                           UNIT_CALL(unit, QEL_flashClearBackUpFlag)(99),
                           UNIT_CALL(unit, QEL_flashClearCrc)(),
                           UNIT_CALL(unit, QEL_gotoStateInit)(),
                           UNIT_CALL(unit, QEL_gotoStateWaitbackup)(),
                           UNIT_CALL(unit, QEL_readSysState)(),
                           UNIT_CALL(unit, QEL_clearResetCount)(),
                           UNIT_CALL(unit, QEL_getUpdateState)()};
    for (const int &answer : answers) EXPECT_EQ(answer, 0) << "number " << &answer - answers;
    EXPECT_EQ(byte, 0x77);
    EXPECT_EQ(UNIT_CALL(unit, QEL_writeBackupVer)(2), 0);
    EXPECT_EQ(UNIT_CALL(unit, QEL_readBackupVer)(&byte), 0);
    EXPECT_EQ(byte, 2);
}

// ---- the files ----

constexpr const char *kUpgrading = "/tmp/upgrade_ing";

TEST(UpgradeFiles, TellTheKindOfUpgrade) {
    Unit unit(flash_board("", {{"kernel"}}));
    const auto kind = UNIT_CALL(unit, QEL_checkUpgradeMap);
    EXPECT_EQ(kind(), 0);
    const mode_t before = umask(077);
    for (const uint32_t value : {1u, 2u, 0u}) {
        EXPECT_EQ(UNIT_CALL(unit, Flash_writeUpgradeFlag)(value), 0);
        EXPECT_EQ(kind(), static_cast<int>(value));
    }
    umask(before);
    EXPECT_EQ(unit.mode_of(kUpgrading), 0777u);
    EXPECT_EQ(unit.file(kUpgrading).size(), 4u);
    for (const uint32_t value : {3u, 0x80000001u}) {
        unit.log.clear();
        EXPECT_EQ(UNIT_CALL(unit, Flash_writeUpgradeFlag)(value), 0);
        EXPECT_EQ(kind(), 0);
        unit.log.expect({"[libqel] WARN  (QEL_checkUpgradeMap|", "): upgrade flag is unknown\n"});
    }
}

TEST(UpgradeFiles, ThatAreTooShortCountAs0) {
    Unit unit(flash_board("", {{"kernel"}}));
    uint8_t version = 0x77;
    EXPECT_EQ(UNIT_CALL(unit, QEL_readBackupVer)(&version), -1);
    for (const char *content : {"", "\1", "\1\0\0"}) {
        unit.put_file(kUpgrading, content);
        unit.put_file("/tmp/backupVer", content);
        EXPECT_EQ(UNIT_CALL(unit, QEL_checkUpgradeMap)(), 0);
        EXPECT_EQ(UNIT_CALL(unit, QEL_readBackupVer)(&version), 0);
        EXPECT_EQ(version, 0);
    }
    EXPECT_EQ(UNIT_CALL(unit, QEL_writeBackupVer)(0x104), 0);  // grows the file
    EXPECT_EQ(UNIT_CALL(unit, QEL_readBackupVer)(&version), 0);
    EXPECT_EQ(version, 4);
}

}  // namespace
}  // namespace qel::test
