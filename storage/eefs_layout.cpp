#include "storage/eefs_layout.h"

#include <algorithm>
#include <cstring>

namespace qel::eefs {

namespace {

constexpr uint32_t kSlackBytes = 16;  // a file may grow by so much where it stands
constexpr uint32_t kAllocationStep = 4;

uint32_t end_of(const Table::File &file) { return file.header_address + kHeaderBytes + file.allocated_bytes; }

// The file of an entry, cut at the end of the chip; header_address kNoAddress unless its header lies
// behind `least_address` and on the chip.
Table::File file_of(const Entry &entry, uint32_t head_address, uint64_t least_address,
                    uint32_t capacity_bytes) {
    const uint64_t header = uint64_t{head_address} + entry.header_offset;
    if (header < least_address || header + kHeaderBytes > capacity_bytes) return {kNoAddress, 0};
    const auto room_bytes = static_cast<uint32_t>(capacity_bytes - header - kHeaderBytes);
    return {static_cast<uint32_t>(header), std::min(entry.allocated_bytes, room_bytes)};
}

}  // namespace

bool head_is_valid(const Head &head) {
    return head.magic == kMagic && head.version == kVersion && head.count <= kFiles;
}

Head empty_head(uint32_t address, uint32_t capacity_bytes) {
    Head head{};
    head.magic = kMagic;
    head.version = kVersion;
    head.free_offset = address + kHeadBytes;
    head.free_bytes = capacity_bytes - head.free_offset;
    return head;
}

Table table_of(const Head &head, uint32_t address, uint32_t capacity_bytes, bool *sound) {
    *sound = true;
    Table table{};
    table.head_address = address;
    table.count = head.count;
    uint64_t end = uint64_t{address} + kHeadBytes;
    Table::File *last = nullptr;
    for (uint32_t i = 0; i < head.count; ++i) {
        Table::File &file = table.files[i];
        const uint64_t least = last == nullptr ? end : uint64_t{last->header_address} + kHeaderBytes;
        file = file_of(head.entries[i], address, least, capacity_bytes);
        if (file.header_address == kNoAddress || file.allocated_bytes != head.entries[i].allocated_bytes)
            *sound = false;
        if (file.header_address == kNoAddress) continue;
        if (last != nullptr && end_of(*last) > file.header_address) {
            last->allocated_bytes = file.header_address - last->header_address - kHeaderBytes;
            *sound = false;
        }
        last = &file;
        end = end_of(file);
    }
    const uint64_t free = std::clamp(uint64_t{address} + head.free_offset,
                                     std::min<uint64_t>(end, capacity_bytes), uint64_t{capacity_bytes});
    table.free_address = static_cast<uint32_t>(free);
    table.free_bytes = std::min(head.free_bytes, capacity_bytes - table.free_address);
    if (free != uint64_t{address} + head.free_offset || table.free_bytes != head.free_bytes) *sound = false;
    return table;
}

uint64_t round_up(uint64_t bytes, uint32_t page_bytes) {
    const uint64_t page = std::max(page_bytes, 1u);
    return (bytes + page - 1) / page * page;
}

uint64_t next_slot(uint32_t address, uint32_t page_bytes) {
    return round_up(uint64_t{address} + kHeadBytes, page_bytes);
}

uint32_t allocation_for(uint32_t bytes, uint32_t free_bytes) {
    if (free_bytes < kHeaderBytes) return 0;
    const uint64_t wanted =
        (uint64_t{bytes} + kSlackBytes + kAllocationStep - 1) / kAllocationStep * kAllocationStep;
    return static_cast<uint32_t>(std::min<uint64_t>(wanted, free_bytes - kHeaderBytes));
}

bool is_name(const char *name) {
    return name != nullptr && name[0] != '\0' && strnlen(name, EEFS_NAME_BYTES) < EEFS_NAME_BYTES;
}

FileHeader new_header(const char *name, uint32_t now_s) {
    FileHeader header{};
    header.in_use = 1;
    header.changed_s = now_s;
    memcpy(header.name, name, strnlen(name, EEFS_NAME_BYTES - 1));
    return header;
}

bool has_name(const FileHeader &header, const char *name) {
    return strncmp(header.name, name, EEFS_NAME_BYTES) == 0;
}

void copy_name(const FileHeader &header, char out[EEFS_NAME_BYTES]) {
    memcpy(out, header.name, EEFS_NAME_BYTES);
    out[EEFS_NAME_BYTES - 1] = '\0';
}

}  // namespace qel::eefs
