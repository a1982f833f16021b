// flash_description.h - the partition description as upgrades bring it: found in an image, taken over.
#pragma once

#include <cstdint>

#include "qel/storage.h"

namespace qel::flash {

// Room for the description of as many partitions; an earlier one goes. 0 or -1.
int allocate_description(uint32_t partitions);
void free_description();

// The partition writer, as the raw flash object offers it: writes at an address that counts from the
// start of the flash. 0 or negative. (rawflash.cpp)
int write_through(RawFlash *flash, uint64_t address, const void *data, uint32_t bytes);

}  // namespace qel::flash
