// The raw flash object over this chip's flash: what it promises on every medium.
#include <algorithm>
#include <thread>

#include "platform/include/osa.h"
#include "tests/storage/cramfs_image.h"
#include "tests/storage/rawflash_bench.h"

namespace qel::test {
namespace {

class RawFlashOn : public testing::TestWithParam<Medium> {};
INSTANTIATE_TEST_SUITE_P(Media, RawFlashOn, testing::ValuesIn(kMedia),
                         [](const auto &info) { return std::string(info.param.name); });

uint64_t rounded_up(uint64_t bytes, uint64_t unit) { return (bytes + unit - 1) / unit * unit; }

// What a partition holds that held `old` before `data` was written at `offset`.
Content expected(const Medium &medium, Content old, const Content &data, uint64_t offset) {
    const uint64_t end = offset + data.size();
    const uint64_t touched =
        medium.is_emmc() ? rounded_up(end, medium.end_bytes) : rounded_up(end, medium.erase_bytes);
    std::fill_n(old.begin() + static_cast<ptrdiff_t>(offset), touched - offset, uint8_t{0xFF});
    std::copy(data.begin(), data.end(), old.begin() + static_cast<ptrdiff_t>(offset));
    return old;
}

TEST_P(RawFlashOn, WritesItsPartitionAndNothingElse) {
    const size_t block = GetParam().erase_bytes;
    const std::pair<uint64_t, size_t> cases[] = {{0, 1},
                                                 {0, block},
                                                 {0, 3 * block - 1},
                                                 {block, 2 * block + 3},
                                                 {0, kBlocks * block},
                                                 {(kBlocks - 1) * block, block - 1}};
    FlashBench bench(GetParam());
    bench.open({kBefore, kTarget, kBehind, kCopy});
    Content content = bench.all(kTarget);
    unsigned seed = 0;
    for (const auto &[offset, bytes] : cases) {
        const Content data = pattern(bytes, ++seed);
        ASSERT_EQ(bench.write(bench.address(kTarget, offset), data), 0);
        content = expected(GetParam(), content, data, offset);
        EXPECT_EQ(bench.all(kTarget), content) << bytes << " bytes at " << offset;
        EXPECT_EQ(bench.read(bench.address(kTarget, offset), bytes), data);
    }
    EXPECT_TRUE(bench.are_filled({kBefore, kBehind, kCopy}));
    EXPECT_EQ(bench.log.count("ERROR"), 0) << bench.log.all();
}

TEST_P(RawFlashOn, ErasesBlocks) {
    const size_t block = GetParam().erase_bytes;
    FlashBench bench(GetParam());
    bench.open({kBefore, kTarget, kBehind});
    Content content = bench.all(kTarget);
    RawFlash *const flash = bench.flash;
    EXPECT_EQ(flash->erase(flash, static_cast<uint32_t>(bench.address(kTarget, block)), 2 * block), 0);
    std::fill_n(content.begin() + block, 2 * block, uint8_t{0xFF});
    EXPECT_EQ(bench.all(kTarget), content);
    EXPECT_EQ(flash->erase64(flash, bench.address(kTarget), bench.part_bytes()), 0);
    EXPECT_EQ(bench.all(kTarget), Content(bench.part_bytes(), 0xFF));
    EXPECT_TRUE(bench.are_filled({kBefore, kBehind}));
}

TEST_P(RawFlashOn, ReadsAnyBytes) {
    FlashBench bench(GetParam());
    bench.open({kTarget});
    const Content content = bench.all(kTarget);
    const uint64_t size = bench.part_bytes();
    for (const auto &[offset, count] : {std::pair<uint64_t, size_t>(0, size), {size - 1, 1}, {777, size / 6}})
        EXPECT_EQ(bench.read(bench.address(kTarget, offset), count), slice(content, offset, count));
}

TEST_P(RawFlashOn, RefusesWhatDoesNotFitBeforeItTouchesAnything) {
    FlashBench bench(GetParam());
    bench.open({kBefore, kTarget, kBehind});
    RawFlash *const flash = bench.flash;
    const size_t block = GetParam().erase_bytes;
    const auto size = static_cast<uint32_t>(bench.part_bytes());
    Content data = pattern(size + 1, 1);
    const uint64_t target = bench.address(kTarget);
    const uint64_t nowhere = bench.fpga_start() - 1;
    const int answers[] = {bench.write_partition(data),
                           bench.write_partition({1}, "nobody"),
                           flash->writePartition(flash, nullptr, data.data(), 1),
                           flash->writePartition(flash, "target", nullptr, 1),
                           bench.write(target + 1, {1}),
                           bench.write(target + block, Content(size - block + 1)),
                           bench.write(nowhere, {1}),
                           flash->erase64(flash, target + 1, block),
                           flash->erase64(flash, target, block - 1),
                           flash->erase64(flash, target, size + uint64_t{block}),
                           flash->erase64(flash, target + block, UINT64_MAX - block + 1),
                           flash->read64(flash, target + 1, data.data(), size),
                           flash->read64(flash, nowhere, data.data(), 1),
                           flash->read64(flash, target, nullptr, 1),
                           CALL(*bench.library, Flash_abort)(flash)};  // of another kind of object
    for (const int &answer : answers) EXPECT_EQ(answer, -1) << "number " << &answer - answers;
    EXPECT_TRUE(bench.are_filled({kBefore, kTarget, kBehind}));
    EXPECT_EQ(bench.all(kFlags), Content(bench.part_bytes(), 0xFF)) << "no marks either";
}

struct Progress {
    std::vector<uint64_t> done;
    uint64_t total = 0;
    void (*then)(void *) = nullptr;
    void *argument = nullptr;

    void follow(RawFlash *flash) { *flash->info = {flash->info->references, 1, take, this}; }
    static void take(void *context, uint64_t done, uint64_t total) {
        auto &self = *static_cast<Progress *>(context);
        self.done.push_back(done);
        self.total = total;
        if (self.then != nullptr) self.then(self.argument);
    }
};

TEST_P(RawFlashOn, EndsBetweenPiecesWhenAnotherThreadAborts) {
    // An eMMC is written by the MiB and has to be larger for that.
    Medium medium = GetParam();
    if (medium.is_emmc()) medium.erase_bytes = 0x40000;
    const size_t piece = medium.is_emmc() ? 1 << 20 : medium.erase_bytes;
    FlashBench bench(medium);
    bench.open();
    Content data = pattern(2 * piece, 7);
    EXPECT_EQ(bench.write_partition(data), 0);
    Progress progress;
    progress.follow(bench.flash);
    progress.argument = bench.flash;
    progress.then = [](void *flash) {
        std::thread([flash] {
            auto *const object = static_cast<RawFlash *>(flash);
            EXPECT_EQ(object->abort(object), 0);
        }).join();
    };
    const Content old = slice(data, piece, piece);
    data = pattern(2 * piece, 1);
    EXPECT_EQ(bench.write_partition(data), -1);
    EXPECT_EQ(progress.done, (std::vector<uint64_t>{piece}));
    EXPECT_TRUE(bench.bytes(kTarget, 0, piece) == slice(data, 0, piece));
    EXPECT_TRUE(bench.bytes(kTarget, piece, piece) == old);
    EXPECT_EQ(bench.flash->erase64(bench.flash, bench.address(kTarget), bench.part_bytes()), -1);
    EXPECT_EQ(bench.log.count("aborted\n"), 2);

    progress.then = nullptr;  // the next request is not concerned, nor one after an abort of nothing
    EXPECT_EQ(bench.flash->abort(bench.flash), 0);
    EXPECT_EQ(bench.write_partition(data), 0);
    EXPECT_EQ(bench.read(bench.address(kTarget), data.size()), data);
}

TEST_P(RawFlashOn, HoldsTheFlashLockWhileItWorks) {
    FlashBench bench(GetParam());
    bench.open();
    int key = 0;
    OSA_IpcSem others = nullptr;
    ASSERT_EQ(OSA_ipcMakeKey("/var/tmp/flashkey", 3, &key), 0);
    ASSERT_EQ(OSA_ipcSemOpen(&others, key, 0, 1, 1), 0);
    Progress progress;
    progress.follow(bench.flash);
    progress.argument = others;
    progress.then = [](void *semaphore) {
        EXPECT_NE(OSA_ipcSemLock(static_cast<OSA_IpcSem>(semaphore), 0), 0);
    };
    Content data = pattern(100, 1);
    EXPECT_EQ(bench.write_partition(data), 0);
    EXPECT_EQ(bench.read(bench.address(kTarget), 100), data);
    EXPECT_EQ(bench.flash->erase64(bench.flash, bench.address(kTarget), GetParam().erase_bytes), 0);
    EXPECT_EQ(progress.done.size(), 3u);
    EXPECT_EQ(OSA_ipcSemLock(others, 0), 0) << "given back";
    EXPECT_EQ(OSA_ipcSemUnlock(others), 0);
    OSA_ipcSemClose(&others);
}

TEST_P(RawFlashOn, KeepsTheAreaOfTheFpgaApart) {
    FlashBench bench(GetParam());
    bench.open({kFlags});
    const Content data = pattern(2 * size_t{GetParam().erase_bytes}, 3);
    EXPECT_EQ(bench.write(bench.fpga_start(), data), 0);
    EXPECT_EQ(bench.bytes(kFpgaPart, 0, data.size()), data);
    const size_t block = GetParam().erase_bytes;
    EXPECT_EQ(bench.read(bench.fpga_start() + block, 10), slice(data, block, 10));
    EXPECT_EQ(bench.write(bench.fpga_start() + bench.part_bytes(), {0}), -1);
    EXPECT_TRUE(bench.are_filled({kFlags}));
}

TEST_P(RawFlashOn, SendsAddressesWhereTheMapSays) {
    FlashBench bench(GetParam());
    bench.open();
    RawFlash *const flash = bench.flash;
    const uint64_t size = bench.part_bytes();
    const RawFlashMap map[] = {{bench.address(kTarget), bench.address(kCopy), size}, {7, 0x100, 1}};
    EXPECT_EQ(flash->setPartitionMap(flash, map, 2), 0);
    uint64_t address = 0;
    EXPECT_EQ(flash->getPartitionMapedAddr(flash, bench.address(kTarget) + 5, &address), 0);
    EXPECT_EQ(address, bench.address(kCopy) + 5);
    EXPECT_EQ(flash->getPartitionMapedAddr(flash, bench.address(kBehind), &address), 0);
    EXPECT_EQ(address, bench.address(kBehind));
    const Content data = pattern(100, 4);
    EXPECT_EQ(bench.write(bench.address(kTarget), data), 0);
    EXPECT_EQ(bench.bytes(kCopy, 0, 100), data);
    EXPECT_EQ(bench.read(bench.address(kTarget), 100), data);
    EXPECT_EQ(bench.all(kTarget), Content(size, 0xFF));
    Content buffer(16);
    EXPECT_EQ(flash->read64(flash, bench.address(kTarget) - 8, buffer.data(), 16), -1) << "over its edge";

    const RawFlashMap overlapping[] = {{0, 100, 10}, {9, 200, 10}};
    const RawFlashMap empty = {0, 100, 0};
    EXPECT_EQ(flash->setPartitionMap(flash, overlapping, 2), -1);
    EXPECT_EQ(flash->setPartitionMap(flash, &empty, 1), -1);
    EXPECT_EQ(flash->setPartitionMap(flash, nullptr, 0), 0);
    EXPECT_EQ(flash->getPartitionMapedAddr(flash, bench.address(kTarget), &address), 0);
    EXPECT_EQ(address, bench.address(kTarget));
}

TEST_P(RawFlashOn, MarksTheUpgradeAndItsEnd) {
    FlashBench bench(GetParam());
    bench.open();
    const uint64_t page = GetParam().is_emmc() ? 512 : GetParam().is_nand() ? GetParam().page_bytes : 64;
    const auto marks = [&] {
        return std::pair(bench.bytes(kFlags, 0, 1)[0], bench.bytes(kFlags, page, 1)[0]);
    };
    EXPECT_EQ(bench.write_partition(pattern(10, 1), "behind"), 0);
    EXPECT_EQ(marks(), (std::pair<uint8_t, uint8_t>(0xFF, 0xFF))) << "has no backup copy";
    EXPECT_EQ(CALL(*bench.library, QEL_checkUpgradeMap)(), 1);
    EXPECT_EQ(bench.write_partition(pattern(10, 1)), 0);
    EXPECT_EQ(marks(), (std::pair<uint8_t, uint8_t>(0x55, 0xFF)));
    bench.close();
    EXPECT_EQ(marks(), (std::pair<uint8_t, uint8_t>(0x55, 0xAA)));
    EXPECT_EQ(CALL(*bench.library, QEL_checkUpgradeMap)(), 0);

    EXPECT_EQ(CALL(*bench.library, QEL_gotoStateWaitbackup)(), 0);
    EXPECT_EQ(CALL(*bench.library, createRawFlashLocal)(&bench.flash), 0);
    bench.fill({kTarget});
    EXPECT_EQ(bench.write_partition(pattern(10, 1)), -1);
    EXPECT_TRUE(bench.are_filled({kTarget})) << "has to wait";
}

TEST(RawFlashAddress, BelongsToTheSmallestPartitionThatHoldsIt) {
    BoardKeys keys;
    keys.more_partitions =
        "{ name = \"all\", offset = 0, size = " + std::to_string(6 * kBlocks * kNand.erase_bytes) + " }";
    FlashBench bench(kNand, keys);
    bench.mark("bad", kBefore, 0);  // moves what "all" has behind it
    bench.open();
    const Content data = pattern(100, 1);
    EXPECT_EQ(bench.write(bench.address(kTarget), data), 0);
    EXPECT_EQ(bench.bytes(kTarget, 0, 100), data);
}

TEST(RawFlashDescription, IsBroughtToTheOtherCopy) {
    FlashBench bench(kNor);
    bench.open({kTarget});
    const ImageFolder folder;  // of kNor: the places of "target" and "copy"
    folder.put("partitionV3.txt", "partition, 0, 0x0000c000, 0x0000c000, R, , , , 0x00024000\n");
    const Content image = folder.make();
    const auto bytes = static_cast<uint32_t>(image.size());
    EXPECT_EQ(CALL(*bench.library, Flash_flushPart)(nullptr, image.data(), bytes), -1);
    EXPECT_EQ(CALL(*bench.library, Flash_flushPart)(bench.flash, image.data(), bytes), 0) << bench.log.all();
    EXPECT_EQ(bench.bytes(kCopy, 0, bytes), image);
    EXPECT_TRUE(bench.are_filled({kTarget}));
}

TEST(RawFlashReferences, KeepTheObjectUntilTheLastGoes) {
    FlashBench bench(kNand, {.has_flags = false});
    bench.open();
    RawFlash *const flash = bench.flash;
    EXPECT_EQ(flash->addRef(flash), 0);
    EXPECT_EQ(flash->info->references, 2);
    EXPECT_EQ(flash->release(flash), 0);
    EXPECT_EQ(bench.write_partition(pattern(10, 1)), 0);
    EXPECT_EQ(CALL(*bench.library, QEL_checkUpgradeMap)(), 1);
    RawFlash *second = nullptr;
    EXPECT_EQ(CALL(*bench.library, createRawFlashLocal)(&second), 0);
    bench.close();
    EXPECT_EQ(CALL(*bench.library, QEL_checkUpgradeMap)(), 1) << "another object is at work";
    EXPECT_EQ(second->release(second), 0);
    EXPECT_EQ(CALL(*bench.library, QEL_checkUpgradeMap)(), 0);
}

TEST(RawFlashReferences, AreNotGivenWithoutFlash) {
    const Unit unit("name = \"bare\"\n[[chip]]\n[chip.hwid]\nname = \"BX-200\"\n");
    RawFlash *flash = nullptr;
    EXPECT_EQ(UNIT_CALL(unit, createRawFlashLocal)(&flash), -1);
    EXPECT_EQ(UNIT_CALL(unit, createRawFlash)(&flash), -1);
    EXPECT_EQ(flash, nullptr);
}

}  // namespace
}  // namespace qel::test
