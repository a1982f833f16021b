// slave.h - a process on the second chip of a board.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cstdlib>

#include "board/core/board.h"
#include "tests/support/library.h"

namespace qel::test {

// Forked at once, before this process enters the board; loads the library on start(), unloads it at the end.
class Slave {
public:
    explicit Slave(board::Board &board) {
        if (pipe(pipe_.data()) != 0) abort();
        pid_ = fork_child();
        if (pid_ != 0) return;
        ::close(pipe_[1]);
        char byte = 0;
        if (::read(pipe_[0], &byte, 1) == 1) {
            board.enter({.chip = 1, .as = "vesta"});
            {
                const Library library;
                while (::read(pipe_[0], &byte, 1) == 1) {
                }
            }
            EXPECT_EQ(board.take_misuses(), std::vector<std::string>());
        }
        end_child(0);
    }
    ~Slave() {
        ::close(pipe_[1]);
        EXPECT_EQ(wait_for_child(pid_, 20000), 0);
        ::close(pipe_[0]);
    }
    Slave(const Slave &) = delete;
    Slave &operator=(const Slave &) = delete;

    void start() { EXPECT_EQ(::write(pipe_[1], "g", 1), 1); }

private:
    std::array<int, 2> pipe_{};
    int pid_ = -1;
};

}  // namespace qel::test
