#include "tools/qelctl/byte_text.h"

#include "tools/qelctl/exit_code.h"

namespace qelctl {

namespace {

constexpr int kNoDigit = -1;

int hex_digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return kNoDigit;
}

// The byte that the two digits at `at` are, or kNoDigit.
int hex_byte(const std::string &text, size_t at) {
    if (at + 2 > text.size()) return kNoDigit;
    const int high = hex_digit(text[at]);
    const int low = hex_digit(text[at + 1]);
    return high == kNoDigit || low == kNoDigit ? kNoDigit : high * 16 + low;
}

struct Escape {
    char letter;
    uint8_t byte;
};
constexpr Escape kEscapes[] = {{'r', '\r'}, {'n', '\n'}, {'t', '\t'}, {'0', 0}, {'e', 27}, {'\\', '\\'}};

bool is_visible(uint8_t byte) { return byte >= ' ' && byte <= '~'; }

std::string hex_with(const uint8_t *bytes, size_t count, const char *between) {
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < count; ++i) {
        if (i != 0) text += between;
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 15];
    }
    return text;
}

[[noreturn]] void bad_escape(const std::string &text) {
    throw Failure(ExitCode::kUsage,
                  "after \\ comes r, n, t, 0, e, \\ or x and two digits, not as in: " + text);
}

}  // namespace

std::vector<uint8_t> bytes_from_hex(const std::string &text) {
    std::vector<uint8_t> bytes;
    for (size_t at = 0; at < text.size();) {
        if (text[at] == ' ' || text[at] == ':') {
            ++at;
            continue;
        }
        const int byte = hex_byte(text, at);
        if (byte == kNoDigit)
            throw Failure(ExitCode::kUsage, "not bytes of two hexadecimal digits each: " + text);
        bytes.push_back(static_cast<uint8_t>(byte));
        at += 2;
    }
    return bytes;
}

std::vector<uint8_t> bytes_from_text(const std::string &text) {
    std::vector<uint8_t> bytes;
    for (size_t at = 0; at < text.size(); ++at) {
        if (text[at] != '\\') {
            bytes.push_back(static_cast<uint8_t>(text[at]));
            continue;
        }
        if (++at == text.size()) bad_escape(text);
        int byte = kNoDigit;
        for (const Escape &escape : kEscapes) {
            if (escape.letter == text[at]) byte = escape.byte;
        }
        if (text[at] == 'x') {
            byte = hex_byte(text, at + 1);
            at += 2;
        }
        if (byte == kNoDigit) bad_escape(text);
        bytes.push_back(static_cast<uint8_t>(byte));
    }
    return bytes;
}

std::string visible_text(const uint8_t *bytes, size_t count) {
    std::string text;
    for (size_t i = 0; i < count; ++i) {
        const uint8_t byte = bytes[i];
        std::string shown =
            is_visible(byte) ? std::string(1, static_cast<char>(byte)) : "\\x" + hex_pairs(&byte, 1);
        for (const Escape &escape : kEscapes) {
            if (escape.byte == byte) shown = std::string("\\") + escape.letter;
        }
        text += shown;
    }
    return text;
}

std::string hex_text(const uint8_t *bytes, size_t count) { return hex_with(bytes, count, ""); }

std::string hex_pairs(const uint8_t *bytes, size_t count) { return hex_with(bytes, count, " "); }

std::string dotted_text(const uint8_t *bytes, size_t count) {
    std::string text;
    for (size_t i = 0; i < count; ++i) text += is_visible(bytes[i]) ? static_cast<char>(bytes[i]) : '.';
    return text;
}

}  // namespace qelctl
