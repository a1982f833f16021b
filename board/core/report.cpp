#include "board/core/report.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace qel::board {

namespace {

struct Table {
    std::vector<std::string> columns;
    std::vector<std::vector<Cell>> rows;
};

struct CellText {
    std::string operator()(int64_t number) const { return std::to_string(number); }
    std::string operator()(bool flag) const { return flag ? "yes" : "no"; }
    std::string operator()(const std::string &text) const { return text; }
};

std::string text_of(const Cell &cell) { return std::visit(CellText{}, cell); }

nlohmann::ordered_json json_of(const Cell &cell) {
    return std::visit([](const auto &value) { return nlohmann::ordered_json(value); }, cell);
}

// Columns of characters, not bytes: a name may hold UTF-8.
size_t width_of(const std::string &text) {
    return static_cast<size_t>(
        std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xC0) != 0x80; }));
}

void pad(std::string &line, const std::string &text, size_t width, bool right) {
    const std::string blanks(width - width_of(text), ' ');
    line += right ? blanks + text : text + blanks;
}

std::string trimmed(std::string line) {
    line.erase(line.find_last_not_of(' ') + 1);
    return line + "\n";
}

void print_table(const Table &table, const std::string &margin, std::string &out) {
    std::vector<size_t> widths;
    for (const auto &column : table.columns) widths.push_back(width_of(column));
    for (const auto &row : table.rows) {
        for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], width_of(text_of(row[i])));
    }
    std::string head = margin;
    for (size_t i = 0; i < widths.size(); ++i) {
        pad(head, table.columns[i], widths[i], false);
        head += "  ";
    }
    out += trimmed(head);
    for (const auto &row : table.rows) {
        std::string line = margin;
        for (size_t i = 0; i < row.size(); ++i) {
            pad(line, text_of(row[i]), widths[i], std::holds_alternative<int64_t>(row[i]));
            line += "  ";
        }
        out += trimmed(line);
    }
}

void print_map(const CellMap &map, const std::string &margin, std::string &out) {
    std::string legend = margin;
    for (const CellMap::Kind &kind : map.kinds)
        legend += std::string(1, kind.mark) + " " + kind.meaning + "   ";
    out += trimmed(margin + map.scale) + trimmed(legend);
    size_t width = 0;
    for (const CellMap::Row &row : map.rows) width = std::max(width, width_of(row.label));
    for (const CellMap::Row &row : map.rows) {
        std::string line = margin;
        pad(line, row.label, width, false);
        out += trimmed(line + "  " + row.marks);
    }
}

nlohmann::ordered_json json_of(const CellMap &map) {
    auto object = nlohmann::ordered_json::object();
    object["scale"] = map.scale;
    auto &kinds = object["kinds"] = nlohmann::ordered_json::object();
    for (const CellMap::Kind &kind : map.kinds) kinds[std::string(1, kind.mark)] = kind.meaning;
    auto &rows = object["rows"] = nlohmann::ordered_json::array();
    for (const CellMap::Row &row : map.rows) {
        auto one = nlohmann::ordered_json::object();
        one["label"] = row.label;
        one["marks"] = row.marks;
        rows.push_back(std::move(one));
    }
    return object;
}

}  // namespace

struct Report::Section {
    struct Entry {
        std::string name;
        std::variant<Cell, Table, CellMap, std::unique_ptr<Section>> content;
    };
    std::vector<Entry> entries;

    void print(const std::string &margin, std::string &out) const;
    nlohmann::ordered_json json() const;
    void find_maps(const std::string &path,
                   std::vector<std::pair<std::string, const CellMap *>> &found) const;
};

void Report::Section::print(const std::string &margin, std::string &out) const {
    size_t name_width = 0;
    for (const Entry &entry : entries) {
        if (std::holds_alternative<Cell>(entry.content))
            name_width = std::max(name_width, width_of(entry.name));
    }
    for (const Entry &entry : entries) {
        if (const auto *cell = std::get_if<Cell>(&entry.content)) {
            std::string line = margin;
            pad(line, entry.name, name_width, false);
            out += trimmed(line + "  " + text_of(*cell));
            continue;
        }
        out += margin + entry.name + "\n";
        if (const auto *table = std::get_if<Table>(&entry.content)) print_table(*table, margin + "  ", out);
        if (const auto *map = std::get_if<CellMap>(&entry.content)) print_map(*map, margin + "  ", out);
        if (const auto *section = std::get_if<std::unique_ptr<Section>>(&entry.content))
            (*section)->print(margin + "  ", out);
    }
}

nlohmann::ordered_json Report::Section::json() const {
    auto object = nlohmann::ordered_json::object();
    for (const Entry &entry : entries) {
        if (const auto *cell = std::get_if<Cell>(&entry.content)) object[entry.name] = json_of(*cell);
        if (const auto *map = std::get_if<CellMap>(&entry.content)) object[entry.name] = json_of(*map);
        if (const auto *section = std::get_if<std::unique_ptr<Section>>(&entry.content))
            object[entry.name] = (*section)->json();
        const auto *table = std::get_if<Table>(&entry.content);
        if (table == nullptr) continue;
        auto rows = nlohmann::ordered_json::array();
        for (const auto &row : table->rows) {
            auto one = nlohmann::ordered_json::object();
            for (size_t i = 0; i < row.size(); ++i) one[table->columns[i]] = json_of(row[i]);
            rows.push_back(std::move(one));
        }
        object[entry.name] = std::move(rows);
    }
    return object;
}

void Report::Section::find_maps(const std::string &path,
                                std::vector<std::pair<std::string, const CellMap *>> &found) const {
    for (const Entry &entry : entries) {
        const std::string here = path.empty() ? entry.name : path + " " + entry.name;
        if (const auto *map = std::get_if<CellMap>(&entry.content)) found.emplace_back(here, map);
        if (const auto *section = std::get_if<std::unique_ptr<Section>>(&entry.content))
            (*section)->find_maps(here, found);
    }
}

Report::Report() : root_(std::make_unique<Section>()), open_{root_.get()} {}
Report::~Report() = default;

void Report::begin_section(const std::string &name) {
    auto section = std::make_unique<Section>();
    Section *opened = section.get();
    open_.back()->entries.push_back({name, std::move(section)});
    open_.push_back(opened);
}

void Report::end_section() {
    if (open_.size() == 1) return;
    const bool is_empty = open_.back()->entries.empty();
    open_.pop_back();
    if (is_empty) open_.back()->entries.pop_back();
}

void Report::value(const std::string &name, Cell value) {
    open_.back()->entries.push_back({name, std::move(value)});
}

void Report::table(const std::string &name, std::vector<std::string> columns) {
    open_.back()->entries.push_back({name, Table{std::move(columns), {}}});
}

void Report::row(std::vector<Cell> cells) {
    auto &table = std::get<Table>(open_.back()->entries.back().content);
    cells.resize(table.columns.size(), std::string());
    table.rows.push_back(std::move(cells));
}

void Report::map(const std::string &name, CellMap map) {
    open_.back()->entries.push_back({name, std::move(map)});
}

std::vector<std::pair<std::string, const CellMap *>> Report::maps() const {
    std::vector<std::pair<std::string, const CellMap *>> found;
    root_->find_maps("", found);
    return found;
}

std::string Report::as_text() const {
    std::string out;
    root_->print("", out);
    return out;
}

std::string Report::as_json() const {
    return root_->json().dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

}  // namespace qel::board
