// hwid_store.h - look-ups of the hardware ids for the library's own modules. Unlike the exported ones
// they fail where the product module did not start: a broken board must still load the library.
#pragma once

#include "frame/hwid.h"
#include "frame/mutex.h"

namespace qel::product {

// Guards the hardware-id records and, while it is filled, the extended id.
Mutex &module_mutex();

// 0, or -1 where the module did not start.
int chip_info(hwid::ChipInfo *out);
// Value of a numbered property; -1 also for an unknown chip or number.
int property(unsigned chip, int number);

}  // namespace qel::product
