// eeprom_map.h - what an EEPROM holds, for people: its file system's files and a map of its bytes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "board/core/device.h"
#include "board/core/report.h"

namespace qel::board {

struct EepromFile {
    std::string name;
    uint32_t header_address;
    uint32_t bytes;
    uint32_t room_bytes;
    uint32_t changed_s;  // since 1970
    bool in_use;
    bool on_chip;  // false: its entry points outside the chip, the rest is not known
};

struct EepromFiles {
    bool found = false;  // a head at its first or second place
    uint32_t head_address = 0;
    uint32_t free_address = 0;
    uint32_t free_bytes = 0;
    std::vector<EepromFile> files;
};

EepromFiles read_eeprom_files(Bytes chip, uint32_t page_bytes);

// Rows of 64 marks with the address in front: H head, a to i the files (capital: header), - free,
// # bytes in use by nobody, . erased or zero and in use by nobody.
CellMap eeprom_map(Bytes chip, const EepromFiles &files);

}  // namespace qel::board
