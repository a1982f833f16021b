#include "board/peer/text.h"

#include <cctype>

namespace qel::board {

namespace {

int digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    const int lower = std::tolower(static_cast<unsigned char>(c));
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

// Two digits at `at`; -1: there are none.
int byte_at(const std::string &text, size_t at) {
    if (at + 1 >= text.size()) return -1;
    const int high = digit(text[at]);
    const int low = digit(text[at + 1]);
    return high < 0 || low < 0 ? -1 : high * 16 + low;
}

// What a backslash at `at` stands for; `at` moves behind it. -1: nothing known.
int escaped(const std::string &text, size_t &at) {
    const char c = at + 1 < text.size() ? text[at + 1] : '\0';
    if (c == 'x') {
        const int byte = byte_at(text, at + 2);
        at += 4;
        return byte;
    }
    at += 2;
    switch (c) {
        case 'r':
            return '\r';
        case 'n':
            return '\n';
        case 't':
            return '\t';
        case '\\':
        case '"':
            return c;
        default:
            return -1;
    }
}

// The text from behind a quotation mark to the next one.
bool parse_quoted(const std::string &text, size_t &at, std::vector<std::optional<uint8_t>> &out) {
    while (at < text.size() && text[at] != '"') {
        int byte = static_cast<unsigned char>(text[at]);
        if (text[at] == '\\')
            byte = escaped(text, at);
        else
            ++at;
        if (byte < 0) return false;
        out.emplace_back(static_cast<uint8_t>(byte));
    }
    return at < text.size() && text[at++] == '"';
}

}  // namespace

bool parse_pattern(const std::string &text, std::vector<std::optional<uint8_t>> &out) {
    for (size_t at = 0; at < text.size();) {
        if (text[at] == ' ') {
            ++at;
        } else if (text[at] == '"') {
            ++at;
            if (!parse_quoted(text, at, out)) return false;
        } else if (text.compare(at, 2, "..") == 0) {
            out.emplace_back(std::nullopt);
            at += 2;
        } else {
            const int byte = byte_at(text, at);
            if (byte < 0) return false;
            out.emplace_back(static_cast<uint8_t>(byte));
            at += 2;
        }
    }
    return true;
}

}  // namespace qel::board
