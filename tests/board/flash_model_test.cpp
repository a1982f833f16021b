// Flash of every kind, as its drivers show it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "board/core/board.h"
#include "board/core/description.h"
#include "board/core/world.h"
#include "os/hook.h"
#include "tests/support/library.h"

namespace qel::test {
namespace {

using namespace qel::board;
using Content = std::vector<uint8_t>;

const qel_os_ops &ops() { return *qel_world_hook()->os; }

constexpr uint32_t kGetInfo = 0x80204D01;
constexpr uint32_t kErase = 0x40084D02;
constexpr uint32_t kGetBadBlock = 0x40084D0B;
constexpr uint32_t kSetBadBlock = 0x40084D0C;

constexpr int64_t kBlock = 0x1000;
constexpr int64_t kPage = 0x200;
constexpr int64_t kSize = 8 * kBlock;  // of partition "data", behind one of two blocks

Content pattern(size_t count, uint8_t seed = 1) {
    Content bytes(count);
    for (size_t i = 0; i < count; ++i) bytes[i] = static_cast<uint8_t>(seed + i * 7 + i / 256);
    return bytes;
}

Content erased(size_t count) { return Content(count, 0xFF); }

std::string flash_text(const std::string &kind, const std::string &data_keys = "",
                       const std::string &flash_keys = "") {
    return "name = \"test\"\n[[chip]]\n[chip.flash]\nkind = \"" + kind +
           "\"\nerase_bytes = 0x1000\npage_bytes = 0x200\n" + flash_keys +
           "\npartition = [{ name = \"first\", size = 0x2000 },\n{ name = \"data\", size = 0x8000 " +
           data_keys + "}]\n";
}

// A board on which partition "data" is open.
class Medium {
public:
    explicit Medium(const std::string &kind, const std::string &data_keys = "",
                    const std::string &flash_keys = "", const Options &options = {})
        : board(flash_text(kind, data_keys, flash_keys), options),
          node(kind == "emmc" ? "/dev/mmcblk0p2" : "/dev/mtd/1") {
        board.enter();
        fd = ops().open(node.c_str(), O_RDWR, 0);
        EXPECT_GE(fd, 0);
    }
    int64_t write(int64_t at, const Content &bytes) const {
        EXPECT_EQ(ops().seek(fd, at, SEEK_SET), at);
        return ops().write(fd, bytes.data(), bytes.size());
    }
    Content read(int64_t at, size_t count) const {
        Content bytes(count);
        EXPECT_EQ(ops().seek(fd, at, SEEK_SET), at);
        const int64_t got = ops().read(fd, bytes.data(), count);
        bytes.resize(got < 0 ? 0 : static_cast<size_t>(got));
        return bytes;
    }
    int erase(uint32_t start, uint32_t bytes = kBlock) const {
        uint32_t area[] = {start, bytes};
        return ops().ioctl(fd, kErase, area);
    }
    int bad(int64_t offset, uint32_t request = kGetBadBlock) const {
        return ops().ioctl(fd, request, &offset);
    }
    std::string misuses() {
        std::string all;
        for (const std::string &text : board.take_misuses()) all += text + "\n";
        return all;
    }
    Board board;
    std::string node;
    int fd = -1;
};

// What holds for every medium.
class EveryMedium : public testing::TestWithParam<const char *> {};
INSTANTIATE_TEST_SUITE_P(FlashModel, EveryMedium, testing::Values("nor", "nand", "mlc-nand", "emmc"),
                         [](const auto &info) {
                             std::string name = info.param;
                             std::erase(name, '-');
                             return name;
                         });

TEST_P(EveryMedium, HoldsEveryByteFromTheFirstToTheLast) {
    Medium medium(GetParam());
    EXPECT_EQ(medium.read(0, kSize), erased(kSize)) << "as it comes";
    EXPECT_EQ(medium.write(0, pattern(kPage, 1)), kPage);
    EXPECT_EQ(medium.write(kBlock - kPage, pattern(2 * kPage, 2)), 2 * kPage) << "over the end of a block";
    EXPECT_EQ(medium.write(kSize - kPage, pattern(kPage, 3)), kPage);
    Content expected = erased(kSize);
    const auto put = [&](size_t at, const Content &bytes) {
        std::copy(bytes.begin(), bytes.end(), expected.begin() + static_cast<ptrdiff_t>(at));
    };
    put(0, pattern(kPage, 1));
    put(kBlock - kPage, pattern(2 * kPage, 2));
    put(kSize - kPage, pattern(kPage, 3));
    EXPECT_EQ(medium.read(0, kSize), expected);
    EXPECT_EQ(medium.read(kPage - 1, 2), Content({expected[kPage - 1], 0xFF})) << "reads need no pages";
    // Partitions are places of one flash: nothing went into the neighbour.
    const int first = ops().open(medium.node == "/dev/mtd/1" ? "/dev/mtd/0" : "/dev/mmcblk0p1", O_RDONLY, 0);
    Content neighbour(2 * kBlock);
    EXPECT_EQ(ops().read(first, neighbour.data(), neighbour.size()), int64_t{2 * kBlock});
    EXPECT_EQ(neighbour, erased(2 * kBlock));
    EXPECT_EQ(medium.misuses(), "");
}

TEST_P(EveryMedium, EndsWhereItsPartitionEnds) {
    Medium medium(GetParam());
    EXPECT_EQ(ops().seek(medium.fd, 0, SEEK_END), kSize);
    Content byte(1);
    EXPECT_EQ(ops().read(medium.fd, byte.data(), 1), 0);
    EXPECT_EQ(ops().write(medium.fd, byte.data(), 1), -ENOSPC);
    EXPECT_EQ(medium.read(kSize - 5, 100).size(), 5u);
    EXPECT_EQ(medium.write(kSize - kPage, pattern(3 * kPage)), kPage);
    EXPECT_EQ(ops().seek(medium.fd, 1, SEEK_END), -EINVAL);
    EXPECT_EQ(ops().seek(medium.fd, -1, SEEK_SET), -EINVAL);
    EXPECT_EQ(ops().seek(medium.fd, INT64_MAX, SEEK_CUR), -EINVAL);
    EXPECT_EQ(ops().seek(medium.fd, -int64_t{kPage}, SEEK_CUR), kSize - kPage);
    EXPECT_EQ(medium.read(kSize - kPage, kPage), pattern(kPage));

    const int reader = ops().open(medium.node.c_str(), O_RDONLY, 0);
    EXPECT_EQ(ops().write(reader, byte.data(), 1), -EBADF);
}

TEST_P(EveryMedium, IsThereAgainAfterTheBoardWasAway) {
    char dir[] = "/tmp/qel-flash-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const Options kept = {.dir = dir, .time_scale = 1};
    {
        Medium medium(GetParam(), "", "", kept);
        medium.write(kBlock, pattern(kPage));
        medium.board.poke(0, medium.node, {"failing", "3"});
        medium.erase(5 * kBlock);
    }
    {
        Medium medium(GetParam(), "", "", kept);
        EXPECT_EQ(medium.read(kBlock, kPage), pattern(kPage));
        EXPECT_EQ(medium.read(0, kPage), erased(kPage));
        if (medium.node == "/dev/mtd/1") {
            EXPECT_EQ(medium.board.poke(0, medium.node, {"erases", "5"}).value, 1);
            EXPECT_EQ(medium.erase(3 * kBlock), -EIO) << "it was failing";
        }
    }
    EXPECT_THROW(Board(flash_text("nor", "", "total_bytes = 0x10000"), kept), std::exception)
        << "another flash";
    std::filesystem::remove_all(dir);
}

// The power goes in the second page of three: it holds five new bytes, the third none.
TEST_P(EveryMedium, HoldsAtAPowerCutWhatHadReachedIt) {
    char dir[] = "/tmp/qel-flash-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const Options kept = {.dir = dir, .time_scale = 1};
    const int code = run_in_child([&] {
        const Medium medium(GetParam(), "", "", kept);
        const_cast<Board &>(medium.board).add_fault("/dev/m* power-cut at 2 torn 5");
        medium.write(0, pattern(3 * kPage));
        return 1;
    });
    EXPECT_EQ(code, 128 + SIGKILL);
    Content expected = erased(kSize);
    std::copy_n(pattern(3 * kPage).begin(), kPage + 5, expected.begin());
    Medium medium(GetParam(), "", "", kept);
    EXPECT_EQ(medium.read(0, kSize), expected);
    EXPECT_EQ(medium.write(2 * kPage, pattern(kPage)), kPage) << "untouched";
    EXPECT_EQ(medium.misuses(), "");
    std::filesystem::remove_all(dir);
}

// ---- raw flash ----

class RawFlash : public testing::TestWithParam<const char *> {};
INSTANTIATE_TEST_SUITE_P(FlashModel, RawFlash, testing::Values("nor", "nand"),
                         [](const auto &info) { return std::string(info.param); });

TEST_P(RawFlash, IsErasedBlockByBlock) {
    Medium medium(GetParam());
    medium.write(0, pattern(3 * kBlock));
    EXPECT_EQ(medium.erase(kBlock), 0);
    Content expected = pattern(3 * kBlock);
    std::fill_n(expected.begin() + kBlock, kBlock, uint8_t{0xFF});
    EXPECT_EQ(medium.read(0, 3 * kBlock), expected);
    EXPECT_EQ(medium.write(kBlock, pattern(kBlock, 9)), kBlock) << "and may be written again";
    EXPECT_EQ(medium.board.poke(0, medium.node, {"erases", "1"}).value, 1);
    const uint32_t wrong[][2] = {{1, kBlock},     {0, kPage},           {0, kSize + kBlock},
                                 {kSize, kBlock}, {kBlock, 0xFFFFF000}, {0xFFFFF000, kBlock}};
    for (const auto &area : wrong)
        EXPECT_EQ(medium.erase(area[0], area[1]), -EINVAL) << area[0] << " " << area[1];
    EXPECT_EQ(medium.erase(0, 0), 0);
    const int reader = ops().open(medium.node.c_str(), O_RDONLY, 0);
    uint32_t area[] = {0, kBlock};
    EXPECT_EQ(ops().ioctl(reader, kErase, area), -EPERM);
    EXPECT_EQ(medium.read(0, kBlock), pattern(kBlock));
    EXPECT_EQ(medium.misuses(), "");
}

TEST_P(RawFlash, LosesInAPowerCutOnlyWhatTheEraseHadReached) {
    char dir[] = "/tmp/qel-flash-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const Options kept = {.dir = dir, .time_scale = 1};
    const int code = run_in_child([&] {
        Medium medium(GetParam(), "", "", kept);
        medium.write(0, pattern(3 * kBlock));
        medium.board.add_fault(medium.node + " power-cut at 2 torn 1000");
        medium.erase(0, 3 * kBlock);
        return 1;
    });
    EXPECT_EQ(code, 128 + SIGKILL);
    Content expected = pattern(3 * kBlock);
    std::fill_n(expected.begin(), kBlock + 1000, uint8_t{0xFF});
    EXPECT_EQ(Medium(GetParam(), "", "", kept).read(0, 3 * kBlock), expected);
    std::filesystem::remove_all(dir);
}

TEST_P(RawFlash, FailsInBlocksThatAreWornOut) {
    Medium medium(GetParam(), ", failing = [2]", "endurance = 1");
    EXPECT_EQ(medium.erase(0), 0);
    EXPECT_EQ(medium.erase(0), -EIO) << "its second time";
    EXPECT_EQ(medium.erase(kBlock, 2 * kBlock), -EIO);
    EXPECT_EQ(medium.board.poke(0, medium.node, {"erases", "1"}).value, 1) << "up to the one that fails";
    EXPECT_EQ(medium.write(2 * kBlock, pattern(kPage)), -EIO);
    EXPECT_EQ(medium.read(2 * kBlock + kPage / 2, kPage / 2), erased(kPage / 2)) << "half of it was written";
    EXPECT_EQ(medium.board.poke(0, medium.node, {"good", "2"}).value, 0);
    EXPECT_EQ(medium.erase(2 * kBlock), 0);
}

TEST(NorModel, TurnsOnesIntoZerosAndTellsWhoWantsMore) {
    Medium medium("nor");
    EXPECT_EQ(medium.write(5, {0xF0}), 1) << "any byte, anywhere";
    EXPECT_EQ(medium.write(5, {0x30}), 1);
    EXPECT_EQ(medium.misuses(), "") << "that bit was on";
    EXPECT_EQ(medium.write(4, {0xFF, 0x0F}), 2);
    EXPECT_EQ(medium.read(4, 3), Content({0xFF, 0x00, 0xFF}));
    EXPECT_NE(medium.misuses().find("without an erase: page 0 of block 2"), std::string::npos);
    EXPECT_EQ(medium.bad(0), 0);
    EXPECT_EQ(medium.bad(0, kSetBadBlock), -EOPNOTSUPP);
}

TEST(NandModel, TakesWholePagesOnce) {
    Medium medium("nand");
    EXPECT_EQ(medium.write(1, pattern(kPage)), -EINVAL);
    EXPECT_EQ(medium.write(0, pattern(kPage - 1)), -EINVAL);
    EXPECT_EQ(medium.read(0, kPage), erased(kPage));
    EXPECT_EQ(medium.write(0, Content(kPage, 0xF0)), kPage);
    EXPECT_EQ(medium.misuses(), "");
    EXPECT_EQ(medium.write(0, Content(2 * kPage, 0x3C)), 2 * kPage) << "the chip does what it can";
    EXPECT_EQ(medium.read(0, kPage), Content(kPage, 0x30));
    EXPECT_EQ(medium.read(kPage, kPage), Content(kPage, 0x3C));
    EXPECT_NE(medium.misuses().find("second write without an erase: page 0 of block 2"), std::string::npos);
    // A page of ones is a page written.
    EXPECT_EQ(medium.write(kBlock, erased(kPage)), kPage);
    EXPECT_EQ(medium.write(kBlock, erased(kPage)), kPage);
    EXPECT_NE(medium.misuses(), "");
}

TEST(NandModel, KnowsItsBadBlocks) {
    Medium medium("nand", ", bad = [1, 7]");
    for (int64_t block = 0; block < 8; ++block)
        EXPECT_EQ(medium.bad(block * kBlock), block == 1 || block == 7 ? 1 : 0) << block;
    EXPECT_EQ(medium.bad(kBlock + 5), 1) << "any offset in it";
    EXPECT_EQ(medium.bad(kSize), -EINVAL);
    EXPECT_EQ(medium.bad(-1), -EINVAL);
    EXPECT_EQ(medium.erase(kBlock), -EIO);
    EXPECT_EQ(medium.erase(0, 3 * kBlock), -EIO);
    EXPECT_EQ(medium.misuses(), "");
    EXPECT_EQ(medium.read(kBlock, kPage), erased(kPage)) << "reading one is no misuse";
    EXPECT_EQ(medium.write(kBlock, pattern(kPage)), kPage);
    EXPECT_NE(medium.misuses().find("write into a bad block"), std::string::npos);

    EXPECT_EQ(medium.bad(2 * kBlock, kSetBadBlock), 0);
    EXPECT_EQ(medium.bad(2 * kBlock, kSetBadBlock), 0) << "twice is once";
    EXPECT_EQ(medium.bad(2 * kBlock), 1);
    EXPECT_EQ(medium.bad(3 * kBlock), 0);
    EXPECT_EQ(medium.bad(kSize, kSetBadBlock), -EINVAL);
}

TEST(EmmcModel, TakesAnythingAnywhere) {
    Medium medium("emmc");
    EXPECT_EQ(medium.write(7, {0x00, 0x00}), 2);
    EXPECT_EQ(medium.write(8, {0xFF, 0x55}), 2);
    EXPECT_EQ(medium.read(6, 5), Content({0xFF, 0x00, 0xFF, 0x55, 0xFF}));
    EXPECT_EQ(medium.misuses(), "");
    EXPECT_EQ(medium.erase(0), -ENOTTY);
    EXPECT_EQ(medium.bad(0), -ENOTTY);
}

TEST(EmmcModel, ReachesBeyond4GiB) {
    Board board(find_board("emmc"));
    board.enter();
    const int fd = ops().open("/dev/mmcblk0p9", O_RDWR, 0);
    const int64_t last = ops().seek(fd, -4, SEEK_END);
    EXPECT_EQ(last, 0x100000000 - 4);
    EXPECT_EQ(ops().write(fd, "last", 4), 4);
    char back[4] = {};
    EXPECT_EQ(ops().seek(fd, last, SEEK_SET), last);
    EXPECT_EQ(ops().read(fd, back, 4), 4);
    EXPECT_EQ(memcmp(back, "last", 4), 0);
}

// ---- what drivers tell ----

TEST(MtdModel, DescribesItselfAsTheKernelDoes) {
    const struct {
        const char *kind;
        uint32_t words[6];  // type, flags, size, erase, write, spare
    } cases[] = {{"nor", {3, 0xC00, kSize, kBlock, 1, 0}},
                 {"nand", {4, 0x400, kSize, kBlock, kPage, 64}},
                 {"mlc-nand", {8, 0x400, kSize, kBlock, kPage, 224}}};
    for (const auto &c : cases) {
        const Medium medium(c.kind);
        uint32_t info[9] = {0, 0, 0, 0, 0, 0, 0, 0, 77};
        EXPECT_EQ(ops().ioctl(medium.fd, kGetInfo, info), 0);
        EXPECT_EQ(memcmp(info, c.words, sizeof c.words), 0) << c.kind;
        EXPECT_EQ(info[8], 77u) << "32 bytes and no more";
    }
}

TEST(PartitionModel, FillsInAsManyRecordsAsThereIsRoomFor) {
    struct {
        uint32_t count;
        void *records;
    } argument;
    constexpr uint32_t kPartitions32 = 0xC0045800;
    constexpr uint32_t kPartitions64 = 0xC0045806;
    const Board board(flash_text("nand", ", backup = 0xA000, type = 0x1001, flag = 9"));
    const_cast<Board &>(board).enter();
    const int fd = ops().open("/dev/qecPartion", O_RDWR, 0);
    for (const uint32_t request : {kPartitions32, kPartitions64}) {
        const size_t record_bytes = request == kPartitions32 ? 48 : 56;
        argument = {0, nullptr};
        EXPECT_EQ(ops().ioctl(fd, request, &argument), 0);
        EXPECT_EQ(argument.count, 2u);
        Content records(3 * record_bytes, 0xEE);
        argument = {1, records.data()};
        EXPECT_EQ(ops().ioctl(fd, request, &argument), 0);
        EXPECT_EQ(argument.count, 2u);
        EXPECT_STREQ(reinterpret_cast<const char *>(records.data()), "first");
        EXPECT_EQ(records[record_bytes], 0xEE) << "there was room for one";
        argument = {3, records.data()};
        EXPECT_EQ(ops().ioctl(fd, request, &argument), 0);
        EXPECT_EQ(argument.count, 2u);
        const uint8_t *second = records.data() + record_bytes;
        uint32_t words[4];
        memcpy(words, second + 16, sizeof words);
        if (request == kPartitions32) {
            EXPECT_EQ(words[0], kSize);
            EXPECT_EQ(words[1], 2 * kBlock);
            EXPECT_EQ(words[2], 0x1001u);
            EXPECT_EQ(words[3], 0xA000u);
            EXPECT_EQ(second[32], 9);
        } else {
            EXPECT_EQ(words[0], kSize);
            EXPECT_EQ(words[2], 2 * kBlock);
            EXPECT_EQ(second[32] | second[33] << 8, 0x1001);
            EXPECT_EQ(second[41], 0xA0);
            EXPECT_EQ(second[48], 9);
        }
        EXPECT_EQ(records[2 * record_bytes], 0xEE);
    }
    EXPECT_EQ(ops().ioctl(fd, kPartitions64, nullptr), -EFAULT);
    uint64_t total = 0;
    EXPECT_EQ(ops().ioctl(fd, 0xC0045802, &total), 0);
    EXPECT_EQ(total, uint64_t{10} * kBlock);
    uint32_t start = 0;
    EXPECT_EQ(ops().ioctl(fd, 0xC0045801, &start), -ENOTTY) << "where the board does not say";
}

// ---- the environment that boards come with ----

Content read_partition(Board &board, const char *node, size_t bytes) {
    Content content;
    for (size_t at = 0; at < bytes; at += 0x10000) {
        const Answer answer = board.poke(0, node, {"read", std::to_string(at), "0x10000"});
        content.insert(content.end(), answer.data.begin(), answer.data.end());
    }
    return content;
}

// The whole block with its CRC, or nothing.
std::string environment_in(const Content &block) {
    uint32_t crc = 0;
    memcpy(&crc, block.data(), 4);
    if (crc != ::crc32(0, block.data() + 4, static_cast<uInt>(block.size() - 4))) return "wrong CRC";
    std::string text(block.begin() + 4, block.end());
    return text.substr(0, text.find(std::string("\0\0", 2)) + 1);
}

TEST(EnvironmentModel, StandsWhereTheBoardKeepsIt) {
    const struct {
        const char *board;
        const char *node;
        size_t at;
        size_t bytes;
        bool reversed;
    } cases[] = {
        {"nor", "/dev/mtd/1", 0, 0x20000, false},
        {"nand-backup", "/dev/mtd/1", 0x20000, 0x20000, false},  // block 0 is bad
        {"emmc", "/dev/mmcblk0p2", 0, 0x20000, false},
        {"dome", "/dev/mtd/1", 0, 0x40000, true},
        {"traffic", "/dev/mtd/1", 0, 0x20000, false},
    };
    for (const auto &c : cases) {
        Board board(find_board(c.board));
        Content block = read_partition(board, c.node, c.at + c.bytes);
        ASSERT_EQ(block.size(), c.at + c.bytes) << c.board;
        block.erase(block.begin(), block.begin() + static_cast<ptrdiff_t>(c.at));
        for (size_t i = 0; c.reversed && i < block.size(); i += 4)
            std::reverse(block.begin() + static_cast<ptrdiff_t>(i),
                         block.begin() + static_cast<ptrdiff_t>(i + 4));
        const std::string text = environment_in(block);
        EXPECT_NE(text.find(std::string("bootdelay=3\0", 12)), std::string::npos) << c.board << ": " << text;
        EXPECT_NE(text.find("HWID="), std::string::npos) << c.board;
    }
}

TEST(EnvironmentModel, StepsOverBadBlocksSectionBySection) {
    Board board(
        "name = \"test\"\n[[chip]]\n[chip.flash]\nkind = \"nand\"\nerase_bytes = 0x1000\npage_bytes = 0x200\n"
        "environment_bytes = 0x2000\npartition = [{ name = \"hwid\", size = 0x5000, bad = [0, 2] }]\n"
        "[chip.environment]\na = \"1\"\n");
    const auto part = [&](const char *at) {
        return board.poke(0, "/dev/mtd/0", {"read", at, "0x1000"}).data;
    };
    EXPECT_EQ(part("0"), erased(kBlock));
    EXPECT_EQ(part("0x2000"), erased(kBlock));
    Content block = part("0x1000");
    const Content rest = part("0x3000");
    block.insert(block.end(), rest.begin(), rest.end());
    EXPECT_EQ(environment_in(block), std::string("a=1\0", 4));
}

TEST(FlashDescription, SaysWhatIsWrongWithIt) {
    const struct {
        std::string text;
        const char *says;
    } cases[] = {
        {flash_text("tape"), "kind"},
        {flash_text("nand", ", bad = [8]"), "behind the end"},
        {flash_text("emmc", ", bad = [1]"), "hides its blocks"},
        {flash_text("nand", ", offset = 0x800"), "whole erase blocks"},
        {flash_text("nand", "", "total_bytes = 0x9000"), "do not fit"},
        {flash_text("nand", ", colour = 1"), "not a known key"},
        {flash_text("nand") + "[chip.environment]\na = \"1\"\n", "wants a partition"},
        {"name = \"test\"\n[[chip]]\n[chip.environment]\na = \"1\"\n", "not a known key"},
        {"name = \"test\"\n[[chip]]\n[chip.flash]\nkind = \"nor\"\n", "partition"},
        {"name = \"test\"\n[[chip]]\n[chip.flash]\nkind = \"nor\"\nenvironment_bytes = 64\n"
         "partition = [{ name = \"hwid\", size = 0x10000 }]\n[chip.environment]\na = \"" +
             std::string(60, 'x') + "\"\n",
         "no room"},
    };
    for (const auto &c : cases) {
        try {
            const Board board(c.text);
            ADD_FAILURE() << "was taken: " << c.text;
        } catch (const DescriptionError &error) {
            EXPECT_NE(std::string(error.what()).find(c.says), std::string::npos) << error.what();
        }
    }
}

// ---- maps ----

TEST(FlashMap, ShowsTheStateOfEveryBlock) {
    Medium medium("nand", ", bad = [1], failing = [3]");
    medium.write(0, pattern(kBlock));
    medium.write(4 * kBlock, pattern(kPage));
    const std::string text = medium.board.show(false);
    EXPECT_NE(text.find("      first  ..\n      data   #X.!+...\n"), std::string::npos) << text;
    EXPECT_NE(text.find("one mark: 4 KiB"), std::string::npos);
    EXPECT_NE(medium.board.show(true).find("\"marks\": \"#X.!+...\""), std::string::npos);
    const std::string svg = medium.board.show_svg();
    EXPECT_EQ(svg.rfind("<svg ", 0), 0u);
    for (const char *meaning : {"data: bad", "data: failing", "data: written", "data: partly written"})
        EXPECT_NE(svg.find("<title>" + std::string(meaning) + "</title>"), std::string::npos) << meaning;
}

}  // namespace
}  // namespace qel::test
