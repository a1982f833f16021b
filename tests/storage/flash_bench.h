// flash_bench.h - boards for the tests of the flash modules, and the library on them.
#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "board/core/board.h"
#include "board/core/chip.h"
#include "qel/qel.h"
#include "tests/storage/flash_double.h"
#include "tests/support/library.h"

namespace qel::test {

struct Part {
    const char *name;
    const char *keys = "";  // further lines of its table
};

inline std::string flash_board(const std::string &flash, const std::vector<Part> &parts,
                               const std::string &properties = "5 = 3\n") {
    add_flash_double();
    std::string text =
        "name = \"bench\"\n[[chip]]\n[chip.hwid]\nname = \"BX-200\"\n[chip.hwid.properties]\n" + properties +
        "[chip.channel_map]\nchannel = [{ logical = 0 }]\n[chip.test_flash]\n" + flash;
    for (const Part &part : parts) {
        text += "\n[[chip.test_flash.partition]]\nname = \"" + std::string(part.name) + "\"\n" + part.keys;
    }
    return text + "\n";
}

// A board that this process lives on.
class Place {
public:
    explicit Place(const std::string &description) : board(description) {
        board.enter({.chip = 0, .as = "vesta"});
    }
    ~Place() {
        EXPECT_EQ(board.take_misuses(), std::vector<std::string>{});
        board.leave();
    }
    std::string host_path(const std::string &path) {
        std::string host;
        EXPECT_EQ(board.chip(0).tree().resolve(path, true, host), 0);
        return host;
    }
    std::string file(const std::string &path) {
        std::ifstream in(host_path(path), std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }
    void put_file(const std::string &path, const std::string &content) {
        std::ofstream(host_path(path), std::ios::binary) << content;
    }
    int byte_at(const std::string &node, uint64_t offset) {
        return static_cast<int>(board.poke(0, node, {"get", std::to_string(offset)}).value);
    }
    void set_byte(const std::string &node, uint64_t offset, int value) {
        board.poke(0, node, {"set", std::to_string(offset), std::to_string(value)});
    }

    board::Board board;
    Log log;
};

// The same with the library loaded.
class Unit : public Place {
public:
    explicit Unit(const std::string &description, const std::vector<std::string> &faults = {})
        : Place(description) {
        for (const std::string &fault : faults) board.add_fault(fault);
        load();
    }
    ~Unit() { library.reset(); }
    void load() { library.emplace(); }
    void reload() {
        library.reset();
        log.clear();
        load();
    }
    std::optional<Library> library;
};

#define UNIT_CALL(unit, name) CALL(*(unit).library, name)

}  // namespace qel::test
