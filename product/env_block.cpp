#include "product/env_block.h"

#include <zlib.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <utility>

#include "qel/storage.h"

namespace qel::environment {

namespace {

constexpr uint64_t kUsualBytes = 0x20000;
constexpr uint64_t kWholePartition = 0;
constexpr int kReversedBoardType = 18;
constexpr char kErasedCharacter = '\xFF';

// Numbers below 128.
class Numbers {
public:
    constexpr Numbers(std::initializer_list<int> numbers) {
        for (const int number : numbers) words_[number / 64] |= uint64_t{1} << (number % 64);
    }
    constexpr bool holds(int number) const {
        return number >= 0 && number < 128 && (words_[number / 64] >> (number % 64) & 1) != 0;
    }
    constexpr bool is_empty() const { return words_[0] == 0 && words_[1] == 0; }

private:
    uint64_t words_[2] = {};
};

struct SizeRule {
    Numbers categories;   // none: any
    Numbers board_types;  // likewise
    uint64_t bytes;

    constexpr bool fits(int category, int board_type) const {
        return (categories.is_empty() || categories.holds(category)) &&
               (board_types.is_empty() || board_types.holds(board_type));
    }
};

// On NOR flash. The last rule that fits counts.
constexpr SizeRule kNorSizes[] = {
    {{}, {}, kUsualBytes},
    {{2, 3}, {}, 0x40000},
    {{}, {15, 16, 22, 24, 25, 32, 33, 37, 41}, 0x20000},
    {{4}, {5}, 0x4000},
    {{},
     {14, 17, 18, 19, 23, 26, 28, 29, 30, 31, 35, 40, 42, 43,
      44, 45, 48, 52, 56, 57, 58, 59, 60, 61, 63, 64, 65},
     kWholePartition},
};

// Goes from entry to entry; stops in front of the list's end or of what has no end.
class Walk {
public:
    explicit Walk(ConstBlock block)
        : block_(block), at_(kCrcBytes < block.size() ? kCrcBytes : block.size()) {}

    bool next() {
        at_ += length_;
        const size_t left = block_.size() - at_;
        const void *const end = left > 0 ? memchr(block_.data() + at_, '\0', left) : nullptr;
        length_ =
            end != nullptr ? static_cast<size_t>(static_cast<const uint8_t *>(end) - block_.data()) - at_ : 0;
        if (length_ == 0) return false;
        ++length_;
        return true;
    }
    size_t at() const { return at_; }
    size_t length() const { return length_; }  // with the terminator
    const char *text() const { return reinterpret_cast<const char *>(block_.data()) + at_; }
    bool is(const char *name, size_t name_length) const {
        return length_ > name_length && text()[name_length] == '=' && memcmp(text(), name, name_length) == 0;
    }

    // Flash whose power went while it was erased: what follows is what is left of a parameter.
    bool is_erased() const { return text()[0] == kErasedCharacter; }

private:
    ConstBlock block_;
    size_t at_;
    size_t length_ = 0;
};

}  // namespace

uint64_t block_bytes(const Place &place) {
    switch (place.flash_type) {
        case QEL_FLASH_NAND:
        case QEL_FLASH_MLC_NAND:
        case QEL_FLASH_EMMC:
            return kUsualBytes;
        case QEL_FLASH_NOR:
            break;
        default:
            return 0;
    }
    uint64_t bytes = kUsualBytes;
    for (const SizeRule &rule : kNorSizes) {
        if (rule.fits(place.category, place.board_type)) bytes = rule.bytes;
    }
    return bytes != kWholePartition ? bytes : place.partition_bytes;
}

bool has_reversed_words(const Place &place) {
    return place.flash_type == QEL_FLASH_NOR && place.board_type == kReversedBoardType;
}

void reverse_words(Block block) {
    for (size_t at = 0; at + 4 <= block.size(); at += 4) {
        std::swap(block[at], block[at + 3]);
        std::swap(block[at + 1], block[at + 2]);
    }
}

Value find(ConstBlock block, const char *name) {
    if (!is_name(name)) return {};
    const size_t name_length = strlen(name);
    for (Walk walk(block); walk.next();) {
        if (!walk.is(name, name_length)) continue;
        return {walk.text() + name_length + 1, walk.length() - name_length - 2};
    }
    return {};
}

bool is_name(const char *name) {
    return name[0] != '\0' && name[0] != kErasedCharacter && strchr(name, '=') == nullptr;
}

ListEnd find_end(ConstBlock block) {
    Walk walk(block);
    while (walk.next()) {
    }
    return {walk.at(), walk.at() < block.size() && block[walk.at()] == 0};
}

void remove(Block block, const char *name) {
    const size_t name_length = strlen(name);
    size_t kept = kCrcBytes;
    for (Walk walk(block); walk.next();) {
        if (walk.is(name, name_length) || walk.is_erased()) continue;
        // Never in front of where the walk is: it goes on behind what was moved.
        memmove(block.data() + kept, block.data() + walk.at(), walk.length());
        kept += walk.length();
    }
    memset(block.data() + kept, 0, block.size() - kept);
}

bool append(Block block, const char *name, const char *value) {
    const size_t in_use = bytes_in_use(block);
    const size_t name_length = strlen(name);
    const size_t value_length = strlen(value);
    const size_t entry_bytes = name_length + value_length + 2;  // with "=" and a terminator
    const Block free = block.subspan(kCrcBytes + in_use);
    if (entry_bytes + 1 > free.size()) return false;
    snprintf(reinterpret_cast<char *>(free.data()), entry_bytes, "%s=%s", name, value);
    memset(free.data() + entry_bytes, 0, free.size() - entry_bytes);
    return true;
}

uint32_t crc_of(ConstBlock block) {
    const ConstBlock content = block.subspan(kCrcBytes);
    return static_cast<uint32_t>(crc32(0, content.data(), static_cast<uInt>(content.size())));
}

void store_crc(Block block) {
    const uint32_t crc = crc_of(block);
    for (size_t i = 0; i < kCrcBytes; ++i) block[i] = static_cast<uint8_t>(crc >> 8 * i);
}

void parse_mac(const char *text, uint8_t (&mac)[kMacBytes]) {
    for (uint8_t &byte : mac) {
        char *end = nullptr;
        byte = static_cast<uint8_t>(strtoul(text, &end, 16));
        text = *end != '\0' ? end + 1 : end;
    }
}

}  // namespace qel::environment
