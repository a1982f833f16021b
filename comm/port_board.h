// port_board.h - what this board and product are, for the rules of port_rules.h.
#pragma once

#include "comm/com_slot.h"
#include "comm/port_rules.h"

namespace qel::comm {

ProductRules product_rules();
NameFacts name_facts(uint32_t port);
bool board_polls_line_status();
// What turns a port's line round; nullptr where there is nothing to turn.
SetDirection direction_control(bool half_duplex);

}  // namespace qel::comm
