// eeprom_bench.h - a board with EEPROM chips, the library on it, and what the EEPROM tests look at.
#pragma once

#include "tests/support/unit.h"

namespace qel::test {

constexpr uint32_t kHead = 120;   // bytes of the file system's head
constexpr uint32_t kHeader = 56;  // of a file's header
constexpr uint32_t kMagic = 0xDEEF5123;

inline std::string eeprom_table(unsigned page_bytes, unsigned capacity_bytes) {
    return "[[chip.eeprom]]\npage_bytes = " + std::to_string(page_bytes) +
           "\ncapacity_bytes = " + std::to_string(capacity_bytes) + "\nwords = [7, 8]\n";
}

inline std::string eeprom_board(const std::string &tables, const std::string &misc = "") {
    return "name = \"bench\"\n[[chip]]\n[chip.hwid]\nname = \"BX-200\"\n[chip.misc]\n" + misc + "\n" + tables;
}

// The board's EEPROM chips, with the library loaded.
class EepromBench : public Unit {
public:
    explicit EepromBench(const std::string &description) : Unit(description) { log.clear(); }

    static std::string node(unsigned chip) {
        return "/dev/qecEEPROM" + (chip == 0 ? "" : std::to_string(chip));
    }
    Bytes bytes(uint32_t address, uint32_t count, unsigned chip = 0) {
        return Place::bytes(node(chip), address, count);
    }
    uint32_t word(uint32_t address, unsigned chip = 0) {
        const Bytes raw = bytes(address, 4, chip);
        return raw[0] | raw[1] << 8 | raw[2] << 16 | uint32_t{raw[3]} << 24;
    }
    void set_words(uint32_t address, const std::vector<uint32_t> &words, unsigned chip = 0) {
        Bytes raw;
        for (const uint32_t value : words) {
            for (int shift = 0; shift < 32; shift += 8) raw.push_back(static_cast<uint8_t>(value >> shift));
        }
        put_bytes(node(chip), address, raw);
    }
};

}  // namespace qel::test
