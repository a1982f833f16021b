#include "tools/qelctl/environment_block.h"

#include <zlib.h>
#include <algorithm>
#include <cstring>
#include <map>

namespace qelctl {

namespace {

constexpr uint32_t kCrcBytes = 4;
constexpr size_t kUsualBytes = 0x20000;
constexpr size_t kFurtherSizes[] = {0x40000, 0x4000};  // beside these: the whole partition

uint32_t block_word(const std::vector<uint8_t> &content) {
    return content[0] | content[1] << 8 | content[2] << 16 | uint32_t{content[3]} << 24;
}

uint32_t block_crc(const std::vector<uint8_t> &content, size_t size_bytes) {
    return static_cast<uint32_t>(
        crc32(0, content.data() + kCrcBytes, static_cast<uInt>(size_bytes - kCrcBytes)));
}

std::vector<size_t> possible_sizes(size_t content_bytes) {
    std::vector<size_t> sizes = {std::min(kUsualBytes, content_bytes)};
    for (const size_t size : kFurtherSizes) {
        if (size < content_bytes) sizes.push_back(size);
    }
    sizes.push_back(content_bytes);
    return sizes;
}

std::vector<uint8_t> reversed_words(std::vector<uint8_t> content) {
    for (size_t at = 0; at + 4 <= content.size(); at += 4)
        std::reverse(content.begin() + static_cast<ptrdiff_t>(at),
                     content.begin() + static_cast<ptrdiff_t>(at + 4));
    return content;
}

// 0: no size makes the check sum right.
size_t size_with_right_crc(const std::vector<uint8_t> &content) {
    for (const size_t size : possible_sizes(content.size())) {
        if (block_crc(content, size) == block_word(content)) return size;
    }
    return 0;
}

void read_entries(const std::vector<uint8_t> &content, EnvironmentBlock &block) {
    const char *at = reinterpret_cast<const char *>(content.data()) + kCrcBytes;
    const char *const end = reinterpret_cast<const char *>(content.data()) + block.size_bytes;
    std::map<std::string, int> seen;
    while (at < end && *at != '\0') {
        const std::string entry(at, strnlen(at, static_cast<size_t>(end - at)));
        at += entry.size() + 1;
        const size_t equals = entry.find('=');
        if (equals == std::string::npos) {
            block.nameless.push_back(entry);
            continue;
        }
        const std::string name = entry.substr(0, equals);
        block.parameters.emplace_back(name, entry.substr(equals + 1));
        if (++seen[name] == 2) block.duplicates.push_back(name);
    }
    block.ended = at < end;
    const char *const start = reinterpret_cast<const char *>(content.data()) + kCrcBytes;
    block.used_bytes = static_cast<uint32_t>(std::min(at, end) - start);
    block.free_bytes = block.size_bytes - kCrcBytes - block.used_bytes;
}

}  // namespace

EnvironmentBlock parse_environment(const std::vector<uint8_t> &content) {
    EnvironmentBlock block{};
    if (content.size() <= kCrcBytes) return block;
    const std::vector<uint8_t> reversed = reversed_words(content);
    size_t size = size_with_right_crc(content);
    if (size == 0) {
        size = size_with_right_crc(reversed);
        block.other_byte_order = size != 0;
    }
    if (size == 0) size = possible_sizes(content.size()).front();
    const std::vector<uint8_t> &ordered = block.other_byte_order ? reversed : content;
    block.size_bytes = static_cast<uint32_t>(size);
    block.stored_crc = block_word(ordered);
    block.computed_crc = block_crc(ordered, size);
    read_entries(ordered, block);
    return block;
}

}  // namespace qelctl
