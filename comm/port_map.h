// port_map.h - the board's port map: read while the library loads, never written afterwards.
#pragma once

#include "qel/serial.h"

namespace qel::comm {

// Fills the table from the driver; without an answer it is empty.
int load_port_map();

// The item of a port; nullptr: the map has none.
const ComMapItem *find_item(uint32_t port);
// The same among the ports that are there now.
const ComMapItem *find_present_item(uint32_t port);

inline bool has_direction_line(const ComMapItem &item) { return item.directionLine != QEL_COM_NO_LINE; }

// What a port's line can be; `item` is the port's.
void caps_of(const ComMapItem &item, ComCaps *out);

}  // namespace qel::comm
