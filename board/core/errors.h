// errors.h - errors by the names that descriptions, faults and the trace use; bytes as hexadecimal text.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace qel::board {

// "EIO" -> EIO, "OK" -> 0; -1 for a name that is none.
int error_by_name(std::string_view name);
// EIO -> "EIO"; the number in decimal where it has no name.
std::string error_name(int error);

// Hexadecimal digits in pairs, blanks between pairs allowed. False: not such a text.
bool parse_hex(std::string_view text, std::vector<uint8_t> &out);
std::string to_hex(const uint8_t *bytes, size_t count);

}  // namespace qel::board
