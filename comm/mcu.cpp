// mcu.cpp - microcontroller device. No object can be created yet.
#include "qel/comm.h"

extern "C" int QEL_mcuInit(void) { return 0; }
extern "C" int QEL_mcuDeinit(void) { return 0; }
