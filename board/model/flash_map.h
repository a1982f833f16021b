// flash_map.h - what a flash holds, for people: its partitions and a map of its blocks.
#pragma once

#include "board/core/report.h"
#include "board/model/flash.h"

namespace qel::board {

void show_flash(const Flash &flash, Report &report);

}  // namespace qel::board
