// mcu.h - what other models ask of a chip's microcontroller.
#pragma once

#include <cstdint>
#include <optional>

#include "board/core/chip.h"

namespace qel::board {

// The second word of its capabilities as "/dev/qecMisc" answers it; nothing: the chip has none.
std::optional<uint32_t> mcu_caps_word(const Chip &chip);

}  // namespace qel::board
