// unit.h - a virtual board that this process lives on, with the library loaded or not yet.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

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

using Bytes = std::vector<uint8_t>;

// `count` bytes that differ from seed to seed, from byte to byte and from page to page.
inline Bytes pattern(size_t count, unsigned seed) {
    Bytes out(count);
    for (size_t i = 0; i < count; ++i)
        out[i] = static_cast<uint8_t>(size_t{41} * seed + i * 7 + (i >> 8) * 13 + (i >> 16) * 5 + 1);
    return out;
}

inline Bytes slice(const Bytes &of, size_t at, size_t count) {
    const auto start = of.begin() + static_cast<ptrdiff_t>(at);
    return {start, start + static_cast<ptrdiff_t>(count)};
}

// A board without the library.
class Place {
public:
    explicit Place(const std::string &description, const std::string &as = "vesta",
                   const board::Options &options = {})
        : board(description, options) {
        board.enter({.chip = 0, .as = as});
    }
    ~Place() {
        EXPECT_EQ(board.take_misuses(), std::vector<std::string>{});
        board.leave();
    }
    Place(const Place &) = delete;
    Place &operator=(const Place &) = delete;

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
    unsigned mode_of(const std::string &path) {
        struct stat info {};
        EXPECT_EQ(stat(host_path(path).c_str(), &info), 0);
        return info.st_mode & 0777;
    }
    // Straight from what a device of this process's chip holds and to it, past its driver.
    Bytes bytes(const std::string &node, uint64_t offset, uint64_t count) {
        return board.poke(0, node, {"read", std::to_string(offset), std::to_string(count)}).data;
    }
    int byte_at(const std::string &node, uint64_t offset) {
        const Bytes found = bytes(node, offset, 1);
        return found.size() == 1 ? found[0] : -1;
    }
    void put_bytes(const std::string &node, uint64_t offset, const Bytes &bytes) {
        const std::string hex = board::to_hex(bytes.data(), bytes.size());
        EXPECT_EQ(board.poke(0, node, {"write", std::to_string(offset), hex}).value, 0);
    }
    void set_byte(const std::string &node, uint64_t offset, int value) {
        put_bytes(node, offset, {static_cast<uint8_t>(value)});
    }

    board::Board board;
    Log log;
};

// A board with the library on it.
class Unit : public Place {
public:
    explicit Unit(const std::string &description, const std::vector<std::string> &faults = {},
                  const std::string &as = "vesta")
        : Place(description, as) {
        for (const std::string &fault : faults) board.add_fault(fault);
        library.emplace();
    }
    ~Unit() { library.reset(); }
    void reload() {
        library.reset();
        log.clear();
        library.emplace();
    }
    std::optional<Library> library;
};

#define UNIT_CALL(unit, name) CALL(*(unit).library, name)

// Keeps what is printed while it lives.
class Printed {
public:
    Printed() { testing::internal::CaptureStdout(); }
    ~Printed() {
        if (!taken_) testing::internal::GetCapturedStdout();
    }
    std::string take() {
        taken_ = true;
        return testing::internal::GetCapturedStdout();
    }

private:
    bool taken_ = false;
};

}  // namespace qel::test
