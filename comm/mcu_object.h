// mcu_object.h - what the microcontroller's own sources share about its objects.
#pragma once

#include <cstddef>

#include "frame/object.h"
#include "qel/mcu.h"

namespace qel::mcu {

struct McuPrivate {
    frame::ObjectPrivate common;  // fd: of the USB adapter, else -1
    McuCaps caps;
    McuHandle handle;  // nullptr in the USB variant
};
static_assert(sizeof(void *) != 4 || sizeof(McuPrivate) == 144);

constexpr size_t kObjectBytes = 256;
static_assert(sizeof(MCU_Device) <= kObjectBytes);

// The object's private record; nullptr, with a line in the log under `function`, for none.
McuPrivate *private_of(const MCU_Device *thiz, const char *function);

// The driver's descriptor behind a handle.
int descriptor_of(McuHandle handle);

// Opens the card reader's line, starts the card reader and fills the operations; 0, or -1 with a line in
// the log and nothing left open. Blocks for one second.
int make_usb_variant(MCU_Device *object);

}  // namespace qel::mcu
