// flash_table.h - partitions and geometry of the flash as plain values.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "qel/storage.h"
#include "tools/qelctl/library.h"

namespace qelctl {

// The table of this chip; empty where the library could not read one.
std::vector<FlashPartition> read_partitions(const Library &library);
bool has_partition(const Library &library, const std::string &name);
// Its place in the table. Throws Failure(kFailed) with the names that there are.
int find_partition(const std::vector<FlashPartition> &partitions, const std::string &name);
bool has_backup(const FlashPartition &partition);
// Throws Failure(kFailed) where the library has none.
FlashInfo read_flash_info(const Library &library);
const char *flash_type_name(uint32_t type);

// Offsets in the partition, in units of the erase size. On media without bad blocks all of them.
struct BlockList {
    std::vector<uint64_t> good;
    std::vector<uint64_t> bad;
};
BlockList read_blocks(const Library &library, const FlashInfo &info, const FlashPartition &partition);

}  // namespace qelctl
