// rawflash_bench.h - small boards with flash of every kind, and raw flash objects on them.
#pragma once

#include <algorithm>
#include <ostream>

#include "tests/support/unit.h"

namespace qel::test {

using Content = Bytes;

struct Medium {
    const char *name;
    const char *kind;
    uint32_t erase_bytes;
    uint32_t page_bytes;
    uint32_t start_bytes;  // where writes may start
    uint32_t end_bytes;    // what they are filled up to
    bool is_nand() const { return std::string(kind).ends_with("nand"); }
    bool is_emmc() const { return std::string(kind) == "emmc"; }
};
inline void PrintTo(const Medium &medium, std::ostream *out) { *out << medium.name; }

constexpr Medium kNor = {"nor", "nor", 0x1000, 0x100, 0x1000, 1};
constexpr Medium kNand = {"nand", "nand", 0x1000, 0x200, 0x1000, 0x200};
constexpr Medium kMlc = {"mlc", "mlc-nand", 0x4000, 0x1000, 0x4000, 0x1000};
constexpr Medium kEmmc = {"emmc", "emmc", 0x4000, 0x200, 0x200, 0x200};
constexpr Medium kMedia[] = {kNor, kNand, kMlc, kEmmc};

// The partitions of these boards, all of kBlocks blocks.
constexpr uint32_t kBlocks = 12;
enum Part { kBefore, kTarget, kBehind, kCopy, kFlags, kFpgaPart, kParts };

struct BoardKeys {
    std::string of_target{};  // further keys of its table: ", bad = [1]"
    bool has_flags = true;
    std::string more_partitions{};
};

inline std::string raw_board(const Medium &medium, const BoardKeys &keys = {}) {
    const uint64_t bytes = uint64_t{kBlocks} * medium.erase_bytes;
    const auto part = [&](const std::string &name, const std::string &more = "") {
        return "{ name = \"" + name + "\", size = " + std::to_string(bytes) + more + " },\n";
    };
    return "name = \"bench\"\n[[chip]]\n[chip.hwid]\nname = \"BX-200\"\n[chip.hwid.properties]\n5 = 3\n"
           "[chip.misc]\n[chip.channel_map]\nchannel = [{ logical = 0 }]\n[chip.flash]\nkind = \"" +
           std::string(medium.kind) + "\"\nerase_bytes = " + std::to_string(medium.erase_bytes) +
           "\npage_bytes = " + std::to_string(medium.page_bytes) +
           "\nfpga_start = " + std::to_string(16 * bytes) + "\npartition = [\n" + part("before") +
           part("target", ", backup = " + std::to_string(3 * bytes) + keys.of_target) + part("behind") +
           part("copy") + part(keys.has_flags ? "updateflag" : "plain") + part("fpga") +
           keys.more_partitions + "]\n";
}

// A board that this process lives on, the library and one raw flash object.
class FlashBench : public Place {
public:
    explicit FlashBench(const Medium &on, const BoardKeys &keys = {}, const board::Options &options = {})
        : Place(raw_board(on, keys), "vesta", options), medium(on) {}
    ~FlashBench() {
        close();
        library.reset();
    }
    // Fills those partitions, loads the library and makes an object over this chip's flash.
    void open(const std::vector<int> &parts_to_fill = {}) {
        fill(parts_to_fill);
        library.emplace();
        EXPECT_EQ(CALL(*library, createRawFlashLocal)(&flash), 0);
    }
    void close() {
        if (flash != nullptr) {
            EXPECT_EQ(flash->release(flash), 0);
        }
        flash = nullptr;
    }

    uint64_t part_bytes() const { return uint64_t{kBlocks} * medium.erase_bytes; }
    uint64_t address(int part, uint64_t offset = 0) const { return part * part_bytes() + offset; }
    uint64_t fpga_start() const { return 16 * part_bytes(); }
    std::string node(int part) const {
        return medium.is_emmc() ? "/dev/mmcblk0p" + std::to_string(part + 1)
                                : "/dev/mtd/" + std::to_string(part);
    }

    Content bytes(int part, uint64_t offset, uint64_t count) {
        return Place::bytes(node(part), offset, count);
    }
    Content all(int part) { return bytes(part, 0, part_bytes()); }
    static Content filling(int part, uint64_t count) {
        return pattern(count, 100 + static_cast<unsigned>(part));
    }
    void fill(const std::vector<int> &parts) {
        for (const int part : parts) put_bytes(node(part), 0, filling(part, part_bytes()));
    }
    bool are_filled(const std::vector<int> &parts) {
        return std::all_of(parts.begin(), parts.end(),
                           [this](int part) { return all(part) == filling(part, part_bytes()); });
    }
    void mark(const char *how, int part, uint32_t block) {
        EXPECT_EQ(board.poke(0, node(part), {how, std::to_string(block)}).value, 0);
    }
    int write_partition(const Content &data, const char *name = "target") {
        return flash->writePartition(flash, name, data.data(), static_cast<uint32_t>(data.size()));
    }
    int write(uint64_t at, const Content &data) {
        return flash->write64(flash, at, data.data(), static_cast<uint32_t>(data.size()));
    }
    // What an address holds, through the object.
    Content read(uint64_t at, size_t count) {
        Content out(count, 0xEE);
        EXPECT_EQ(flash->read64(flash, at, out.data(), static_cast<uint32_t>(count)), 0);
        return out;
    }

    const Medium medium;
    std::optional<Library> library;
    RawFlash *flash = nullptr;
};

}  // namespace qel::test
