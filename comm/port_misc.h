// port_misc.h - the miscellaneous driver's share in serial ports: one descriptor for all requests, opened
// when the first needs it.
#pragma once

namespace qel::comm {

int misc_init();
void misc_deinit();

}  // namespace qel::comm
