// report.h - what a board shows of itself: the same content as tables for people and as JSON.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace qel::board {

using Cell = std::variant<int64_t, bool, std::string>;

// A picture of a medium: one mark per cell, in rows. Drawn in text, in JSON and as SVG (show_svg.h).
struct CellMap {
    struct Kind {
        char mark;
        std::string meaning;
        std::string colour;  // as SVG takes it
    };
    struct Row {
        std::string label;  // empty: goes on from the row above
        std::string marks;
    };
    std::string scale;  // what one mark stands for
    std::vector<Kind> kinds;
    std::vector<Row> rows;
};

// A tree of sections; each holds values, tables and sections below it.
class Report {
public:
    Report();
    ~Report();
    Report(const Report &) = delete;
    Report &operator=(const Report &) = delete;

    // Everything added between begin and end belongs to the section; they nest. One that stays empty
    // is left out.
    void begin_section(const std::string &name);
    void end_section();
    void value(const std::string &name, Cell value);
    // Rows follow with row(), one cell per column, until anything else is added.
    void table(const std::string &name, std::vector<std::string> columns);
    void row(std::vector<Cell> cells);
    void map(const std::string &name, CellMap map);

    // All maps, each with the sections it stands in ("chip 0 /dev/qecEEPROM map").
    std::vector<std::pair<std::string, const CellMap *>> maps() const;

    std::string as_text() const;
    // Sections and values are members, a table is a list of objects, two blanks of indentation.
    std::string as_json() const;

private:
    struct Section;
    std::unique_ptr<Section> root_;
    std::vector<Section *> open_;
};

}  // namespace qel::board
