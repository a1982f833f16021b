// net.cpp - network. No operations yet.
#include "qel/system.h"

extern "C" int QEL_netInit(void) { return 0; }
extern "C" int QEL_netDeInit(void) { return 0; }
