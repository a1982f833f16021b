// flash_medium.h - what a flash holds, in two files of the host.
//
// `content` is sparse: it holds every bit turned round, so that what was never written or was erased is
// a hole and takes no room. `blocks` is mapped and tells which pages were written and how each block
// fares. Both always hold the present state: there is nothing to save, a child after fork() shares
// them, and whoever dies loses nothing.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "board/core/device.h"

namespace qel::board {

class FlashMedium {
public:
    struct Shape {
        uint32_t kind;         // FlashKind
        uint32_t erase_bytes;  // 0: it hides its blocks and pages
        uint32_t page_bytes;
        uint64_t total_bytes;
        uint32_t blocks() const {
            return erase_bytes != 0 ? static_cast<uint32_t>(total_bytes / erase_bytes) : 0;
        }
        uint64_t pages() const { return erase_bytes != 0 ? total_bytes / page_bytes : 0; }
    };

    // Opens what the folder holds, or makes it, all erased. Throws std::runtime_error when that is of
    // another shape, std::system_error when the host's file system fails.
    FlashMedium(const std::string &dir, const Shape &shape);
    ~FlashMedium();
    FlashMedium(const FlashMedium &) = delete;
    FlashMedium &operator=(const FlashMedium &) = delete;

    // Until finish_new(): content of the factory is still missing. One that is never finished is made
    // anew the next time.
    bool is_new() const { return is_new_; }
    void finish_new();

    // The caller keeps within the medium. False: the host's file system failed.
    bool read(uint64_t at, std::span<uint8_t> out) const;
    bool write(uint64_t at, Bytes bytes);
    bool erase(uint64_t at, uint64_t bytes);
    // Whether the host has room taken for any of these bytes; true where it cannot tell.
    bool has_content(uint64_t at, uint64_t bytes) const;

    bool is_written(uint64_t page) const { return (page_bits_[page / 8] >> page % 8 & 1) != 0; }
    void set_written(uint64_t page, bool written) {
        const auto bit = static_cast<uint8_t>(1u << page % 8);
        page_bits_[page / 8] =
            static_cast<uint8_t>(written ? page_bits_[page / 8] | bit : page_bits_[page / 8] & ~bit);
    }
    uint32_t erases(uint32_t block) const { return erases_[block]; }
    void count_erase(uint32_t block) { ++erases_[block]; }
    uint8_t marks(uint32_t block) const { return marks_[block]; }
    void set_marks(uint32_t block, uint8_t marks) { marks_[block] = marks; }

private:
    struct Head;
    void open_content(const std::string &path);
    void map_blocks(const std::string &path);
    void start_over();

    Shape shape_;
    int fd_ = -1;
    size_t mapped_bytes_ = 0;
    Head *head_ = nullptr;
    uint32_t *erases_ = nullptr;
    uint8_t *marks_ = nullptr;
    uint8_t *page_bits_ = nullptr;
    bool is_new_ = false;
};

}  // namespace qel::board
