// coproc.cpp - coprocessors. No operations yet.
#include "qel/system.h"

extern "C" int QEL_coprocInit(void) { return 0; }
extern "C" int QEL_coprocDeinit(void) { return 0; }
