// The EEPROM chips of a board, as their driver shows them.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "board/core/board.h"
#include "board/core/world.h"
#include "os/hook.h"
#include "qel/eeprom_driver.h"
#include "qel/misc_driver.h"
#include "tests/support/library.h"

namespace qel::test {
namespace {

using namespace qel::board;
using Content = std::vector<uint8_t>;

const qel_os_ops &ops() { return *qel_world_hook()->os; }

class Chips {
public:
    explicit Chips(const std::string &tables, const Options &options = {})
        : board("name = \"test\"\n[[chip]]\n[chip.misc]\n" + tables, options) {
        board.enter();
        fd = ops().open("/dev/qecEEPROM", O_RDWR, 0);
    }
    int write(uint32_t address, const Content &bytes) const {
        qec_eeprom_transfer record = {
            address, const_cast<uint8_t *>(bytes.data()), static_cast<uint32_t>(bytes.size()), {}};
        return ops().ioctl(fd, QEC_EEPROM_IOCWR, &record);
    }
    Content read(uint32_t address, uint32_t count) const {
        Content bytes(count);
        qec_eeprom_transfer record = {address, bytes.data(), count, {}};
        EXPECT_EQ(ops().ioctl(fd, QEC_EEPROM_IOCRD, &record), 0);
        return bytes;
    }
    Board board;
    int fd = -1;
};

Content counting(size_t count) {
    Content bytes(count);
    for (size_t i = 0; i < count; ++i) bytes[i] = static_cast<uint8_t>(i + 1);
    return bytes;
}

const char *const kSmall = "[chip.eeprom]\npage_bytes = 16\ncapacity_bytes = 100\nwords = [1, 2, 3, 4, 5]\n";

TEST(EepromModel, HoldsEveryByteFromTheFirstToTheLast) {
    const Chips chips(kSmall);
    EXPECT_EQ(chips.read(0, 100), Content(100, 0xFF)) << "as the chip comes";
    EXPECT_EQ(chips.write(0, {1}), 0);
    EXPECT_EQ(chips.write(99, {2}), 0);
    EXPECT_EQ(chips.write(14, counting(40)), 0) << "over two page borders";
    EXPECT_EQ(chips.write(100, {}), 0);
    Content expected(100, 0xFF);
    expected[0] = 1;
    expected[99] = 2;
    std::copy_n(counting(40).begin(), 40, expected.begin() + 14);
    EXPECT_EQ(chips.read(0, 100), expected);
    EXPECT_EQ(chips.read(99, 1), Content(1, 2));
    EXPECT_EQ(chips.read(100, 0), Content());
}

TEST(EepromModel, RefusesWhatIsNotOnTheChip) {
    const Chips chips(kSmall);
    uint8_t byte = 0;
    const qec_eeprom_transfer wrong[] = {
        {100, &byte, 1, {}}, {99, &byte, 2, {}}, {0xFFFFFFFF, &byte, 1, {}}, {1, &byte, 0xFFFFFFFF, {}}};
    for (qec_eeprom_transfer record : wrong) {
        for (const uint32_t request : {QEC_EEPROM_IOCRD, QEC_EEPROM_IOCWR}) {
            if (request == QEC_EEPROM_IOCWR && record.bytes == 2) continue;  // would read behind `byte`
            EXPECT_EQ(ops().ioctl(chips.fd, request, &record), -EINVAL)
                << record.address << " " << record.bytes;
        }
    }
    qec_eeprom_transfer nowhere = {0, nullptr, 1, {}};
    EXPECT_EQ(ops().ioctl(chips.fd, QEC_EEPROM_IOCRD, &nowhere), -EFAULT);
    EXPECT_EQ(ops().ioctl(chips.fd, QEC_EEPROM_IOCWR, nullptr), -EFAULT);
    EXPECT_EQ(ops().ioctl(chips.fd, 0xC0185103, &byte), -ENOTTY);
    EXPECT_EQ(chips.read(0, 100), Content(100, 0xFF));
}

TEST(EepromModel, TellsItsAttributesWordByWord) {
    const Chips chips(kSmall);
    uint32_t words[8] = {0, 0, 0, 0, 0, 0, 0, 77};
    EXPECT_EQ(ops().ioctl(chips.fd, QEC_EEPROM_IOSGET, words), 0);
    const uint32_t expected[8] = {1, 16, 2, 100, 3, 4, 5, 77};
    EXPECT_EQ(memcmp(words, expected, sizeof(words)), 0);
}

// The 32-bit layout's offsets on a machine of that size, the natural ones elsewhere.
TEST(EepromModel, TakesTheRecordInItsNativeLayout) {
    const Chips chips(kSmall);
    uint8_t raw[32] = {};
    const Content bytes = counting(3);
    const uint32_t address = 5;
    const uint32_t count = 3;
    const uint8_t *buffer = bytes.data();
    memcpy(raw, &address, 4);
    memcpy(raw + sizeof(void *), &buffer, sizeof(buffer));
    memcpy(raw + 2 * sizeof(void *), &count, 4);
    EXPECT_EQ(ops().ioctl(chips.fd, QEC_EEPROM_IOCWR, raw), 0);
    EXPECT_EQ(chips.read(5, 3), bytes);
}

TEST(EepromModel, WrapsInThePageWhereItsDriverDoesNotSplit) {
    Chips chips(std::string(kSmall) + "splits_pages = false\n");
    EXPECT_EQ(chips.write(16, counting(16)), 0);
    EXPECT_TRUE(chips.board.take_misuses().empty()) << "a whole page is no misuse";
    EXPECT_EQ(chips.write(30, {0xA1, 0xA2, 0xA3}), 0);
    Content page = counting(16);
    page[14] = 0xA1;
    page[15] = 0xA2;
    page[0] = 0xA3;
    EXPECT_EQ(chips.read(16, 16), page);
    EXPECT_EQ(chips.read(32, 16), Content(16, 0xFF));
    EXPECT_EQ(chips.board.take_misuses().size(), 1u);
    EXPECT_EQ(chips.write(97, counting(3)), 0);
    EXPECT_EQ(chips.read(96, 4), Content({0xFF, 1, 2, 3})) << "to the end of a page that the chip cuts off";
}

TEST(EepromModel, CutsThePowerInThePageThatIsWritten) {
    char dir[] = "/tmp/qel-eeprom-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const int code = run_in_child([&] {
        Chips chips(kSmall, {.dir = dir, .time_scale = 1});
        chips.board.add_fault("/dev/qecEEPROM power-cut at 2 torn 5");
        chips.write(8, counting(40));  // pages of 8, 16 and 16 bytes
        return 1;
    });
    EXPECT_EQ(code, 128 + SIGKILL);
    Content expected(100, 0xFF);
    std::copy_n(counting(13).begin(), 13, expected.begin() + 8);
    EXPECT_EQ(Chips(kSmall, {.dir = dir, .time_scale = 1}).read(0, 100), expected);
    EXPECT_THROW(Chips("[chip.eeprom]\ncapacity_bytes = 99\n", {.dir = dir, .time_scale = 1}), std::exception)
        << "another chip";
    std::filesystem::remove_all(dir);
}

TEST(EepromModel, StandsOnNodesByNumber) {
    const std::string chip = "[[chip.eeprom]]\ncapacity_bytes = 200\n";
    Chips chips(chip + chip + chip);
    EXPECT_GE(ops().open("/dev/qecEEPROM2", O_RDWR, 0), 0);
    EXPECT_EQ(ops().open("/dev/qecEEPROM3", O_RDWR, 0), -ENOENT);
    uint32_t count = 0;
    const int misc = ops().open("/dev/qecMisc", O_RDWR, 0);
    EXPECT_EQ(ops().ioctl(misc, QEL_MISC_GET_EEPROM_COUNT, &count), 0);
    EXPECT_EQ(count, 3u);
    chips.board.leave();
    std::string many;
    for (int i = 0; i < 9; ++i) many += chip;
    EXPECT_THROW(Chips{many}, std::exception);
}

TEST(EepromModel, ShowsFilesAndAMap) {
    Chips chips("[chip.eeprom]\npage_bytes = 32\ncapacity_bytes = 512\n");
    EXPECT_NE(chips.board.show(false).find("no file system"), std::string::npos);
    // A head with one file of 10 bytes and one whose entry points outside.
    const std::string head =
        "00000000 2351efde 01000000 d4000000 2c010000 02000000 00000000 78000000 24000000 00000000 ffffff00 "
        "10000000";
    const std::string header = "00000000 01000000 0a000000 00000000 6c656e73";
    EXPECT_EQ(chips.board.poke(0, "/dev/qecEEPROM", {"fill", "00"}).value, 0);
    EXPECT_EQ(chips.board.poke(0, "/dev/qecEEPROM", {"write", "0", head}).value, 0);
    EXPECT_EQ(chips.board.poke(0, "/dev/qecEEPROM", {"write", "0x78", header}).value, 0);
    const std::string shown = chips.board.show(false);
    EXPECT_NE(shown.find("lens"), std::string::npos);
    EXPECT_NE(shown.find("(not on the chip)"), std::string::npos);
    EXPECT_NE(shown.find("000040  " + std::string(56, 'H') + std::string(8, 'A') + "\n"), std::string::npos);
    EXPECT_NE(shown.find(std::string(48, 'A') + std::string(16, 'a') + "\n"), std::string::npos);
    EXPECT_NE(shown.find("0000c0  " + std::string(20, 'a') + std::string(44, '-') + "\n"), std::string::npos);
    EXPECT_EQ(chips.board.poke(0, "/dev/qecEEPROM", {"write", "510", "010203"}).value, -EINVAL);
    EXPECT_EQ(chips.board.poke(0, "/dev/qecEEPROM", {"read", "x", "1"}).value, -EINVAL);
}

}  // namespace
}  // namespace qel::test
