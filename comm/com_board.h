// com_board.h - what this board and product decide about their ttys.
#pragma once

#include "comm/com_name.h"

namespace qel::comm {

NameFacts name_facts(uint32_t port);
bool board_polls_line_status();
bool opens_nonblocking(uint32_t port);
// As QEL_485SetCtl; nothing to do where the line driver turns round by itself.
int turn_line_round(uint32_t port, uint32_t state);

}  // namespace qel::comm
