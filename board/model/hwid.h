// hwid.h - what other models ask of a chip's hardware id.
#pragma once

#include <cstdint>

#include "board/core/chip.h"

namespace qel::board {

// A numbered board property of a chip; 0 where the board has no such chip or property.
uint16_t board_property(const Chip *chip, unsigned property);

}  // namespace qel::board
