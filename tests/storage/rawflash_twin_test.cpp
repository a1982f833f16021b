// The raw flash object over both chips of the board "twin": this process is the master, the slave is a
// child. The slave's flash is NOR, the master's NAND.
#include <algorithm>
#include <filesystem>
#include <fstream>

#include "tests/support/slave.h"
#include "tests/support/unit.h"

namespace qel::test {
namespace {

constexpr size_t kSlaveBlock = 0x10000;
constexpr uint32_t kKernelOfSlave = 0x80000;  // where the partition starts there
constexpr uint32_t kKernelOfSlaveBytes = 0x280000;
constexpr const char *kKernelNode = "/dev/mtd/3";

class RawFlashOnTwin : public testing::Test {
protected:
    RawFlashOnTwin() {
        slave_.start();
        board_.enter({.chip = 0, .as = "vesta"});
        library_.emplace();
    }
    ~RawFlashOnTwin() override {
        library_.reset();
        EXPECT_EQ(board_.take_misuses(), std::vector<std::string>());
        board_.leave();
    }
    RawFlash *create() {
        RawFlash *flash = nullptr;
        EXPECT_EQ(CALL(*library_, createRawFlash)(&flash), 0);
        return flash;
    }
    RawFlash *create_adapter(uint32_t chip = 1) {
        RawFlash *flash = nullptr;
        EXPECT_EQ(CALL(*library_, createRawFlashAdapter)(chip, &flash), chip == 1 ? 0 : -1);
        return flash;
    }
    Bytes kernel(uint32_t chip, uint64_t offset, uint64_t bytes) {
        return board_.poke(chip, kKernelNode, {"read", std::to_string(offset), std::to_string(bytes)}).data;
    }
    static int write_kernel(RawFlash *flash, const Bytes &data) {
        return flash->writePartition(flash, "Kernel", data.data(), static_cast<uint32_t>(data.size()));
    }
    void put_mounts(const std::string &text) {
        std::string host;
        ASSERT_EQ(board_.chip(0).tree().resolve("/proc/mounts", true, host), 0);
        std::filesystem::create_directories(std::filesystem::path(host).parent_path());
        std::ofstream(host) << text;
    }

    board::Board board_{board::find_board("twin")};
    Slave slave_{board_};
    Log log_;
    std::optional<Library> library_;
};

TEST_F(RawFlashOnTwin, WritesThePartitionOfEveryChip) {
    put_mounts(
        "/dev/root / squashfs ro 0 0\n/dev/mtdblock6 /mnt/data jffs2 rw 0 0\n"
        "/dev/mtdblock7 /mnt/database jffs2 rw 0 0\ntmpfs /mnt/firmware tmpfs rw 0 0");
    RawFlash *const flash = create();
    log_.expect({"[libqel] flashChnNum = 1, nFlashNum = 2, dspSums = 2\n",
                 "[libqel] umount /mnt/data success!\n", "[libqel] createRawFlash OK! \n"});
    EXPECT_EQ(board_.take_events(),
              (std::vector<std::string>{"chip 0: umount /mnt/data", "chip 0: umount /mnt/firmware"}));

    const Bytes data = pattern(0x1F0123, 1);  // three messages
    std::vector<uint64_t> done;
    flash->info->progress = [](void *context, uint64_t so_far, uint64_t total) {
        EXPECT_EQ(total, 2 * 0x1F0123u);
        static_cast<std::vector<uint64_t> *>(context)->push_back(so_far);
    };
    flash->info->progressContext = &done;
    EXPECT_EQ(flash->info->chips, 2u);
    EXPECT_EQ(write_kernel(flash, data), 0) << log_.all();
    for (const uint32_t chip : {0u, 1u}) {
        for (const size_t at : {0, 0x100000}) {  // the most that the board tells at once
            const size_t count = std::min<size_t>(0x100000, data.size() - at);
            EXPECT_TRUE(kernel(chip, at, count) == slice(data, at, count)) << chip << " at " << at;
        }
    }
    EXPECT_TRUE(std::is_sorted(done.begin(), done.end()));
    EXPECT_EQ(done.back(), 2 * data.size());

    flash->info->progress = nullptr;
    EXPECT_EQ(flash->writePartition(flash, "web", data.data(), 1), -1) << "the slave has none";
    log_.expect({"[libqel] ERROR  (Flash_writePartition|", "): writePartition[1] err!\n"});
    EXPECT_EQ(flash->release(flash), 0);
}

TEST_F(RawFlashOnTwin, AnswersWithTheLastChip) {
    RawFlash *const flash = create();
    RawFlashCaps caps{};
    EXPECT_EQ(flash->getCaps(flash, &caps), 0);
    EXPECT_EQ(caps.chip, 1u);
    EXPECT_EQ(caps.type, uint32_t{QEL_FLASH_NOR});
    EXPECT_EQ(caps.eraseBytes, kSlaveBlock);
    EXPECT_EQ(caps.partitions, 5u);
    EXPECT_EQ(caps.totalBytes, 0x800000u);
    EXPECT_EQ(flash->addRef(flash), 0);
    EXPECT_EQ(flash->release(flash), 0);
    EXPECT_EQ(flash->getCaps(flash, &caps), 0);

    RawFlash without = *flash;
    without.addRef = nullptr;
    EXPECT_EQ(CALL(*library_, Flash_getcaps)(&without, &caps), -1);
    EXPECT_EQ(CALL(*library_, Flash_getcaps)(nullptr, &caps), -1);
    EXPECT_EQ(flash->release(flash), 0);
    EXPECT_EQ(create_adapter(2), nullptr);
}

TEST_F(RawFlashOnTwin, ReachesTheSlaveByAddress) {
    RawFlash *const flash = create_adapter();
    const Bytes data = pattern(0x110000, 2);
    const auto bytes = static_cast<uint32_t>(data.size());
    EXPECT_EQ(flash->write(flash, kKernelOfSlave, data.data(), bytes), 0);
    Bytes back(data.size());
    EXPECT_EQ(flash->read64(flash, kKernelOfSlave, back.data(), bytes), 0);
    EXPECT_TRUE(back == data);
    EXPECT_EQ(flash->erase(flash, kKernelOfSlave + kSlaveBlock, kSlaveBlock), 0);
    EXPECT_EQ(kernel(1, kSlaveBlock, kSlaveBlock), Bytes(kSlaveBlock, 0xFF));
    EXPECT_EQ(kernel(1, 2 * kSlaveBlock, 100),
              Bytes(data.begin() + 2 * kSlaveBlock, data.begin() + 2 * kSlaveBlock + 100));
    EXPECT_EQ(kernel(0, 0, 100), Bytes(100, 0xFF)) << "the master's own";

    // Too long, and the first message tells.
    const Bytes much = pattern(kKernelOfSlaveBytes + 1, 3);
    EXPECT_EQ(write_kernel(flash, much), -1);
    EXPECT_EQ(flash->write64(flash, kKernelOfSlave, much.data(), static_cast<uint32_t>(much.size())), -1);
    EXPECT_EQ(kernel(1, 0, 100), slice(data, 0, 100));
    EXPECT_EQ(flash->writePartition(flash, "a name that is too long", data.data(), 1), -1);

    // Aborted between two messages, and between two chips.
    flash->info->progressContext = flash;
    flash->info->progress = [](void *context, uint64_t, uint64_t) {
        auto *const object = static_cast<RawFlash *>(context);
        EXPECT_EQ(object->abort(object), 0);
    };
    const Bytes again = pattern(data.size(), 4);
    EXPECT_EQ(write_kernel(flash, again), -1);
    EXPECT_EQ(kernel(1, 0, 100), slice(again, 0, 100));
    EXPECT_EQ(kernel(1, 0x100000, 100), slice(data, 0x100000, 100));
    EXPECT_EQ(flash->release(flash), 0);
}

TEST_F(RawFlashOnTwin, ServesNoRequestThatIsNotWhole) {
    // As the layout of the requests has it: status, bytes, address, count, name.
    struct Request {
        AdapterMsg head;
        int32_t status;
        uint32_t bytes;
        uint64_t address, count;
        char name[16];
        uint8_t data[64];
    };
    const std::tuple<const char *, uint32_t, uint32_t, uint32_t, int> cases[] = {
        {"not open", 4, 104, 64, 0},
        {"no head", 4, 39, 0, -1},
        {"read without room", 4, 103, 64, -1},
        {"read of a wrapped length", 4, 104, 0xFFFFFFF0, -1},
        {"write without data", 5, 103, 64, -1},
        {"caps without room", 3, 71, 0, -1},
        {"name without an end", 8, 104, 64, -1},
        {"no such command", 99, 104, 0, -1},
        {"close of what is not open", 2, 40, 0, 0},
    };
    for (const auto &[what, cmd, length, bytes, result] : cases) {
        Request request{};
        request.head = {1, 5000, 1, 0, QEL_MODULE_FLASH, cmd, length, 0};
        request.bytes = bytes;
        if (cmd == 8) std::fill(std::begin(request.name), std::end(request.name), 'x');
        const int sent = CALL(*library_, QEL_adapterMasterProc)(&request.head);
        EXPECT_EQ(sent == 0, result == 0) << what;
        EXPECT_EQ(request.status, result == 0 ? -1 : 0) << what;
    }
    RawFlash *const flash = create_adapter();
    RawFlashCaps caps{};
    EXPECT_EQ(flash->getCaps(flash, &caps), 0) << "it still serves";
    EXPECT_EQ(flash->release(flash), 0);
}

}  // namespace
}  // namespace qel::test
