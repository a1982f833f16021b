// eefs_layout.h - the EEPROM file system as it lies on the chip, and what may be believed of it.
// Pure code: bytes in, values out.
//
// A head of 120 bytes, usually at address 0, then the files one after another: a header of 56 bytes
// and the room for its data. All words are little-endian.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

#include "qel/eeprom.h"

namespace qel::eefs {

static_assert(std::endian::native == std::endian::little,
              "the layouts below are used as they lie on the chip");

constexpr uint32_t kMagic = 0xDEEF5123;
constexpr uint32_t kVersion = 1;
constexpr uint32_t kFiles = EEFS_MAX_FILES;
// A file too many can still be made; writing its entry damages the first file's header.
constexpr uint32_t kTableFiles = kFiles + 1;
constexpr uint32_t kNoAddress = 0xFFFFFFFF;

struct Entry {
    uint32_t reserved;
    uint32_t header_offset;  // from the head
    uint32_t allocated_bytes;
};
static_assert(sizeof(Entry) == 12);

struct Head {
    uint32_t reserved;
    uint32_t magic;
    uint32_t version;
    uint32_t free_offset;  // from the head; in a fresh one the address itself (the same at address 0)
    uint32_t free_bytes;
    uint32_t count;
    Entry entries[kFiles];
};
constexpr uint32_t kHeadBytes = 120;
constexpr uint32_t kHeadStartBytes = 24;  // up to the entries
static_assert(sizeof(Head) == kHeadBytes && offsetof(Head, entries) == kHeadStartBytes);
static_assert(offsetof(Head, free_offset) == 12);

struct FileHeader {
    uint32_t reserved;
    uint32_t in_use;
    uint32_t bytes;
    uint32_t changed_s;  // seconds since 1970
    char name[EEFS_NAME_BYTES];
};
constexpr uint32_t kHeaderBytes = 56;
static_assert(sizeof(FileHeader) == kHeaderBytes && offsetof(FileHeader, name) == 16);

// Least free space for a new file: its header and one byte.
constexpr uint32_t kLeastFreeBytes = kHeaderBytes + 1;

// A head in absolute addresses. What a file's entry says lies inside the chip, between the files
// before and behind it; an entry that cannot be so has header_address kNoAddress.
struct Table {
    struct File {
        uint32_t header_address;
        uint32_t allocated_bytes;
    };
    uint32_t head_address;
    uint32_t free_address;
    uint32_t free_bytes;
    uint32_t count;
    File files[kTableFiles];
};

bool head_is_valid(const Head &head);
Head empty_head(uint32_t address, uint32_t capacity_bytes);

// What a valid head at `address` says, put right where it points outside a chip of that capacity, at
// other files' bytes, or claims more free space than there is. *sound: nothing had to be.
Table table_of(const Head &head, uint32_t address, uint32_t capacity_bytes, bool *sound);

// Where a head is looked for when there is none at `address`.
uint64_t next_slot(uint32_t address, uint32_t page_bytes);
// A page size of 0 counts as 1.
uint64_t round_up(uint64_t bytes, uint32_t page_bytes);

// The room a new file is given when it is closed with `bytes` in it; `free_bytes` with its header.
uint32_t allocation_for(uint32_t bytes, uint32_t free_bytes);

// 1 to 39 characters.
bool is_name(const char *name);
FileHeader new_header(const char *name, uint32_t now_s);
bool has_name(const FileHeader &header, const char *name);
void copy_name(const FileHeader &header, char out[EEFS_NAME_BYTES]);

}  // namespace qel::eefs
