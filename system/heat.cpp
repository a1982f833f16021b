// heat.cpp - heating. No operations yet.
#include "qel/system.h"

extern "C" int QEL_heatInit(void) { return 0; }
extern "C" int QEL_heatDeinit(void) { return 0; }
