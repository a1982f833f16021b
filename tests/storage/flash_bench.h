// flash_bench.h - boards for the tests of the flash modules, and the library on them.
#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "board/core/board.h"
#include "board/core/chip.h"
#include "board/core/errors.h"
#include "qel/qel.h"
#include "tests/support/library.h"

namespace qel::test {

struct Part {
    const char *name;
    std::string keys = {};  // further lines of its table; 64 KiB long unless they say so
};

constexpr const char *kSmallNand = "kind = 'nand'\nerase_bytes = 0x4000\npage_bytes = 0x200\n";

inline std::string flash_board(const std::string &flash, const std::vector<Part> &parts,
                               const std::string &properties = "5 = 3\n") {
    const std::string medium = flash.find("kind = ") == std::string::npos ? kSmallNand : "";
    std::string text =
        "name = \"bench\"\n[[chip]]\n[chip.hwid]\nname = \"BX-200\"\n[chip.hwid.properties]\n" + properties +
        "[chip.channel_map]\nchannel = [{ logical = 0 }]\n[chip.flash]\n" + medium + flash;
    for (const Part &part : parts) {
        const bool has_size = part.keys.find("size = ") != std::string::npos;
        text += "\n[[chip.flash.partition]]\nname = \"" + std::string(part.name) + "\"\n" +
                (has_size ? "" : "size = 0x10000\n") + part.keys;
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
        const auto answer = board.poke(0, node, {"read", std::to_string(offset), "1"});
        return answer.value == 1 ? answer.data[0] : -1;
    }
    void set_byte(const std::string &node, uint64_t offset, int value) {
        const auto byte = static_cast<uint8_t>(value);
        EXPECT_EQ(board.poke(0, node, {"write", std::to_string(offset), board::to_hex(&byte, 1)}).value, 0);
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
