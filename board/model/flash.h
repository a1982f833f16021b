// flash.h - a flash of a board as its drivers see it: what may be written where, and what becomes of it.
//
// Raw flash (NOR, NAND, MLC NAND) is erased by blocks to all ones; writing only turns ones into zeros.
// NAND takes whole pages, each once per erase, and has bad blocks; NOR takes any bytes. An eMMC keeps
// all that to itself and takes anything anywhere. What real hardware would not forgive is done as the
// kernel does it, and reported as a misuse of the device.
//
// To a power cut the unit is what the chip takes at once: a page (of NOR: its buffer), a block erased.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "board/core/device.h"
#include "board/model/flash_medium.h"

namespace qel::board {

// The numbers of the kernel's MTD interface; 5 is nobody's there.
enum class FlashKind : uint8_t { kNor = 3, kNand = 4, kEmmc = 5, kMlcNand = 8 };

struct FlashPartition {
    std::string name;
    uint64_t offset;
    uint64_t size;
    uint64_t backup_offset;  // UINT64_MAX: none
    uint32_t type;
    uint8_t flag;
    std::string node;
};

class Flash {
public:
    struct Geometry {
        FlashKind kind;
        uint32_t erase_bytes;  // of an eMMC: what its map shows as one block
        uint32_t page_bytes;   // what is written at once; NOR: its buffer, eMMC: its sector
        uint32_t oob_bytes;
        uint64_t total_bytes;
        uint32_t endurance;  // erases a block stands, 0 = any number
    };

    // Kept in `dir` of the host; throws as FlashMedium.
    Flash(const std::string &dir, const Geometry &geometry, std::vector<FlashPartition> partitions);

    const Geometry &geometry() const { return geometry_; }
    const std::vector<FlashPartition> &partitions() const { return partitions_; }
    bool is_nand() const {
        return geometry_.kind == FlashKind::kNand || geometry_.kind == FlashKind::kMlcNand;
    }
    bool is_emmc() const { return geometry_.kind == FlashKind::kEmmc; }

    // ---- what drivers do. Addresses count from the start of the flash, the caller keeps within it;
    // `by` is the device asked. 0 or -errno. ----
    int read(uint64_t at, std::span<uint8_t> out) const;
    int write(Device &by, uint64_t at, Bytes bytes);     // NAND: whole pages
    int erase(Device &by, uint64_t at, uint64_t bytes);  // whole blocks; up to the first that fails
    bool is_bad(uint64_t at) const { return has_mark(block_of(at), kBad); }
    int mark_bad(Device &by, uint64_t at);

    // ---- what the factory, tests and people do ----
    bool is_new() const { return medium_.is_new(); }
    void finish_new() { medium_.finish_new(); }
    // Puts bytes there whatever was there; pages left all ones count as not written.
    int put(uint64_t at, Bytes bytes);
    enum Mark : uint8_t { kBad = 1, kFailing = 2 };  // kFailing: good so far, the next erase or write fails
    void set_mark(uint64_t at, Mark mark, bool on);
    bool has_mark(uint32_t block, Mark mark) const { return (marks(block) & mark) != 0; }
    uint32_t blocks() const { return shape_.blocks(); }
    uint32_t erases(uint32_t block) const { return medium_.erases(block); }
    uint32_t block_of(uint64_t at) const { return static_cast<uint32_t>(at / geometry_.erase_bytes); }
    // How much of these bytes was written since the last erase, in pages; of an eMMC 1 if any.
    uint64_t written_pages(uint64_t at, uint64_t bytes) const;
    uint64_t page_writes() const { return page_writes_; }

private:
    uint8_t marks(uint32_t block) const { return shape_.blocks() != 0 ? medium_.marks(block) : uint8_t{0}; }
    std::string place(uint64_t at) const;
    bool any_written(uint64_t at, size_t bytes) const;
    void accuse(Device &by, uint64_t at, Bytes bytes, Bytes old) const;
    size_t program(Device &by, uint64_t at, size_t bytes);
    int erase_block(Device &by, uint32_t block);

    Geometry geometry_;
    std::vector<FlashPartition> partitions_;
    FlashMedium::Shape shape_;
    FlashMedium medium_;
    uint64_t page_writes_ = 0;
};

}  // namespace qel::board
