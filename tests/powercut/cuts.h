// cuts.h - a board whose power goes in the middle of any device write, again and again.
//
// Every cut starts from the same content of the media, in a process of its own that dies with the
// power; another one then starts the board anew and looks at what is left.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "board/core/board.h"
#include "qel/qel.h"
#include "tests/support/library.h"

namespace qel::test {

using Content = std::vector<uint8_t>;

// A board that this process lives on, with the library loaded, as `work` and `check` get it.
struct Started {
    board::Board &board;
    const Library &library;
};

using OnBoard = std::function<void(Started &)>;

class Cuts {
public:
    // `prepare` brings a board new from its description to where every cut starts.
    Cuts(std::string description, const OnBoard &prepare);
    ~Cuts();
    Cuts(const Cuts &) = delete;
    Cuts &operator=(const Cuts &) = delete;

    // Cuts `work` in each of its device writes, each time after every one of the numbers of bytes in
    // `torn` (more than the write has: behind it), and runs `check` after each. Ends with the first
    // write that `work` does not come to; then `check` must hold after the whole work as well.
    // Prints how many cuts that were.
    void at_every_write(const std::string &what, const std::vector<int> &torn, const OnBoard &work,
                        const OnBoard &check);

    // What `look` finds before anything, or after the whole of `work`.
    Content before(const std::function<Content(Started &)> &look);
    Content after(const OnBoard &work, const std::function<Content(Started &)> &look);

private:
    struct File {
        std::string path;
        Content content;
    };
    void remember();
    void restore() const;
    // In a process of its own: 0, 99 with a failed expectation, 128 + SIGKILL when the power went.
    int run(const std::string &fault, const OnBoard &body) const;
    Content look_at(const std::function<Content(Started &)> &look) const;

    std::string description_;
    std::string dir_;
    std::vector<File> files_;
};

// Numbers of bytes from 0 on, all there are up to `end` (not with it), `step` apart.
std::vector<int> torn_bytes(int end, int step = 1);

// `count` bytes that differ from seed to seed and from byte to byte.
Content filling(size_t count, unsigned seed);

// A partition's content from its start, in good blocks, through the library.
Content flash_content(Started &on, const std::string &partition, uint32_t bytes);

}  // namespace qel::test
