// text.h - bytes as people write them in a description.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qel::board {

// "AA .. 10" or "\"OK\\r\"", also mixed; ".." is any byte. False: neither of the two.
bool parse_pattern(const std::string &text, std::vector<std::optional<uint8_t>> &out);

}  // namespace qel::board
