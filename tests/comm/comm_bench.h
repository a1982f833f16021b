// comm_bench.h - a board with serial lines or a microcontroller, entered by this process, with the library
// loaded on it.
#pragma once

#include <gtest/gtest.h>

#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

#include "board/core/board.h"
#include "qel/qel.h"
#include "tests/support/library.h"

namespace qel::test {

struct Product {
    std::string name = "BX-200";
    int category = 0;
};

inline std::string comm_board(const std::string &tables, const Product &product) {
    return "name = \"bench\"\n[[chip]]\n[chip.hwid]\nname = \"" + product.name +
           "\"\n[chip.hwid.properties]\n19 = " + std::to_string(product.category) + "\n[chip.misc]\n" +
           tables;
}

class CommBench {
public:
    explicit CommBench(const std::string &tables, const board::Options &options = {},
                       const Product &product = {})
        : board(comm_board(tables, product), options) {
        board.enter({.chip = 0, .as = "vesta"});
        library.emplace();
        log.clear();
    }
    ~CommBench() {
        library.reset();
        EXPECT_EQ(board.take_misuses(), std::vector<std::string>());
        board.leave();
    }
    // For CALL.
    template <typename Function>
    Function *function(const char *name) const {
        return library->function<Function>(name);
    }
    void expect_logged(std::initializer_list<const char *> texts) const {
        for (const char *text : texts) EXPECT_TRUE(log.contains(text)) << text << "\nin " << log.all();
    }

    board::Board board;
    Log log;
    std::optional<Library> library;
};

}  // namespace qel::test
