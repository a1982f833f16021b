// trace.h - what the library asked of a board's devices meanwhile.
#pragma once

#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "board/core/board.h"

namespace qel::test {

class Trace {
public:
    explicit Trace(board::Board &board) : board_(board), file_(tmpfile()) { board_.trace_to(file_); }
    ~Trace() {
        board_.trace_to(nullptr);
        fclose(file_);
    }
    Trace(const Trace &) = delete;
    Trace &operator=(const Trace &) = delete;

    // The requests to one node so far; ends the trace.
    std::vector<nlohmann::json> take(const std::string &node) {
        board_.trace_to(nullptr);
        rewind(file_);
        std::vector<nlohmann::json> requests;
        char line[4096];
        while (fgets(line, sizeof line, file_) != nullptr) {
            requests.push_back(nlohmann::json::parse(line));
            if (requests.back().value("node", "") != node) requests.pop_back();
        }
        return requests;
    }

private:
    board::Board &board_;
    FILE *file_;
};

}  // namespace qel::test
