// eeprom_store.h - whole files into and out of the EEPROM file system.
#pragma once

#include <cstdint>

#include "storage/eefs.h"

namespace qel::eeprom {

// Stores a file under `name`, in place or with all files laid out anew.
int store_file(eefs::Operation &op, const char *name, const void *buffer, uint32_t bytes);
// The two ways, chosen by the caller. What is not stored completely is not stored at all; an existing
// file may then hold a part of the new bytes (in place) or be gone (laid out anew).
int store_in_place(eefs::Operation &op, const char *name, const void *buffer, uint32_t bytes);
int store_anew(eefs::Operation &op, const char *name, const void *buffer, uint32_t bytes);

// Copies the nth file into a directory of the host.
int export_file(eefs::Operation &op, uint32_t n, const char *directory);
int export_all(eefs::Operation &op, const char *directory);

}  // namespace qel::eeprom
