// flash_nodes.h - the device nodes of a flash: one per partition, beside its partition driver.
#pragma once

#include <memory>

#include "board/core/chip.h"
#include "board/core/description.h"
#include "board/model/flash.h"

namespace qel::board {

std::unique_ptr<Device> make_mtd(Chip &chip, std::shared_ptr<Flash> flash, size_t index);
std::unique_ptr<Device> make_emmc(Chip &chip, std::shared_ptr<Flash> flash, size_t index);

// The boot environment that the factory put into partition "hwid": [chip.environment].
void write_environment(Flash &flash, const Chip &chip, const Description &flash_table);

}  // namespace qel::board
