// commlen.cpp - length-framed link. No port carries it yet, so no thread runs.
#include "qel/comm.h"

extern "C" int QEL_commlenInit(void) { return 0; }
extern "C" int QEL_commlenDeinit(void) { return 0; }
