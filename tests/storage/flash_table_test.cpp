// The partition table, the geometry, good blocks, and which copy of the firmware the device runs, as
// the drivers tell and the library hands on.
#include <array>
#include <cstring>
#include <thread>

#include "platform/include/bnd.h"
#include "storage/flash_switch.h"
#include "tests/storage/cramfs_image.h"
#include "tests/storage/flash_bench.h"

namespace qel::test {
namespace {

const std::vector<Part> kTwo = {{"U-Boot", "size = 0x20000"},
                                {"fifteen-letters", "size = 0x40000\nbackup = 0x100000"}};

TEST(FlashTable, IsTheSameFromBothRequests) {
    for (const bool knows_64_bit : {true, false}) {
        const Unit unit(flash_board(knows_64_bit ? "" : "knows_64_bit = false\n", kTwo));
        FlashPartitionTable *table = nullptr;
        ASSERT_EQ(UNIT_CALL(unit, QEL_getPartionInfo64)(&table), 0);
        ASSERT_EQ(table->count, 2u);
        const FlashPartition &second = table->entries[1];
        EXPECT_STREQ(second.name, "fifteen-letters");
        EXPECT_EQ((std::array{second.size, second.offset, second.backupOffset}),
                  (std::array{uint64_t{0x40000}, uint64_t{0x20000}, uint64_t{0x100000}}));

        FlashPartitionList list;
        memset(&list, 0xEE, sizeof list);
        ASSERT_EQ(UNIT_CALL(unit, QEL_getPartionInfo)(&list), 0);
        EXPECT_EQ(list.count, 2u);
        EXPECT_STREQ(list.entries[0].name, "U-Boot");
        EXPECT_EQ(list.entries[0].backupOffset, UINT32_MAX);
        EXPECT_EQ(list.entries[1].offset, 0x20000u);
        EXPECT_EQ(unit.log.count("(Flash_getPartionInfo|"), knows_64_bit ? 0 : 1);
    }
}

TEST(FlashTable, KeepsNamesOf16LettersAndSizesAbove4GiBInBounds) {
    const Unit unit(flash_board("kind = 'emmc'", {{"sixteen-letters!", "size = 0x1000"},
                                                  {"high", "size = 0x4000\noffset = 0x300000000"}}));
    FlashPartitionTable *table = nullptr;
    ASSERT_EQ(UNIT_CALL(unit, QEL_getPartionInfo64)(&table), 0);
    EXPECT_STREQ(table->entries[0].name, "sixteen-letters");
    EXPECT_EQ(table->entries[1].offset, 0x300000000u);
}

TEST(FlashTable, IsNotBelievedBeyond32Partitions) {
    const Unit unit(flash_board("", kTwo), {"/dev/qecPartion ioctl flip 5"});  // of 2 makes it 34
    FlashPartitionTable *table = nullptr;
    FlashInfo info;
    EXPECT_EQ(UNIT_CALL(unit, QEL_getPartionInfo64)(&table), -1);
    EXPECT_EQ(UNIT_CALL(unit, QEL_getFlashInfo)(&info), -1);
    unit.log.expect({"(Flash_getPartionInfo|", "Get Partion info  failed!\n",
                     "QEL_flashIinit execute Error and return OSA_EFAIL\n"});
}

TEST(FlashTable, MayBeFreedTwiceAndReadAgain) {
    const Unit unit(flash_board("", kTwo));
    FlashPartitionTable *table = nullptr;
    ASSERT_EQ(UNIT_CALL(unit, QEL_getPartionInfo64)(&table), 0);
    EXPECT_EQ(UNIT_CALL(unit, QEL_flashDeinit)(), 0);
    EXPECT_EQ(table->count, 0u);
    EXPECT_EQ(UNIT_CALL(unit, QEL_flashDeinit)(), 0);
    EXPECT_EQ(UNIT_CALL(unit, QEL_flashIinit)(), 0);
    EXPECT_EQ(table->count, 2u);
}

TEST(FlashTable, TakesTheFpgaStartFromTheDriverOrTheBoardType) {
    const std::tuple<const char *, const char *, uint32_t> cases[] = {
        {"fpga_start = 0x123000", "5 = 9\n", 0x123000},
        {"", "5 = 9\n", 0x2000000},
        {"", "5 = 31\n", 0x20000000},
        {"", "5 = 3\n", 0x4000000}};
    for (const auto &[flash, properties, expected] : cases) {
        const Unit unit(flash_board(flash, kTwo, properties));
        uint32_t start = 0;
        EXPECT_EQ(UNIT_CALL(unit, QEL_getFpgaStartAddress)(&start), 0);
        EXPECT_EQ(start, expected) << flash << properties;
    }
}

TEST(FlashGeometry, IsThatOfTheMedium) {
    const std::pair<const char *, FlashInfo> cases[] = {
        {"kind = 'nor'\nerase_bytes = 0x1000", {QEL_FLASH_NOR, 0x20000, 0x1000, 0x1000}},
        {kSmallNand, {QEL_FLASH_NAND, 0x20000, 0x200, 0x4000}},
        {"kind = 'mlc-nand'\nerase_bytes = 0x8000\npage_bytes = 0x800",
         {QEL_FLASH_MLC_NAND, 0x20000, 0x800, 0x8000}},
        {"kind = 'emmc'", {QEL_FLASH_EMMC, 0x20000, 512, 16384}},
    };
    for (const auto &[flash, expected] : cases) {
        const Unit unit(flash_board(flash, kTwo));
        FlashInfo info{};
        ASSERT_EQ(UNIT_CALL(unit, QEL_getFlashInfo)(&info), 0) << flash;
        EXPECT_EQ(memcmp(&info, &expected, sizeof info), 0) << flash;
    }
}

TEST(FlashGeometry, IsNotGuessedWhereTheDeviceDoesNotTell) {
    for (const auto &[fault, status] : {std::pair("fail EIO", "-5"), std::pair("flip 110", "0")}) {
        // The flip makes an erase size of 0 out of 0x4000.
        const Unit unit(flash_board("", kTwo), {std::string("/dev/mtd/0 ioctl:MEMGETINFO ") + fault});
        unit.log.expect({"(QEL_flashIinit|", "):   MEMGETINFO error,ret = " + std::string(status) + "!\n"});
        FlashInfo info;
        EXPECT_EQ(UNIT_CALL(unit, QEL_getFlashInfo)(&info), -1);
    }
}

TEST(FlashPartitionOpen, FindsItsDeviceByNameOrSaysWhatItLacks) {
    for (const auto &[flash, node] :
         {std::pair("", "/dev/mtd/1"), std::pair("kind = 'emmc'", "/dev/mmcblk0p2")}) {
        Unit unit(flash_board(flash, kTwo));
        const auto open = UNIT_CALL(unit, QEL_flashOpenPartion);
        int fd = -5, index = -5;
        ASSERT_EQ(open("fifteen-letters", &fd, &index), 0);
        EXPECT_GE(fd, 0);
        EXPECT_EQ(index, 1);
        EXPECT_EQ(open("fifteen", &fd, &index), -1);
        EXPECT_EQ(fd, -1);
        fd = -5;
        unit.board.add_fault(std::string(node) + " open fail EACCES");
        EXPECT_EQ(open("fifteen-letters", &fd, &index), -1);
        EXPECT_EQ(fd, -1);
        unit.log.expect(
            {"[libqel] WARN  : Get partion fifteen failed!\n", std::string("open ") + node + "\n"});
    }
}

// ---- good blocks ----

class GoodBlocks : public ::testing::Test {
protected:
    GoodBlocks()
        : unit(flash_board("", {{"fpga", "size = 0x10000"},
                                {"data", "size = 0x18000\nbad = [0, 2, 5]"},  // 6 blocks
                                {"other", "size = 0x10000"}})) {}

    int open(const char *name) {
        int fd = -1, index = -1;
        EXPECT_EQ(UNIT_CALL(unit, QEL_flashOpenPartion)(name, &fd, &index), 0);
        EXPECT_EQ(UNIT_CALL(unit, Flash_createPartionTab)(fd, index), 0);
        fd_ = fd;
        return index;
    }
    int64_t look_up(uint64_t offset, int index) {
        uint64_t out = 0;
        return UNIT_CALL(unit, Flash_LookupTab)(offset, &out, index) == 0 ? static_cast<int64_t>(out) : -1;
    }

    Unit unit;
    int fd_ = -1;
};

TEST_F(GoodBlocks, StepOverTheBadOnes) {
    const int data = open("data");
    EXPECT_EQ(look_up(0, data), 0x4000);
    EXPECT_EQ(look_up(0x4000, data), 0xC000);
    EXPECT_EQ(look_up(0x8000, data), 0x10000);
    EXPECT_EQ(look_up(0x8000, -1), 0x10000);  // the partition opened last
    EXPECT_EQ(look_up(0xC000, data), -1);     // behind the last good block
    EXPECT_EQ(look_up(0x18000, data), -1);    // behind the partition
    EXPECT_EQ(look_up(UINT64_MAX - 0x3FFF, data), -1);
    EXPECT_EQ(look_up(0x4001, data), -1);
    const std::string fd = std::to_string(fd_);
    unit.log.expect({"Flash_LookupTab[1] offset=0xc000 0xffffffffffffffff\n", "offset doesn't  align 0x4001",
                     "[libqel] CreatePartionTab:data fd=" + fd + "\n",
                     "[libqel] WARN  : find badblock:fd = " + fd + ",addr = 18000\n",
                     "[libqel] WARN  : MEMGETBADBLOCK error,fd = " + fd + ", ret = 1 addr = 24000! \n"});
}

TEST_F(GoodBlocks, AreAskedForOnceAndOnlyWhereTheyAreKept) {
    EXPECT_EQ(look_up(0, -1), -1) << "no partition was opened yet";
    unit.log.expect({"(Flash_LookupTab|", "): id=-1\n"});
    open("data");
    unit.board.add_fault("/dev/mtd/1 ioctl:MEMGETBADBLOCK fail EIO");
    EXPECT_EQ(look_up(0, open("data")), 0x4000);
    EXPECT_EQ(unit.log.count("CreatePartionTab:"), 1);
    EXPECT_EQ(look_up(0, 2), -1);
    unit.log.expect({"part[2]'s pGoodBlkTab doesn't create\n"});
    EXPECT_EQ(look_up(0, open("fpga")), -1);
    EXPECT_EQ(look_up(0, 77), -1);
    EXPECT_EQ(UNIT_CALL(unit, Flash_createPartionTab)(0, 3), -1);
}

TEST_F(GoodBlocks, ABlockThatCannotBeAskedIsNotUsed) {
    unit.board.add_fault("/dev/mtd/2 ioctl:MEMGETBADBLOCK fail EIO at 1");
    EXPECT_EQ(look_up(0, open("other")), 0x4000);
}

// ---- copies of the firmware ----

TEST(BackupCopies, CountThoseInPlacesOfTheirOwn) {
    const auto entry = [](const char *name, uint64_t offset, uint64_t backup) {
        FlashPartition made{};
        strncpy(made.name, name, sizeof made.name - 1);
        made.offset = offset;
        made.backupOffset = backup;
        return made;
    };
    const std::tuple<const char *, std::vector<FlashPartition>, int, int> cases[] = {
        {"none", {entry("a", 0, QEL_NO_BACKUP), entry("b", 1, 0), entry("c", 2, UINT32_MAX)}, 0, 0},
        {"the boot loader's own does not count", {entry("U-Boot", 0, 10)}, 0, 0},
        {"shared by two", {entry("a", 0, 10), entry("b", 1, 10), entry("c", 2, 12)}, 3, 1},
        {"on another partition", {entry("a", 0, 10), entry("b", 10, QEL_NO_BACKUP)}, 1, 0},
        {"on itself", {entry("a", 5, 5)}, 1, 1},
    };
    for (const auto &[what, table, with_backup, of_its_own] : cases) {
        const flash::BackupCount found = flash::count_backups(table);
        EXPECT_EQ(found.with_backup, with_backup) << what;
        EXPECT_EQ(found.of_its_own, of_its_own) << what;
    }
}

const std::vector<Part> kWithFlags = {{"kernel", "size = 0x10000\nbackup = 0x100000"},
                                      {"updateflag", "size = 0x10000"}};

std::string signs(uint32_t can_switch, uint32_t from_backup, uint32_t version) {
    const uint32_t words[] = {can_switch, from_backup, version};
    return {reinterpret_cast<const char *>(words), sizeof words};
}

TEST(BackupSigns, ComeFromTheFlashOnceAndFromTheFileThen) {
    Unit unit(flash_board("can_switch = 1", kWithFlags));
    EXPECT_EQ(unit.file("/tmp/backupsign"), signs(1, 0, 0xFF));
    EXPECT_EQ(unit.mode_of("/tmp/backupsign"), 0777u);
    unit.set_byte("/dev/mtd/1", 0x800, 1);              // block 0, page 4
    unit.set_byte("/dev/mtd/1", 0x4000 + 0x200, 0x42);  // block 1, page 1
    std::remove(unit.host_path("/tmp/backupsign").c_str());
    unit.reload();
    EXPECT_EQ(unit.file("/tmp/backupsign"), signs(1, 1, 0x42)) << "where the boot loader left them";

    unit.put_file("/tmp/backupsign", signs(1, 1, 7));
    unit.board.add_fault("/dev/mtd/1 read fail EIO");
    unit.reload();
    uint8_t version = 0, from_backup = 0;
    EXPECT_EQ(UNIT_CALL(unit, QEL_readBootBackupVer)(&version), 0);
    EXPECT_EQ(UNIT_CALL(unit, QEL_bootFromBackupPart)(&from_backup), 0);
    EXPECT_EQ(version, 7) << "a later process believes the file";
    EXPECT_EQ(from_backup, 1);

    unit.put_file("/tmp/backupsign", "short");
    unit.reload();
    unit.log.expect({"fail to read bootfromback sign\n"});
}

TEST(BackupSigns, NeedABootLoaderThatSwitchesAndCopiesInPlacesOfTheirOwn) {
    auto shared = kWithFlags;
    shared.push_back({"romfs", "backup = 0x100000"});
    for (const auto &[flash, parts, told] :
         {std::tuple("can_switch = 0", kWithFlags, "[libqel] boot dont support switch part\n"),
          std::tuple("can_switch = 1", shared, "[libqel] bakcnt:2, bakpartcnt:0\n")}) {
        Unit unit(flash_board(flash, parts));
        EXPECT_EQ(unit.file("/tmp/backupsign"), signs(0, 0, 0xFF));
        unit.log.expect({told});
    }
}

TEST(BackupSigns, AreOffWhereTheFlagsDoNotOpen) {
    const Unit unit(flash_board("", kWithFlags), {"/dev/mtd/1 open fail EIO"});
    unit.log.expect({"[libqel] Not support backup partition !!!\n"});
    EXPECT_FALSE(unit.log.contains("QEL_flashIinit execute Error"));
}

// ---- the description in an upgrade image ----

TEST(DescriptionFile, IsTheNewestThatTheImageHolds) {
    const Unit unit(flash_board("", kTwo));
    const auto find = UNIT_CALL(unit, Flash_getPartFile);
    std::vector<char> text(QEL_DESCRIPTION_BYTES, 'x');
    uint32_t version = 0;
    const ImageFolder folder;
    folder.put("other.txt", "nothing");
    const auto found = [&] {
        const std::vector<uint8_t> image = folder.make();
        return find(image.data(), static_cast<uint32_t>(image.size()), text.data(), &version);
    };
    EXPECT_EQ(found(), -1);
    const std::pair<const char *, uint32_t> files[] = {
        {"partition.txt", 1}, {"partitionV2.txt", 2}, {"partitionV3.txt", 3}};
    for (const auto &[name, its_version] : files) {
        folder.put(name, std::string("content of ") + name);
        EXPECT_EQ(found(), 0);
        EXPECT_EQ(version, its_version);
        EXPECT_EQ(text.data(), std::string("content of ") + name);
        EXPECT_EQ(text.back(), '\0');
    }
    folder.put("partitionV3.txt", std::string(QEL_DESCRIPTION_BYTES - 1, 'y'));
    EXPECT_EQ(found(), 0);
    EXPECT_EQ(strlen(text.data()), QEL_DESCRIPTION_BYTES - 1);
    folder.put("partitionV3.txt", std::string(QEL_DESCRIPTION_BYTES, 'y'));
    EXPECT_EQ(found(), -1);
    EXPECT_EQ(find("short", 5, text.data(), &version), -1);
    unit.log.expect({"no partition description: no such file in the image\n", "not a cramfs image\n"});
}

// ---- program/erase status ----

TEST(ProgramEraseStatus, ComesFromItsServiceOrFails) {
    const Unit unit(flash_board("", kTwo));
    const auto ask = UNIT_CALL(unit, QEL_getFlashPEStatus);
    uint32_t status = 0xEEEE;
    EXPECT_EQ(ask(&status), -1);
    EXPECT_EQ(status, 0xEEEEu);

    uintptr_t server = 0;
    ASSERT_EQ(BND_serverCreate("Qel2FlashBnd", &server), 0);
    std::thread service([&] {
        for (const uint32_t result : {0u, UINT32_MAX}) {
            uint32_t words[3], bytes = sizeof words, client = 0;
            int wants_reply = 0;
            if (BND_serverReceive(server, words, &bytes, &client, &wants_reply, 5000) != 0) return;
            words[1] = result;
            words[2] = 0x1234;
            BND_serverReply(server, client, words, sizeof words);
        }
    });
    EXPECT_EQ(ask(&status), 0);
    EXPECT_EQ(status, 0x1234u);
    EXPECT_EQ(ask(&status), -1);
    service.join();
    BND_serverDelete(server);
}

}  // namespace
}  // namespace qel::test
