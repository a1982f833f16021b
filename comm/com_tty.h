// com_tty.h - what one does with a line that is a tty, whatever object it belongs to. `function` logs.
#pragma once

#include "comm/com_slot.h"

namespace qel::comm {

// As the calls of serial.h that begin with QEL_com.
int tty_read(const char *function, Slot &slot, ComIoParam &request);
int tty_write(const char *function, Slot &slot, ComIoParam &request);
int tty_set_attribute(const char *function, Slot &slot, const ComAttribute *attribute);
int tty_purge(const char *function, Slot &slot, uint32_t flag);

}  // namespace qel::comm
