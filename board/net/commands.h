// commands.h - what people and scripts may ask of a served board, in words.
#pragma once

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "board/core/board.h"

namespace qel::board {

class Commands {
public:
    explicit Commands(Board &board) : board_(board) {}
    ~Commands();
    // True when done; `text` is the answer, or what was wrong.
    bool run(const std::vector<std::string> &words, std::string &text);
    // The one line per command that server.h explains, for "what is known here".
    static std::string known();

private:
    struct Command;
    static const Command kCommands[];
    using Words = std::vector<std::string>;

    bool fault(const Words &words, std::string &text);
    bool clear_faults(const Words &words, std::string &text);
    bool trace(const Words &words, std::string &text);
    bool poke(const Words &words, std::string &text);
    bool show(const Words &words, std::string &text);
    bool info(const Words &words, std::string &text);
    bool events(const Words &words, std::string &text);
    bool misuses(const Words &words, std::string &text);
    bool power_on(const Words &words, std::string &text);
    bool save(const Words &words, std::string &text);

    struct Closer {
        void operator()(std::FILE *file) const { std::fclose(file); }
    };
    Board &board_;
    std::unique_ptr<std::FILE, Closer> trace_;
};

}  // namespace qel::board
