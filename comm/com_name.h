// com_name.h - which tty a logical port is, and how it is opened: rules of boards and products.
#pragma once

#include <cstdint>

namespace qel::comm {

// What the rules look at.
struct NameFacts {
    uint32_t port = 0;
    bool tty_given = false;  // by the port map
    uint32_t tty_number = 0;
    int board_type = 0;  // properties 5, 19 and 20
    int category = 0;
    int second_port_rule = 0;
    unsigned own_uarts = 2;  // of the chip, before those of an expansion
    bool door_station = false;
    bool no_third_tty = false;
};

struct TtyName {
    const char *prefix;
    uint32_t number;
};

TtyName tty_name(const NameFacts &facts);

// Boards whose line status tells when the last bit is out; on others draining does.
bool polls_line_status(int board_type, int category);

}  // namespace qel::comm
