// byte_text.h - bytes as people write and read them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qelctl {

// "AA 10 02", "aa1002", with or without blanks and colons. Throws Failure(kUsage).
std::vector<uint8_t> bytes_from_hex(const std::string &text);
// The characters; \r \n \t \0 \e \\ and \xHH stand for the bytes they name. Throws Failure(kUsage).
std::vector<uint8_t> bytes_from_text(const std::string &text);
// The reverse: safe on a terminal, and bytes_from_text makes the same bytes of it again.
std::string visible_text(const uint8_t *bytes, size_t count);

// "41420d", for JSON.
std::string hex_text(const uint8_t *bytes, size_t count);
// "41 42 0d", for rows.
std::string hex_pairs(const uint8_t *bytes, size_t count);
// "........" with the printable ones in their places.
std::string dotted_text(const uint8_t *bytes, size_t count);

}  // namespace qelctl
