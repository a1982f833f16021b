// flag_pages.h - the pages of the partition "updateflag": read, written once per erase, erased.
//
// Every operation on flags is one of five: read or write a byte, read or write the start of a page,
// erase a block. All take the flash lock, open and close the partition, and return 0 at once on a
// device that has none; a byte that cannot be read is left alone.
#pragma once

#include <cstdint>

namespace qel::flag_pages {

struct Place {
    uint32_t block;
    uint32_t page;
};

enum class Kind { kFlag, kPage, kCrc, kCryptoUpgrade };

// For whom: the name and the words of the log.
struct Operation {
    const char *function;
    Kind kind = Kind::kFlag;
    const char *prefix = "";  // before each message
};

// Bytes of a flag page on this flash, 0 on a medium without pages.
uint32_t page_bytes();

int read_byte(const Operation &operation, Place place, uint32_t byte, uint8_t *out);
int write_byte(const Operation &operation, Place place, uint32_t byte, uint8_t value);
int read_start(const Operation &operation, Place place, void *out, uint32_t length);
int write_start(const Operation &operation, Place place, const void *bytes, uint32_t length);
int erase(const Operation &operation, uint32_t block);

}  // namespace qel::flag_pages
