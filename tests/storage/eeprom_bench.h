// eeprom_bench.h - a board with EEPROM chips, the library on it, and what the EEPROM tests look at.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "board/core/board.h"
#include "qel/qel.h"
#include "tests/support/library.h"

namespace qel::test {

using Bytes = std::vector<uint8_t>;

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

// The board's EEPROM chips, entered by this process, with the library loaded.
class EepromBench {
public:
    explicit EepromBench(const std::string &description, const board::Options &options = {})
        : board(description, options) {
        board.enter({.chip = 0, .as = "vesta"});
        library.emplace();
        log.clear();
    }
    ~EepromBench() {
        library.reset();
        EXPECT_EQ(board.take_misuses(), std::vector<std::string>());
        board.leave();
    }

    static std::string node(unsigned chip) {
        return "/dev/qecEEPROM" + (chip == 0 ? "" : std::to_string(chip));
    }

    // Straight from the chip and to it, past its driver.
    Bytes bytes(uint32_t address, uint32_t count, unsigned chip = 0) {
        const board::Answer answer =
            board.poke(0, node(chip), {"read", std::to_string(address), std::to_string(count)});
        EXPECT_EQ(answer.value, 0);
        return answer.data;
    }
    uint32_t word(uint32_t address, unsigned chip = 0) {
        const Bytes raw = bytes(address, 4, chip);
        return raw[0] | raw[1] << 8 | raw[2] << 16 | uint32_t{raw[3]} << 24;
    }
    void set_bytes(uint32_t address, const Bytes &bytes, unsigned chip = 0) {
        std::string hex;
        for (const uint8_t byte : bytes) {
            char pair[3];
            snprintf(pair, sizeof(pair), "%02x", byte);
            hex += pair;
        }
        EXPECT_EQ(board.poke(0, node(chip), {"write", std::to_string(address), hex}).value, 0);
    }
    void set_words(uint32_t address, const std::vector<uint32_t> &words, unsigned chip = 0) {
        Bytes raw;
        for (const uint32_t value : words) {
            for (int shift = 0; shift < 32; shift += 8) raw.push_back(static_cast<uint8_t>(value >> shift));
        }
        set_bytes(address, raw, chip);
    }

    board::Board board;
    Log log;
    std::optional<Library> library;
};

// `count` bytes that differ from file to file and from byte to byte.
inline Bytes pattern(size_t count, unsigned seed) {
    Bytes out(count);
    for (size_t i = 0; i < count; ++i)
        out[i] = static_cast<uint8_t>(size_t{37} * seed + i * 11 + i / 256 + 1);
    return out;
}

}  // namespace qel::test
