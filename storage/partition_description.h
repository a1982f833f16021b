// partition_description.h - the partition description file of an upgrade image: text to records.
//
//     # name, cs, offset, size, mask_flags[, fs_flags, fs_type, fs_mountcmd, backup offset]
//     kernel, 0, 0x00200000, 0x00300000, R, , , , 0x01200000
//     END
//
// Pure but for the log, where each fault of the text is named.
#pragma once

#include <cstdint>

#include "qel/storage.h"

namespace qel::description {

constexpr uint32_t kMaxLineBytes = 4096;  // of a joined line; one so long is refused
constexpr uint32_t kMinLineBytes = 32;    // a shorter one ends the table
constexpr uint32_t kMaxMountCommandBytes = 1024;
constexpr uint32_t kMaskReadOnly = 1024;
constexpr uint32_t kFirstVersion = 1;  // ends after mask_flags
constexpr uint32_t kLastVersion = 3;

char *next_line(char **text);
int parse(char *text, uint32_t version, PartitionDescription *out, uint32_t *count);
int parse_line(char *line, uint32_t version, PartitionDescription *out);

}  // namespace qel::description
