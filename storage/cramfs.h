// cramfs.h - reads one file out of the root folder of a cramfs image.
//
// Pure: takes the bytes of the image, believes none of the lengths and offsets in them.
#pragma once

#include <cstdint>
#include <span>

namespace qel::cramfs {

using Bytes = std::span<const uint8_t>;

// The image, found by its magic at byte 0 or 512.
struct Image {
    Bytes bytes;        // what offsets inside the image count in
    uint64_t root = 0;  // offset of the root folder's entries
    uint32_t root_bytes = 0;
};

struct File {
    uint64_t offset = 0;  // of its block pointers
    uint32_t bytes = 0;
};

enum class Result {
    kOk,
    kNotCramfs,  // no magic, or no root folder behind it
    kNotFound,   // no regular file of that name
    kTooLong,    // the file does not fit into the buffer
    kDamaged,    // lengths or offsets point outside, or a block does not inflate
};
const char *describe(Result result);

Result open(Bytes image, Image *out);
Result find(const Image &image, const char *name, File *out);
Result read(const Image &image, const File &file, std::span<uint8_t> out);

}  // namespace qel::cramfs
