#include "tools/qelctl/table.h"

#include <algorithm>

namespace qelctl {

namespace {

bool is_number(const std::string &cell) {
    return !cell.empty() && cell.find_first_not_of("0123456789-") == std::string::npos;
}

bool is_control_or_foreign(char c) { return c < ' ' || c > '~'; }

}  // namespace

std::string printable(std::string_view text) {
    std::string clean(text);
    std::replace_if(clean.begin(), clean.end(), is_control_or_foreign, '?');
    return clean;
}

std::string bold(std::string_view text, bool colour) {
    return colour ? "\033[1m" + std::string(text) + "\033[0m" : std::string(text);
}

std::string named_value(std::string_view name, size_t width, const std::string &value, bool colour) {
    std::string padded(name);
    padded.resize(width, ' ');
    return bold(padded, colour) + value + "\n";
}

Table::Table(std::vector<std::string> headings) : headings_(std::move(headings)) {}

void Table::add(std::vector<std::string> cells) { rows_.push_back(std::move(cells)); }

Table::Column Table::measure(size_t index) const {
    Column column{headings_[index].size(), !rows_.empty()};
    for (const auto &row : rows_) {
        column.width = std::max(column.width, row[index].size());
        column.numbers = column.numbers && is_number(row[index]);
    }
    return column;
}

std::string Table::text(bool colour) const {
    std::vector<Column> columns;
    for (size_t i = 0; i < headings_.size(); ++i) columns.push_back(measure(i));

    const auto line = [&columns](const std::vector<std::string> &cells) {
        std::string text;
        for (size_t i = 0; i < cells.size(); ++i) {
            const std::string blanks(columns[i].width - cells[i].size(), ' ');
            text += i == 0 ? "" : "  ";
            text += columns[i].numbers ? blanks + cells[i] : cells[i] + blanks;
        }
        text.erase(text.find_last_not_of(' ') + 1);
        return text;
    };
    std::string all = bold(line(headings_), colour) + "\n";
    for (const auto &row : rows_) all += line(row) + "\n";
    return all;
}

}  // namespace qelctl
