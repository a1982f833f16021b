#include "board/core/errors.h"

#include <cctype>
#include <cerrno>
#include <cstring>

namespace qel::board {

// The C library knows the names (strerrorname_np); what it lacks is the way back.
constexpr int kMostErrors = 134;

int error_by_name(std::string_view name) {
    if (name == "OK") return 0;
    for (int error = 1; error < kMostErrors; ++error) {
        const char *known = strerrorname_np(error);
        if (known != nullptr && name == known) return error;
    }
    if (name == "EWOULDBLOCK") return EWOULDBLOCK;
    return -1;
}

std::string error_name(int error) {
    const char *name = error == 0 ? "OK" : strerrorname_np(error);
    return name != nullptr ? name : std::to_string(error);
}

namespace {

int hex_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

}  // namespace

bool parse_hex(std::string_view text, std::vector<uint8_t> &out) {
    out.clear();
    for (size_t i = 0; i < text.size();) {
        if (isspace(static_cast<unsigned char>(text[i])) != 0) {
            ++i;
            continue;
        }
        const int high = hex_value(text[i]);
        const int low = i + 1 < text.size() ? hex_value(text[i + 1]) : -1;
        if (high < 0 || low < 0) return false;
        out.push_back(static_cast<uint8_t>(high << 4 | low));
        i += 2;
    }
    return true;
}

std::string to_hex(const uint8_t *bytes, size_t count) {
    static const char kDigits[] = "0123456789abcdef";
    std::string text;
    text.reserve(count * 2);
    for (size_t i = 0; i < count; ++i) {
        text += kDigits[bytes[i] >> 4];
        text += kDigits[bytes[i] & 15];
    }
    return text;
}

}  // namespace qel::board
