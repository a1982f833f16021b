// words.h - numbers in what people say to a device.
#pragma once

#include <charconv>
#include <concepts>
#include <string>

namespace qel::board {

// Decimal, or hexadecimal behind "0x". False: not such a number, or too large.
template <std::unsigned_integral Number>
bool parse_number(const std::string &word, Number &out) {
    const bool hex = word.rfind("0x", 0) == 0;
    const char *begin = word.data() + (hex ? 2 : 0);
    const char *end = word.data() + word.size();
    const auto [rest, error] = std::from_chars(begin, end, out, hex ? 16 : 10);
    return error == std::errc() && rest == end;
}

}  // namespace qel::board
