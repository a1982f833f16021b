// port_rules.h - what boards and products decide about their serial ports: which tty a port is, how it is
// opened, who turns its line round, what it can be. Facts in, values out.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "product/product_data.h"
#include "qel/serial.h"

namespace qel::comm {

// What the families that a product belongs to say of its ports.
struct ProductRules {
    unsigned own_uarts = 2;           // of the chip, before those of an expansion
    unsigned nonblocking_ports = 2;   // so many, from 0 on, are opened non-blocking
    bool hardware_direction = false;  // RS-485 line drivers turn round by themselves
    bool door_station = false;
    bool no_third_tty = false;
};

ProductRules rules_of(std::span<const product::FamilyRule> families, std::string_view product_name);

// What the name of a tty depends on.
struct NameFacts {
    uint32_t port = 0;
    bool tty_given = false;  // by the port map
    uint32_t tty_number = 0;
    int board_type = 0;  // properties 5, 19 and 20
    int category = 0;
    int second_port_rule = 0;
    ProductRules product = {};
};

struct TtyName {
    const char *prefix;
    uint32_t number;
};

TtyName tty_name(const NameFacts &facts);

inline bool opens_nonblocking(const ProductRules &rules, uint32_t port) {
    return port < rules.nonblocking_ports;
}

inline bool drives_direction(const ProductRules &rules, bool half_duplex) {
    return half_duplex && !rules.hardware_direction;
}

// Boards whose line status tells when the last bit is out; on others draining does.
bool polls_line_status(int board_type, int category);

inline bool has_direction_line(const ComMapItem &item) { return item.directionLine != QEL_COM_NO_LINE; }

// How the device layers are asked for a port.
inline ComObjDesc object_of(const ComMapItem &item) {
    const uint32_t rs485 = has_direction_line(item) ? 1 : 0;
    return {.port = item.port, .rs485 = rs485, .halfDuplex = rs485};
}

// What a port's line can be; `fixed` counts where the map has no direction line.
ComCaps caps_of(const ComMapItem &item, product::FixedLine fixed);

}  // namespace qel::comm
