// report.h - what a board shows of itself: the same content as tables for people and as JSON.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <variant>
#include <vector>

namespace qel::board {

using Cell = std::variant<int64_t, bool, std::string>;

// A tree of sections; each holds values, tables and sections below it.
class Report {
public:
    Report();
    ~Report();
    Report(const Report &) = delete;
    Report &operator=(const Report &) = delete;

    // Everything added between begin and end belongs to the section; they nest.
    void begin_section(const std::string &name);
    void end_section();
    void value(const std::string &name, Cell value);
    // Rows follow with row(), one cell per column, until anything else is added.
    void table(const std::string &name, std::vector<std::string> columns);
    void row(std::vector<Cell> cells);
    // A picture made of text lines (a map of blocks); a list of strings in JSON.
    void lines(const std::string &name, std::vector<std::string> lines);

    std::string as_text() const;
    // Sections and values are members, a table is a list of objects, two blanks of indentation.
    std::string as_json() const;

private:
    struct Section;
    std::unique_ptr<Section> root_;
    std::vector<Section *> open_;
};

}  // namespace qel::board
