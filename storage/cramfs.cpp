// cramfs.cpp - the layout of a cramfs image, little-endian, blocks of 4096 bytes deflated by zlib.
#include "storage/cramfs.h"

#include <zlib.h>
#include <algorithm>
#include <cstring>

namespace qel::cramfs {

namespace {

constexpr uint32_t kMagic = 0x28CD3D45;
constexpr uint64_t kPaddedStart = 512;  // room for a boot loader in front
constexpr uint32_t kSuperBytes = 76;    // with the root folder's inode at its end
constexpr uint32_t kRootInode = 64;
constexpr uint32_t kInodeBytes = 12;
constexpr uint32_t kBlockBytes = 4096;
constexpr uint32_t kModeType = 0170000;
constexpr uint32_t kModeFolder = 0040000;
constexpr uint32_t kModeFile = 0100000;

// A block pointer: where the block ends, or with kDirect where it starts, in words.
constexpr uint32_t kPlain = 1u << 31;
constexpr uint32_t kDirect = 1u << 30;
constexpr uint32_t kPointerFlags = kPlain | kDirect;

bool inside(Bytes image, uint64_t offset, uint64_t bytes) {
    return offset <= image.size() && bytes <= image.size() - offset;
}

uint32_t load(Bytes image, uint64_t offset, unsigned bytes) {
    uint32_t value = 0;
    for (unsigned i = 0; i < bytes; ++i) value |= uint32_t{image[offset + i]} << (8 * i);
    return value;
}

struct Inode {
    uint32_t mode;
    uint32_t bytes;
    uint32_t name_bytes;
    uint64_t offset;
};

Inode load_inode(Bytes image, uint64_t offset) {
    const uint32_t last = load(image, offset + 8, 4);
    return {load(image, offset, 2), load(image, offset + 4, 3), (last & 0x3F) * 4, uint64_t{last >> 6} * 4};
}

struct Block {
    uint64_t start = 0;
    uint64_t bytes = 0;  // 0: a hole
    bool plain = false;
};

// Where the data of a direct block lies; its length stands before it unless it is plain.
Result direct_block(Bytes image, uint32_t pointer, uint32_t content_bytes, Block *out) {
    const uint64_t start = uint64_t{pointer & ~kPointerFlags} * 4;
    out->plain = (pointer & kPlain) != 0;
    if (out->plain) {
        out->start = start;
        out->bytes = content_bytes;
        return Result::kOk;
    }
    if (!inside(image, start, 2)) return Result::kDamaged;
    out->start = start + 2;
    out->bytes = load(image, start, 2);
    return Result::kOk;
}

// Block `index` of a file with `count` blocks, which holds `content_bytes` of it.
Result locate_block(Bytes image, const File &file, uint32_t index, uint32_t count, uint32_t content_bytes,
                    Block *out) {
    const uint64_t at = file.offset + uint64_t{index} * 4;
    const uint32_t pointer = load(image, at, 4);
    if ((pointer & kDirect) != 0) return direct_block(image, pointer, content_bytes, out);
    out->plain = (pointer & kPlain) != 0;
    out->start = file.offset + uint64_t{count} * 4;
    if (index > 0) {
        const uint32_t previous = load(image, at - 4, 4);
        Block before;
        if ((previous & kDirect) == 0) {
            out->start = previous & ~kPointerFlags;
        } else if (direct_block(image, previous, kBlockBytes, &before) == Result::kOk) {
            out->start = before.start + before.bytes;
        } else {
            return Result::kDamaged;
        }
    }
    const uint64_t end = pointer & ~kPointerFlags;
    if (end < out->start) return Result::kDamaged;
    out->bytes = end - out->start;
    return Result::kOk;
}

Result expand(Bytes image, const Block &block, std::span<uint8_t> out) {
    if (block.bytes == 0) {
        std::fill(out.begin(), out.end(), uint8_t{0});
        return Result::kOk;
    }
    if (!inside(image, block.start, block.bytes)) return Result::kDamaged;
    const Bytes data = image.subspan(block.start, block.bytes);
    if (block.plain) {
        if (data.size() < out.size()) return Result::kDamaged;
        std::copy_n(data.begin(), out.size(), out.begin());
        return Result::kOk;
    }
    uLongf expanded = out.size();
    const int status = uncompress(out.data(), &expanded, data.data(), data.size());
    return status == Z_OK && expanded == out.size() ? Result::kOk : Result::kDamaged;
}

Result open_at(Bytes image, uint64_t super, Image *out) {
    if (!inside(image, super, kSuperBytes) || load(image, super, 4) != kMagic) return Result::kNotCramfs;
    const Inode root = load_inode(image, super + kRootInode);
    if ((root.mode & kModeType) != kModeFolder) return Result::kDamaged;
    // Offsets count from the start of the padding where the image was made with it, and from the
    // magic where 512 bytes were put in front later.
    const bool put_in_front = super != 0 && root.offset == kSuperBytes;
    out->bytes = image.subspan(put_in_front ? super : 0);
    out->root = root.offset;
    out->root_bytes = root.bytes;
    return inside(out->bytes, out->root, out->root_bytes) ? Result::kOk : Result::kDamaged;
}

bool same_name(Bytes padded, const char *name) {
    const size_t length = strlen(name);
    return length <= padded.size() && memcmp(padded.data(), name, length) == 0 &&
           std::all_of(padded.begin() + static_cast<ptrdiff_t>(length), padded.end(),
                       [](uint8_t byte) { return byte == 0; });
}

}  // namespace

const char *describe(Result result) {
    switch (result) {
        case Result::kOk:
            return "ok";
        case Result::kNotCramfs:
            return "not a cramfs image";
        case Result::kNotFound:
            return "no such file in the image";
        case Result::kTooLong:
            return "the file is too long";
        case Result::kDamaged:
            break;
    }
    return "the image is damaged";
}

Result open(Bytes image, Image *out) {
    const Result first = open_at(image, 0, out);
    return first == Result::kNotCramfs ? open_at(image, kPaddedStart, out) : first;
}

Result find(const Image &image, const char *name, File *out) {
    const uint64_t end = image.root + image.root_bytes;
    uint64_t at = image.root;
    while (at + kInodeBytes <= end) {
        const Inode inode = load_inode(image.bytes, at);
        at += kInodeBytes;
        if (inode.name_bytes == 0 || inode.name_bytes > end - at) return Result::kDamaged;
        if ((inode.mode & kModeType) == kModeFile &&
            same_name(image.bytes.subspan(at, inode.name_bytes), name)) {
            *out = {inode.offset, inode.bytes};
            return Result::kOk;
        }
        at += inode.name_bytes;
    }
    return Result::kNotFound;
}

Result read(const Image &image, const File &file, std::span<uint8_t> out) {
    if (file.bytes > out.size()) return Result::kTooLong;
    const uint32_t count = (file.bytes + kBlockBytes - 1) / kBlockBytes;
    if (!inside(image.bytes, file.offset, uint64_t{count} * 4)) return Result::kDamaged;
    for (uint32_t index = 0; index < count; ++index) {
        const uint32_t done = index * kBlockBytes;
        const uint32_t content_bytes = std::min(kBlockBytes, file.bytes - done);
        Block block;
        Result result = locate_block(image.bytes, file, index, count, content_bytes, &block);
        if (result == Result::kOk) result = expand(image.bytes, block, out.subspan(done, content_bytes));
        if (result != Result::kOk) return result;
    }
    return Result::kOk;
}

}  // namespace qel::cramfs
