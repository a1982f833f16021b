// fpga.cpp - programmable logic. No operations yet.
#include "qel/system.h"

extern "C" int QEL_fpgaInit(void) { return 0; }
extern "C" int QEL_fpgaDeinit(void) { return 0; }
