#include "board/core/show_svg.h"

#include <algorithm>

namespace qel::board {

namespace {

constexpr size_t kCell = 11;  // pixels, as all here
constexpr const char *kOneCell = "h10v11h-10z";
constexpr const char *kNextCell = "m11 0h10v11h-10z";
constexpr size_t kRow = 14;
constexpr size_t kMargin = 20;
constexpr size_t kLabel = 150;
constexpr size_t kColumns = 64;
constexpr size_t kTitle = 34;
constexpr size_t kHeading = 26;
constexpr size_t kLegendColumn = 170;
constexpr size_t kLegendColumns = 5;
constexpr size_t kWidth = kMargin + kLabel + kColumns * kCell + kMargin;
constexpr size_t kBaseline = 10;  // of text below the top of its row
constexpr const char *kUnknownColour = "#FF00FF";

std::string escaped(const std::string &text) {
    std::string out;
    for (const char c : text) {
        if (c == '<')
            out += "&lt;";
        else if (c == '>')
            out += "&gt;";
        else if (c == '&')
            out += "&amp;";
        else if (c == '"')
            out += "&quot;";
        else
            out += static_cast<unsigned char>(c) < 0x20 ? '?' : c;
    }
    return out;
}

class Drawing {
public:
    void text(size_t x, size_t y, const char *style, const std::string &what) {
        body_ += "<text x=\"" + std::to_string(x) + "\" y=\"" + std::to_string(y) + "\" class=\"" + style +
                 "\">" + escaped(what) + "</text>\n";
    }
    // `count` cells of one kind side by side.
    void cells(size_t x, size_t y, size_t count, const std::string &colour, const std::string &hint) {
        body_ += "<path fill=\"" + escaped(colour) + "\" d=\"M" + std::to_string(x) + " " + std::to_string(y);
        for (size_t i = 0; i < count; ++i) body_ += i == 0 ? kOneCell : kNextCell;
        body_ += "\"><title>" + escaped(hint) + "</title></path>\n";
    }
    std::string document(size_t height) const {
        const std::string size = std::to_string(kWidth) + "\" height=\"" + std::to_string(height);
        const std::string view = std::to_string(kWidth) + " " + std::to_string(height);
        return "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" + size + "\" viewBox=\"0 0 " + view +
               "\">\n<style>text{font-family:sans-serif;fill:#222}.title{font-size:18px;font-weight:bold}"
               ".heading{font-size:14px;font-weight:bold}.small{font-size:11px}</style>\n"
               "<rect width=\"100%\" height=\"100%\" fill=\"#FFFFFF\"/>\n" +
               body_ + "</svg>\n";
    }

private:
    std::string body_;
};

const CellMap::Kind *find_kind(const CellMap &map, char mark) {
    const auto found =
        std::find_if(map.kinds.begin(), map.kinds.end(), [=](const auto &kind) { return kind.mark == mark; });
    return found != map.kinds.end() ? &*found : nullptr;
}

void draw_row(Drawing &drawing, size_t y, const CellMap &map, const CellMap::Row &row,
              const std::string &owner) {
    drawing.text(kMargin, y + kBaseline, "small", row.label);
    const size_t columns = std::min(row.marks.size(), kColumns);
    for (size_t from = 0; from < columns;) {
        const size_t to = std::min(row.marks.find_first_not_of(row.marks[from], from), columns);
        const CellMap::Kind *kind = find_kind(map, row.marks[from]);
        drawing.cells(kMargin + kLabel + from * kCell, y, to - from,
                      kind != nullptr ? kind->colour : kUnknownColour,
                      owner + ": " + (kind != nullptr ? kind->meaning : "?"));
        from = to;
    }
}

// Where the next thing goes below.
size_t draw_legend(Drawing &drawing, size_t y, const CellMap &map) {
    size_t place = 0;
    for (const CellMap::Kind &kind : map.kinds) {
        const size_t x = kMargin + place % kLegendColumns * kLegendColumn;
        const size_t line = y + place / kLegendColumns * kRow;
        drawing.cells(x, line, 1, kind.colour, kind.meaning);
        drawing.text(x + kCell + 5, line + kBaseline, "small", kind.meaning);
        ++place;
    }
    return y + (place + kLegendColumns - 1) / kLegendColumns * kRow;
}

size_t draw_map(Drawing &drawing, size_t y, const std::string &heading, const CellMap &map) {
    drawing.text(kMargin, y + kBaseline + 4, "heading", heading + " - " + map.scale);
    y = draw_legend(drawing, y + kHeading, map) + kRow / 2;
    std::string owner;
    for (const CellMap::Row &row : map.rows) {
        if (!row.label.empty()) owner = row.label;
        draw_row(drawing, y, map, row, owner);
        y += kRow;
    }
    return y + kRow;
}

}  // namespace

std::string draw_svg(const std::string &title, const Report &report) {
    Drawing drawing;
    size_t y = kMargin;
    drawing.text(kMargin, y + kBaseline + 4, "title", title);
    y += kTitle;
    const auto maps = report.maps();
    if (maps.empty()) {
        drawing.text(kMargin, y + kBaseline, "small", "This board has neither flash nor EEPROM.");
        y += kRow;
    }
    for (const auto &[heading, map] : maps) y = draw_map(drawing, y, heading, *map);
    return drawing.document(y + kMargin);
}

}  // namespace qel::board
