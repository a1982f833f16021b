// The partition writer where the flash lets it down: blocks that are bad, that go bad, that answer what
// was not written, and the power that goes in the middle.
#include <sys/wait.h>

#include "tests/storage/rawflash_bench.h"
#include "tests/support/scratch.h"

namespace qel::test {
namespace {

constexpr size_t kBlock = 0x1000;  // of kNand
constexpr const char *kTargetNode = "/dev/mtd/1";

// ---- bad blocks ----

struct BadBlocks {
    const char *name;
    std::vector<uint32_t> from_factory;
    std::vector<uint32_t> going_bad;  // found when they are erased
    std::string fault;                // or while something else happens to them
    std::vector<uint32_t> good;       // where the data ends up, in order
    int marked;                       // how many are bad now that were not before
};

void PrintTo(const BadBlocks &blocks, std::ostream *out) { *out << blocks.name; }

const BadBlocks kBadBlocks[] = {
    {"None", {}, {}, "", {0, 1, 2, 3}, 0},
    {"First", {0}, {}, "", {1, 2, 3, 4}, 0},
    {"InTheMiddle", {1, 2}, {}, "", {0, 3, 4, 5}, 0},
    {"BehindTheData", {11}, {}, "", {0, 1, 2, 3}, 0},
    {"FirstGoesBad", {}, {0}, "", {1, 2, 3, 4}, 1},
    {"OneInTheMiddleGoesBad", {}, {2}, "", {0, 1, 3, 4}, 1},
    {"LastOfTheDataGoesBad", {}, {3}, "", {0, 1, 2, 4}, 1},
    {"TwoAfterEachOtherGoBad", {1}, {2, 3}, "", {0, 4, 5, 6}, 2},
    // Whole pages and the filled-up one are two writes of the last block.
    {"OneCannotBeWritten", {}, {}, "write fail EIO at 2", {0, 2, 3, 4}, 1},
    {"LastPageCannotBeWritten", {}, {}, "write fail EIO at 5", {0, 1, 2, 4}, 1},
    {"OneReadsOtherBits", {}, {}, "read flip 5 at 2", {0, 2, 3, 4}, 1},
    {"OneCannotBeReadBack", {}, {}, "read fail EBADMSG at 3", {0, 1, 3, 4}, 1},
};

class WriterOnNand : public testing::TestWithParam<BadBlocks> {};
INSTANTIATE_TEST_SUITE_P(BadBlocks, WriterOnNand, testing::ValuesIn(kBadBlocks),
                         [](const auto &info) { return std::string(info.param.name); });

TEST_P(WriterOnNand, PutsTheDataIntoGoodBlocks) {
    FlashBench bench(kNand);
    bench.fill({kBefore, kTarget, kBehind});
    for (const uint32_t block : GetParam().from_factory) bench.mark("bad", kTarget, block);
    for (const uint32_t block : GetParam().going_bad) bench.mark("failing", kTarget, block);
    bench.open();
    if (!GetParam().fault.empty()) bench.board.add_fault(kTargetNode + (" " + GetParam().fault));

    const Content old = bench.all(kTarget);
    Content data = pattern(4 * kBlock - 300, 1);  // the last page but half full
    ASSERT_EQ(bench.write_partition(data), 0) << bench.log.all();
    EXPECT_EQ(bench.read(bench.address(kTarget), data.size()), data);

    data.resize(4 * kBlock, 0xFF);
    const Content now = bench.all(kTarget);
    const std::vector<uint32_t> &good = GetParam().good;
    for (uint32_t k = 0; k < good.size(); ++k) {
        EXPECT_EQ(slice(now, good[k] * kBlock, kBlock), slice(data, k * kBlock, kBlock)) << k;
    }
    const auto behind = (good.back() + 1) * kBlock;
    EXPECT_EQ(slice(now, behind, now.size() - behind), slice(old, behind, now.size() - behind));
    for (const uint32_t block : GetParam().from_factory) {
        EXPECT_EQ(slice(now, block * kBlock, kBlock), slice(old, block * kBlock, kBlock));
    }
    EXPECT_TRUE(bench.are_filled({kBefore, kBehind}));

    // A bad block was marked once, and the next object knows of it.
    EXPECT_EQ(bench.log.count("is marked bad"), GetParam().marked);
    bench.board.clear_faults();
    bench.close();
    ASSERT_EQ(CALL(*bench.library, createRawFlashLocal)(&bench.flash), 0);
    EXPECT_EQ(bench.read(bench.address(kTarget), 4 * kBlock), data);
}

TEST(Writer, FillsAPartitionToItsLastGoodBlock) {
    FlashBench bench(kNand, {.of_target = ", bad = [0, 11]"});
    bench.open({kBehind});
    const size_t room = (kBlocks - 2) * kBlock;
    const Content data = pattern(room, 1);
    EXPECT_EQ(bench.write_partition(data), 0);
    EXPECT_EQ(bench.read(bench.address(kTarget), room), data);
    EXPECT_EQ(bench.write_partition(pattern(room + 1, 2)), -1);
    EXPECT_TRUE(bench.log.contains("do not fit into target, which holds 0xa000\n"));
    EXPECT_EQ(bench.read(bench.address(kTarget), room), data) << "nothing was touched";

    // Now the room shrinks while it is filled.
    bench.mark("failing", kTarget, 10);
    EXPECT_EQ(bench.write_partition(data), -1);
    EXPECT_EQ(bench.read(bench.address(kTarget), room - kBlock), slice(data, 0, room - kBlock));
    EXPECT_TRUE(bench.are_filled({kBehind}));
}

TEST(Writer, ErasesPastBlocksThatGoBadAndNoFurtherThanAsked) {
    FlashBench bench(kNand, {.of_target = ", bad = [1], failing = [3]"});
    bench.open({kTarget});
    const Content old = bench.all(kTarget);
    EXPECT_EQ(bench.flash->erase64(bench.flash, bench.address(kTarget, kBlock), 3 * kBlock), 0);
    const Content now = bench.all(kTarget);
    for (uint32_t block = 0; block < kBlocks; ++block) {
        const bool erased = block == 2 || block == 4;
        EXPECT_EQ(slice(now, block * kBlock, kBlock),
                  erased ? Content(kBlock, 0xFF) : slice(old, block * kBlock, kBlock))
            << block;
    }
    EXPECT_EQ(bench.log.count("is marked bad"), 1);
    // As far as good blocks go.
    EXPECT_EQ(bench.flash->erase64(bench.flash, bench.address(kTarget), bench.part_bytes()), 0);
    EXPECT_EQ(bench.bytes(kTarget, 11 * kBlock, kBlock), Content(kBlock, 0xFF));
}

TEST(Writer, GivesUpWhereTheBlocksAreNotToBlame) {
    const std::pair<const char *, int> cases[] = {
        {" ioctl:MEMERASE fail EIO", 8},    // as many blocks do not fail at once
        {" ioctl:MEMERASE fail EROFS", 0},  // the driver refuses
        {" write fail EACCES", 0},         {" read fail ENODEV", 0},
        {" seek fail EINVAL", 0},          {" ioctl:MEMSETBADBLOCK fail EROFS", 0},
        {" open fail EMFILE", 0},
    };
    for (const auto &[fault, marked] : cases) {
        FlashBench bench(kNand);
        bench.fill({kBefore, kBehind});
        bench.mark("failing", kTarget, 1);
        bench.open();
        bench.board.add_fault(std::string(kTargetNode) + fault);
        EXPECT_EQ(bench.write_partition(pattern(3 * kBlock, 1)), -1) << fault;
        EXPECT_EQ(bench.log.count("is marked bad"), marked) << fault;
        EXPECT_TRUE(bench.are_filled({kBefore, kBehind})) << fault;
    }
}

TEST(Writer, DoesNotStepOverBlocksOfTheFpga) {
    FlashBench bench(kNand);
    bench.fill({kFpgaPart});
    bench.mark("failing", kFpgaPart, 1);
    bench.open();
    EXPECT_EQ(bench.write_partition(pattern(3 * kBlock, 1), "fpga"), -1);
    EXPECT_EQ(bench.bytes(kFpgaPart, 0, kBlock), slice(pattern(3 * kBlock, 1), 0, kBlock));
    EXPECT_EQ(bench.bytes(kFpgaPart, 2 * kBlock, kBlock),
              slice(FlashBench::filling(kFpgaPart, 3 * kBlock), 2 * kBlock, kBlock));
    EXPECT_EQ(bench.log.count("is marked bad"), 0);
}

TEST(Writer, FailsWhereNoOtherBlockCanTakeTheData) {
    for (const auto &[medium, fault] : {std::pair(kNor, " write fail EIO at 1"),
                                        {kNor, " read flip 9 at 1"},
                                        {kEmmc, " write fail EIO at 1"},
                                        {kEmmc, " read flip 9 at 1"}}) {
        FlashBench bench(medium);
        bench.open({kBefore, kBehind});
        bench.board.add_fault(bench.node(kTarget) + fault);
        EXPECT_EQ(bench.write_partition(pattern(100, 1)), -1) << medium.name << fault;
        EXPECT_TRUE(bench.are_filled({kBefore, kBehind}));
        bench.board.clear_faults();
        EXPECT_EQ(bench.write_partition(pattern(100, 1)), 0) << "again";
    }
}

// ---- power cuts ----

struct Upgrade {
    const char *name;
    Medium medium;
    std::vector<uint32_t> failing;
};
void PrintTo(const Upgrade &upgrade, std::ostream *out) { *out << upgrade.name; }

const Upgrade kUpgrades[] = {{"Nor", kNor, {}},
                             {"Nand", kNand, {}},
                             {"NandGoingBad", kNand, {1}},
                             {"Mlc", kMlc, {}},
                             {"Emmc", kEmmc, {}}};

// An upgrade of one partition, cut off at every write of the device, before it and inside it.
class PowerCutOn : public testing::TestWithParam<Upgrade> {
protected:
    const Medium &medium() const { return GetParam().medium; }
    Content data() const { return pattern(medium().erase_bytes + medium().page_bytes + 7, 1); }
    board::Options in(const std::string &folder) const {
        return {.dir = scratch_.path(folder), .time_scale = 1};
    }

    void prepare() {
        const int status = run_in_child([&] {
            FlashBench bench(medium(), {}, in("made"));
            bench.fill({kBefore, kTarget, kBehind, kCopy, kFpgaPart});
            for (const uint32_t block : GetParam().failing) bench.mark("failing", kTarget, block);
            return 0;
        });
        ASSERT_EQ(status, 0);
    }
    // Whether the power went before the upgrade was done.
    bool cut(const std::string &folder, int at, int torn) {
        std::filesystem::copy(scratch_.path("made"), scratch_.path(folder),
                              std::filesystem::copy_options::recursive);
        return run_in_child([&] {
                   FlashBench bench(medium(), {}, in(folder));
                   bench.open();
                   bench.board.add_fault("power-cut at " + std::to_string(at) + " torn " +
                                         std::to_string(torn));
                   EXPECT_EQ(bench.write_partition(data()), 0);
                   bench.close();
                   return 0;
               }) == 128 + SIGKILL;
    }
    // The next start on what is left. 0: it keeps the promise.
    int check(const std::string &folder) {
        return run_in_child([&] {
            FlashBench bench(medium(), {}, in(folder));
            EXPECT_TRUE(bench.are_filled({kBefore, kBehind, kCopy, kFpgaPart}));
            if (GetParam().failing.empty()) check_target(bench);
            bench.open();
            EXPECT_EQ(bench.log.count("ERROR"), 0) << bench.log.all();
            EXPECT_EQ(bench.write_partition(data()), 0) << "the upgrade can be made again";
            EXPECT_EQ(bench.read(bench.address(kTarget), data().size()), data());
            bench.close();
            EXPECT_EQ(CALL(*bench.library, QEL_getUpdateState)(), 0xAA);
            return testing::Test::HasFailure() ? 1 : 0;
        });
    }
    // New up to some block, one block in between, and as it was from there on.
    void check_target(FlashBench &bench) {
        const size_t unit = medium().erase_bytes;
        const Content old = FlashBench::filling(kTarget, bench.part_bytes());
        const Content now = bench.all(kTarget);
        Content written = data();
        written.resize(2 * unit, 0xFF);
        uint32_t block = 0;
        while (block < 2 && slice(now, block * unit, unit) == slice(written, block * unit, unit)) ++block;
        const size_t behind = (block < 2 ? block + 1 : block) * unit;
        if (medium().is_emmc()) return check_emmc_target(now, old, written);
        EXPECT_EQ(slice(now, behind, now.size() - behind), slice(old, behind, now.size() - behind));
    }
    // Bytes as they were behind the data, and each before it new or old.
    void check_emmc_target(const Content &now, const Content &old, const Content &written) {
        const size_t end = data().size() / medium().page_bytes * medium().page_bytes + medium().page_bytes;
        size_t k = 0;
        while (k < end && now[k] == written[k]) ++k;
        EXPECT_EQ(slice(now, k, now.size() - k), slice(old, k, now.size() - k));
    }

    const Scratch scratch_;
};

TEST_P(PowerCutOn, HarmsNothingOutsideThePartition) {
    prepare();
    // Between two writes and inside one; an eMMC has many writes, all alike.
    std::vector<int> torn_at = {static_cast<int>(medium().page_bytes / 2 + 3)};
    if (!medium().is_emmc()) torn_at.push_back(0);
    int tried = 0;
    for (int at = 1; at < 1000; ++at) {
        bool reached = false;
        for (const int torn : torn_at) {
            const std::string folder = std::to_string(at) + "-" + std::to_string(torn);
            reached = cut(folder, at, torn);
            if (reached) {
                ++tried;
                EXPECT_EQ(check(folder), 0) << "cut at write " << at << " torn at " << torn;
            }
            std::filesystem::remove_all(scratch_.path(folder));
        }
        if (!reached) break;
    }
    EXPECT_GT(tried, 2 * 4) << "erases and writes of the upgrade";
    printf("power cuts tried: %d\n", tried);
}

INSTANTIATE_TEST_SUITE_P(Media, PowerCutOn, testing::ValuesIn(kUpgrades),
                         [](const auto &info) { return std::string(info.param.name); });

}  // namespace
}  // namespace qel::test
