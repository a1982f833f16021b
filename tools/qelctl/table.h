// table.h - what people read: aligned columns, colour only where it is wanted.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace qelctl {

// Text that came from a device: everything but printable ASCII becomes '?', so that no product name
// moves the cursor of whoever looks at it.
std::string printable(std::string_view text);

std::string bold(std::string_view text, bool colour);

// A line that names one value, the values of lines of the same width below each other.
std::string named_value(std::string_view name, size_t width, const std::string &value, bool colour);

// Columns as wide as their longest cell, two blanks between them; columns of numbers stand to the right.
class Table {
public:
    explicit Table(std::vector<std::string> headings);
    void add(std::vector<std::string> cells);  // as many as there are headings
    std::string text(bool colour) const;

private:
    struct Column {
        size_t width;
        bool numbers;
    };
    Column measure(size_t index) const;

    std::vector<std::string> headings_;
    std::vector<std::vector<std::string>> rows_;
};

}  // namespace qelctl
