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
// Of those, the first that is for something; nullptr: none is.
const ComMapItem *find_present_item_for(uint32_t usage);

}  // namespace qel::comm
