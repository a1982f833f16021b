// bench_write.cpp - what a partition write costs against the bare requests of the same work, and what
// the look-up of a good block costs in partitions of different sizes.
//
// The bare requests erase, write and read back the same blocks of a virtual flash within the process.
// Limits: the write keeps 95 % of the bare rate (a ratio of 1.05), the look-up does not depend on the
// partition.
#include <fcntl.h>
#include <unistd.h>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "bench/loaded_library.h"
#include "bench/measure.h"
#include "board/core/board.h"
#include "os/hook.h"
#include "qel/storage.h"

namespace {

using namespace qel::bench;

constexpr uint32_t kMegabyte = 1 << 20;
constexpr uint32_t kPartitionBytes = 16 * kMegabyte;
constexpr int kLookUps = 200000;

constexpr uint32_t kMtdErase = 0x40084D02;

// The library wants one; it closes the list of the flash's partitions.
constexpr const char *kPartitionOfEnvironment = "{ name = \"hwid\", size = 0x100000 }]\n";

// A board with one kind of flash that this process lives on, and the library.
struct Place {
    explicit Place(const std::string &flash)
        : board(
              "name = \"bench\"\n[[chip]]\n[chip.hwid]\nname = \"BX-200\"\n[chip.hwid.properties]\n5 = 3\n"
              "[chip.environment]\nHWID = \"BX-200:01:03:00:00:00\"\n[chip.flash]\n" +
              flash + kPartitionOfEnvironment) {
        board.enter({.chip = 0, .as = "vesta"});
        library.emplace();
    }

    qel::board::Board board;
    std::optional<LoadedLibrary> library;  // goes before the board
};

// ---- partition write ----

struct Medium {
    const char *name;
    const char *kind;
    const char *node;
    uint32_t erase_bytes;  // 0: is not erased
    uint32_t piece_bytes;  // written at once
};

constexpr Medium kMedia[] = {
    {"NOR", "nor", "/dev/mtd/0", 0x10000, 0x10000},
    {"NAND", "nand", "/dev/mtd/0", 0x20000, 0x20000},
    {"MLC NAND", "mlc-nand", "/dev/mtd/0", 0x80000, 0x80000},
    {"eMMC", "emmc", "/dev/mmcblk0p1", 0, kMegabyte},
};

// The same work by bare requests.
class BareFlash {
public:
    explicit BareFlash(const Medium &medium) : medium_(medium), fd_(os_.open(medium.node, O_RDWR, 0)) {
        expect(fd_ >= 0, "opening the flash");
    }
    ~BareFlash() { os_.close(fd_); }
    BareFlash(const BareFlash &) = delete;
    BareFlash &operator=(const BareFlash &) = delete;

    // Its memory comes and goes as the writer's does: the virtual flash shares the heap, and its own
    // speed depends on what else lies there.
    void write(const std::vector<uint8_t> &data) {
        std::vector<uint8_t> back(medium_.piece_bytes);
        const auto piece = static_cast<ssize_t>(medium_.piece_bytes);
        for (size_t at = 0; at < data.size(); at += medium_.piece_bytes) {
            uint32_t area[] = {static_cast<uint32_t>(at), medium_.erase_bytes};
            if (medium_.erase_bytes != 0) expect(os_.ioctl(fd_, kMtdErase, area) == 0, "erase");
            os_.seek(fd_, static_cast<int64_t>(at), SEEK_SET);
            expect(os_.write(fd_, data.data() + at, medium_.piece_bytes) == piece, "write");
            os_.seek(fd_, static_cast<int64_t>(at), SEEK_SET);
            expect(os_.read(fd_, back.data(), medium_.piece_bytes) == piece, "read");
            expect(std::equal(back.begin(), back.end(), data.begin() + static_cast<ptrdiff_t>(at)),
                   "compare");
        }
    }

private:
    const qel_os_ops &os_ = *qel_world_hook()->os;
    const Medium &medium_;
    const int fd_;
};

void measure_write(const Medium &medium) {
    const Place place("kind = \"" + std::string(medium.kind) + "\"\npartition = [{ name = \"user\", size = " +
                      std::to_string(kPartitionBytes) + " },\n");
    RawFlash *flash = nullptr;
    expect(CALL(*place.library, createRawFlashLocal)(&flash) == 0, "the flash object");
    std::vector<uint8_t> data(kPartitionBytes);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i * 7 + (i >> 12));
    BareFlash bare(medium);
    const Rounds found = measure(
        [&] { expect(flash->writePartition(flash, "user", data.data(), kPartitionBytes) == 0, "the write"); },
        [&] { bare.write(data); }, 1);
    constexpr double kMegabytes = kPartitionBytes / kMegabyte;
    printf("| partition write, %s, per MiB | %.0f us | bare erase, write and read back | %.0f us | %.2f |\n",
           medium.name, found.cost_us() / kMegabytes, found.with_cost_us() / kMegabytes, found.ratio());
    fflush(stdout);
    flash->release(flash);
}

// ---- look-up ----

void measure_look_up() {
    constexpr uint32_t kErase = 0x4000;
    constexpr uint32_t kFew = 16;
    constexpr uint32_t kMany = 8192;
    const Place place(
        "kind = \"nand\"\nerase_bytes = 0x4000\npage_bytes = 512\npartition = [\n"
        "{ name = \"few\", size = 0x40000, bad = [3] },\n"
        "{ name = \"many\", size = 0x8000000, bad = [3, 4000] },\n");
    auto *const open = CALL(*place.library, QEL_flashOpenPartion);
    auto *const create = CALL(*place.library, Flash_createPartionTab);
    auto *const look_up = CALL(*place.library, Flash_LookupTab);
    int few = -1;
    int many = -1;
    int fd = -1;
    expect(open("few", &fd, &few) == 0 && create(fd, few) == 0, "the table of the small partition");
    expect(open("many", &fd, &many) == 0 && create(fd, many) == 0, "the table of the large partition");
    const auto last_block_of = [&](int partition, uint32_t blocks) {
        uint64_t place_of_block = 0;
        for (int i = 0; i < kLookUps; ++i) {
            const uint64_t offset = uint64_t{kErase} * (blocks - 3);
            expect(look_up(offset, &place_of_block, partition) == 0, "the look-up");
        }
    };
    const Rounds found = measure([&] { last_block_of(many, kMany); }, [&] { last_block_of(few, kFew); }, 1);
    printf("| look-up of a good block among %u | %.3f us | among %u | %.3f us | %.2f |\n", kMany,
           found.cost_us() / kLookUps, kFew, found.with_cost_us() / kLookUps, found.ratio());
}

}  // namespace

int main() {
    for (const Medium &medium : kMedia) measure_write(medium);
    measure_look_up();
    return 0;
}
