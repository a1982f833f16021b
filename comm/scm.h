// scm.h - lines that one port has to itself: of the secondary controller and of the SPI bridge.
#pragma once

#include "qel/serial.h"

namespace qel::comm {

// The line "PREFIX<port>"; nullptr, with a line in the log under `function`, without memory. `prefix` stays
// the caller's.
ScmHandle create_own_line(const char *function, const char *prefix, uint32_t port);

}  // namespace qel::comm
