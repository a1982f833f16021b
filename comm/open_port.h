// open_port.h - a port for a module of the library itself.
#pragma once

#include "qel/serial.h"

namespace qel::comm {

// The port, open, with 8 data bits, no parity and one stop bit; nullptr after a failure, which is in the log
// and leaves nothing open. The caller closes and releases it.
CommPort *open_port(uint32_t number, uint32_t baud);

}  // namespace qel::comm
