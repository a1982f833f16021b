// sramfile.cpp - SRAM files. None can be created yet, so the device stays closed.
#include "qel/storage.h"

extern "C" int QEL_sramfileInit(void) { return 0; }
extern "C" int QEL_sramfileDeInit(void) { return 0; }
