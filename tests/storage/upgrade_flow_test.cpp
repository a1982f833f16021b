// The steps of an upgrade around the writes of the partition writer, which this test plays: what they
// leave in the flags and in the files, and when they refuse a write. Each case is a process of its own.
#include <array>
#include <memory>

#include "product/hwid_store.h"
#include "storage/flash.h"
#include "storage/flash_description.h"
#include "storage/upgrade_state.h"
#include "tests/storage/cramfs_image.h"
#include "tests/storage/flash_bench.h"

namespace {

// What the modules below would answer, and what they were asked.
qel::hwid::ChipInfo g_chip = {2, 0};
AdapterMsg g_sent;
qel::upgrade_state::WriteFlagPayload g_payload;
int32_t g_answer = 0;
std::vector<uint64_t> g_written;

}  // namespace

namespace qel::product {
int property(unsigned, int) { return 0; }
int chip_info(hwid::ChipInfo *out) {
    *out = g_chip;
    return 0;
}
}  // namespace qel::product

extern "C" int QEL_adapterMasterProc(AdapterMsg *message) {
    g_sent = *message;
    memcpy(&g_payload, message + 1, sizeof g_payload);
    memcpy(message + 1, &g_answer, sizeof g_answer);
    return 0;
}

namespace qel::flash {
int write_through(RawFlash *, uint64_t address, const void *, uint32_t) {
    g_written.push_back(address);
    return 0;
}
}  // namespace qel::flash

namespace qel::test {
namespace {

using namespace qel::upgrade_state;

constexpr int kPlain = 0, kWeb = 1, kKernel = 2, kRoot = 3, kData = 4;
const std::vector<Part> kParts = {{"loader", "size = 0x4000"},
                                  {"web", "backup = 0x100000"},
                                  {"Kernel", "type = 0x1001\nbackup = 0x110000"},
                                  {"romfs", "type = 0x11001\nbackup = 0x120000"},
                                  {"data", "type = 0x101001\nbackup = 0x130000"},
                                  {"updateflag", "size = 0x10000"}};
constexpr const char *kFlags = "/dev/mtd/5";
constexpr uint64_t kPage = 0x200;

class Flow : public Place {
public:
    using Place::Place;
    // One write request of the partition writer.
    int write(int partition, uint32_t length = 512) {
        return check_upgrade_allowed() == 0 ? mark_write(partition, length) : -1;
    }
    // The flags of block 0, pages 0 to 3.
    std::vector<int> marks() {
        std::vector<int> found;
        for (uint64_t page = 0; page < 4; ++page) found.push_back(byte_at(kFlags, page * kPage));
        return found;
    }
    uint32_t word(const std::string &path) {
        const std::string bytes = file(path);
        uint32_t value = 0xEEEEEEEE;
        if (bytes.size() >= sizeof value) memcpy(&value, bytes.data(), sizeof value);
        return value;
    }
};

using Marks = std::vector<int>;
const Marks kErased = {0xFF, 0xFF, 0xFF, 0xFF};

// A board in a child: the flags of an upgrade last as long as the process. `before` the module starts.
struct Given {
    const char *flash = "";
    std::vector<Part> parts = kParts;
    void (*before)(Flow &) = [](Flow &) {};
};

template <typename Body>
void in_a_process(const Given &given, Body body) {
    EXPECT_EQ(run_in_child([&] {
                  Flow flow(flash_board(given.flash, given.parts));
                  given.before(flow);
                  EXPECT_EQ(QEL_flashIinit(), 0);
                  body(flow);
                  return 0;
              }),
              0);
}

TEST(UpgradeFlow, MarksTheFirstWriteIntoAPartitionWithABackup) {
    in_a_process({}, [](Flow &flow) {
        EXPECT_EQ(flow.write(kPlain), 0);  // has no backup copy
        EXPECT_EQ(flow.marks(), kErased);
        EXPECT_EQ(flow.word("/tmp/upgrade_ing"), 1u);
        complete();
        EXPECT_EQ(gBackupState, 0xFF);
        for (const int partition : {kKernel, kRoot}) {
            EXPECT_EQ(flow.write(partition), 0);
            EXPECT_EQ(flow.marks(), (Marks{0x55, 0xFF, 0xFF, 0xFF}));
            EXPECT_EQ(gBackupState, 0x55);
        }
        complete();
        complete();
        EXPECT_EQ(flow.marks(), (Marks{0x55, 0xAA, 0xFF, 0xFF}));
        EXPECT_EQ(gBackupState, 0xAA);
        end_session();
        EXPECT_EQ(flow.word("/tmp/upgrade_ing"), 0u);
        EXPECT_EQ(flow.log.count("write update Flag \n"), 1);
        EXPECT_EQ(flow.log.count("update complete\n"), 1);
    });
}

TEST(UpgradeFlow, LeavesTheSwitchRecordForTheBootLoader) {
    in_a_process({"can_switch = 1"}, [](Flow &flow) {
        flash::set_switch_target(0x00330044);
        EXPECT_EQ(flow.write(kKernel), 0);
        EXPECT_EQ(flow.bytes(kFlags, 4 * kPage, 9), (Bytes{1, 0, 0, 0, 0x44, 0x00, 0x33, 0x00, 0xFF}));
        EXPECT_EQ(flow.marks()[0], 0x55);
    });
    in_a_process(
        {.flash = "can_switch = 1", .before = [](Flow &flow) { flow.set_byte(kFlags, 4 * kPage, 1); }},
        [](Flow &flow) {
            EXPECT_EQ(flow.write(kKernel), 0);
            EXPECT_EQ(flow.byte_at(kFlags, 4 * kPage), 0);  // runs from the backup copy
        });
}

TEST(UpgradeFlow, OfKind2KeepsNoBooks) {
    in_a_process({.before = [](Flow &flow) { flow.set_byte(kFlags, 3 * kPage, 0x6A); }}, [](Flow &flow) {
        Flash_writeUpgradeFlag(2);
        EXPECT_EQ(flow.write(kKernel), 0);
        complete();
        EXPECT_EQ(flow.marks(), (Marks{0xFF, 0xFF, 0xFF, 0x6A}));
        EXPECT_EQ(flow.word("/tmp/upgrade_ing"), 2u);
        EXPECT_EQ(gBackupState, 0xFF);
    });
}

TEST(UpgradeFlow, WaitsForTheBackupWhoeverAskedForIt) {
    in_a_process({}, [](Flow &flow) {
        EXPECT_EQ(QEL_gotoStateWaitbackup(), 0);
        EXPECT_EQ(flow.write(kPlain), -1);
        flow.log.expect({"[libqel] WARN  : Should wait backup, can't upgrade now!!!\n"});
        EXPECT_EQ(flow.file("/tmp/upgrade_ing"), "");
        EXPECT_EQ(QEL_gotoStateInit(), 0);
        EXPECT_EQ(flow.write(kPlain), 0);
    });
    in_a_process({.before = [](Flow &flow) { flow.set_byte(kFlags, 3 * kPage, 0x6A); }}, [](Flow &flow) {
        EXPECT_EQ(flow.write(kKernel), -1);
        EXPECT_EQ(flow.marks(), (Marks{0xFF, 0xFF, 0xFF, 0x6A}));
        flow.set_byte(kFlags, 3 * kPage, 0xFF);  // another process ends the wait
        end_session();
        EXPECT_EQ(flow.write(kKernel), 0);
        EXPECT_EQ(flow.marks()[0], 0x55);
        complete();
        flow.set_byte(kFlags, 3 * kPage, 0x6A);  // and begins the next one
        EXPECT_EQ(flow.write(kKernel), 0);       // this session looked already
        end_session();
        EXPECT_EQ(flow.write(kKernel), -1);
    });
}

TEST(UpgradeFlow, RefusesTheWriteWhoseMarkFails) {
    for (const char *fault : {"/dev/mtd/5 ioctl:MEMERASE fail EIO at 1", "/dev/mtd/5 write fail EIO at 1",
                              "/dev/mtd/5 write short 100 from 1"}) {
        in_a_process({}, [&](Flow &flow) {
            EXPECT_EQ(flow.write(kPlain), 0);
            flow.board.add_fault(fault);
            EXPECT_EQ(flow.write(kKernel), -1) << fault;
            EXPECT_TRUE(flow.log.contains("write backup startflag failed!!\n")) << fault;
            EXPECT_EQ(gBackupState, 0xFF) << fault;
            complete();
            flow.board.clear_faults();
            flow.board.take_misuses();
            EXPECT_EQ(flow.write(kKernel), 0) << fault;  // from the start
            EXPECT_EQ(flow.marks(), (Marks{0x55, 0xFF, 0xFF, 0xFF})) << fault;
        });
    }
    in_a_process({}, [](Flow &flow) {
        EXPECT_EQ(flow.write(99), -1);
        flow.log.expect({"[id]=99\n"});
    });
}

TEST(UpgradeFlow, CannotGoOnWithoutItsFile) {
    in_a_process({}, [](Flow &flow) {
        flow.put_file("/tmp/upgrade_ing", std::string(4, '\0'));
        flow.board.add_fault("/tmp/upgrade_ing open fail EMFILE");
        EXPECT_EQ(flow.write(kKernel), -1);
        flow.log.expect({"[libqel] WARN  : Check upgrade failed!!!   -1\n"});
    });
}

TEST(UpgradeFlow, MarksPartsWhereTheSystemAsksForIt) {
    struct Step {
        int partition;
        uint32_t bytes;
        Marks marks;
    };
    const Step steps[] = {
        {kWeb, 0, {0xFF, 0x00, 0xFF, 0xFF}},  // nothing is written
        {kPlain, 512, kErased},               // clears the block, takes no part
        {kWeb, 512, {0x75, 0xFF, 0xFF, 0xFF}},
        {kKernel, 512, {0x75, 0x77, 0xFF, 0xFF}},
        {kData, 512, {0x75, 0x77, 0xFF, 0xFF}},  // the root image is missing
        {kRoot, 512, {0x75, 0x77, 0xFF, 0xFF}},
        {kData, 512, {0x75, 0x77, 0x7A, 0xFF}},
    };
    in_a_process({}, [&](Flow &flow) {
        QEL_writeBackupVer(4);
        flow.set_byte(kFlags, 1 * kPage, 0x00);
        for (const Step &step : steps) {
            EXPECT_EQ(flow.write(step.partition, step.bytes), 0);
            EXPECT_EQ(flow.marks(), step.marks) << "step " << &step - steps;
        }
        EXPECT_EQ(QEL_getUpdateState(), 0x7A);
        EXPECT_EQ(flow.log.count("set write update Flag \n"), 1);
        complete();
        EXPECT_EQ(flow.marks(), kErased);
        EXPECT_EQ(gBackupState, 0xFF);
        flow.log.expect({"update complete\n"});
    });
}

TEST(UpgradeFlow, TellsOfPartsOutOfOrder) {
    auto parts = kParts;
    parts[kKernel].keys = "";  // takes no part, so that it is not the first of them
    in_a_process({"", parts}, [](Flow &flow) {
        QEL_writeBackupVer(4);
        EXPECT_EQ(flow.write(kKernel), 0);
        flow.log.expect({":Kernel failed isBackUp=0-0\n"});
        EXPECT_EQ(flow.marks(), kErased);
    });
}

TEST(FlagsOfASlaveChip, AreAskedOfThatChip) {
    in_a_process({}, [](Flow &) {
        EXPECT_EQ(QEL_slvEmmcWriteBackUpFlag(1, 2, 3, 0x44), 0);
        EXPECT_EQ((std::array{g_sent.chip, g_sent.module, g_sent.cmd, g_sent.length}),
                  (std::array{1u, uint32_t{QEL_MODULE_FLASH}, kWriteFlagCommand, 20u}));
        EXPECT_EQ((std::array{g_payload.block, g_payload.page, g_payload.byte, g_payload.value}),
                  (std::array{1u, 2u, 3u, 0x44u}));
        g_answer = -1;
        EXPECT_EQ(QEL_slvEmmcWriteBackUpFlag(1, 2, 3, 0x44), -1);
    });
    in_a_process({"kind = 'emmc'"}, [](Flow &flow) {
        WriteFlagPayload request = {99, 1, 2, 3, 0x44};
        EXPECT_EQ(serve_write_flag(&request, sizeof request - 1), -1);
        EXPECT_EQ(serve_write_flag(&request, sizeof request), 0);
        EXPECT_EQ(request.status, 0);
        EXPECT_EQ(flow.byte_at("/dev/mmcblk0p6", 16384 + 2 * 512 + 3), 0x44);
        g_chip = {2, 1};
        EXPECT_EQ(QEL_slvEmmcWriteBackUpFlag(1, 2, 4, 0x45), 0);
        EXPECT_EQ(flow.byte_at("/dev/mmcblk0p6", 16384 + 2 * 512 + 4), 0x45);
    });
    in_a_process({}, [](Flow &) {  // NAND is none
        WriteFlagPayload request = {0, 1, 2, 3, 0x44};
        EXPECT_EQ(serve_write_flag(&request, sizeof request), 0);
        EXPECT_EQ(request.status, -1);
    });
}

// ---- the image that carries the partition description ----

constexpr char kDescription[] =
    "Kernel, 0, 0x00200000, 0x00300000, R, , , , 0x01200000\n"
    "partition, 0, 0x00100000, 0x00010000, R, , , , 0x01100000\n";

int flush(const std::string &text, const char *name = "partitionV3.txt") {
    const ImageFolder folder;
    folder.put(name, text);
    const std::vector<uint8_t> image = folder.make();
    g_written.clear();
    return Flash_flushPart(nullptr, image.data(), static_cast<uint32_t>(image.size()));
}

TEST(DescriptionFlush, WritesTheCopyThatTheDeviceDoesNotRunFrom) {
    in_a_process({"can_switch = 0"}, [](Flow &flow) {
        EXPECT_EQ(flash::switch_target(), 0xFFFFFFFF);
        EXPECT_EQ(flush(kDescription), 0);
        EXPECT_EQ(g_written, std::vector<uint64_t>{0x01100000});
        EXPECT_EQ(flash::switch_target(), 0x01100000u);
        flow.log.expect({"[libqel] flush device partition\n"});
        // Version 1 knows of no copies.
        EXPECT_EQ(flush("partition, 0, 0x00100000, 0x00010000, RW\n", "partition.txt"), 0);
        EXPECT_EQ(g_written, std::vector<uint64_t>{});
    });
    in_a_process({.flash = "can_switch = 0",
                  .before =
                      [](Flow &flow) {
                          flow.put_file("/tmp/backupsign", std::string("\0\0\0\0\1\0\0\0\0\0\0\0", 12));
                      }},
                 [](Flow &) {
                     EXPECT_EQ(flush(kDescription), 0);
                     EXPECT_EQ(g_written, std::vector<uint64_t>{0x00100000});
                 });
    in_a_process({"can_switch = 1"}, [](Flow &) {  // the boot loader writes
        EXPECT_EQ(flush(kDescription), 0);
        EXPECT_EQ(g_written, std::vector<uint64_t>{});
        EXPECT_EQ(flash::switch_target(), 0x01100000u);
        EXPECT_EQ(QEL_flashDeinit(), 0);
    });
}

TEST(UpgradeFlow, WithoutFlagsMarksNothingAndStillTellsOthers) {
    in_a_process({"", {{"web", "backup = 0x100000"}}}, [](Flow &flow) {
        EXPECT_EQ(flow.write(0), 0);
        EXPECT_EQ(flow.word("/tmp/upgrade_ing"), 1u);
        complete();
        end_session();
        EXPECT_EQ(flow.word("/tmp/upgrade_ing"), 0u);
        EXPECT_EQ(gBackupState, 0xFF);
    });
}

TEST(FlashLock, IsTakenOncePerThreadAndKeepsOthersOut) {
    in_a_process({}, [](Flow &) {
        auto outer = std::make_unique<flash::Lock>();
        ASSERT_TRUE(outer->held());
        EXPECT_EQ(QEL_flashWriteBackUpFlag(1, 0, 0, 0x12), 0);  // takes it again
        OSA_IpcSem others = nullptr;
        int key = 0;
        ASSERT_EQ(OSA_ipcMakeKey("/var/tmp/flashkey", 3, &key), 0);
        ASSERT_EQ(OSA_ipcSemOpen(&others, key, 0, 1, 1), 0);
        EXPECT_NE(OSA_ipcSemLock(others, 0), 0);
        outer.reset();
        EXPECT_EQ(OSA_ipcSemLock(others, 0), 0);
        EXPECT_EQ(OSA_ipcSemUnlock(others), 0);
        OSA_ipcSemClose(&others);
    });
}

TEST(DescriptionFlush, FailsAtTheFirstFault) {
    in_a_process({}, [](Flow &flow) {
        EXPECT_EQ(flush("Kernel, 0, 0x00200000, 0x00300000, R, , , , 0x01200000\n"), -1);
        flow.log.expect({"can not find partition part\n"});
        EXPECT_EQ(flush(std::string(kDescription) + "bad, 0, 0x00200000, 0x00300000, W, , , , 0x0\n"), -1);
        EXPECT_EQ(flush(kDescription, "partitionV4.txt"), -1);
        EXPECT_EQ(flash::switch_target(), 0xFFFFFFFF);
        EXPECT_EQ(g_written, std::vector<uint64_t>{});
    });
}

}  // namespace
}  // namespace qel::test
