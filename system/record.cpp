// record.cpp - board record (addresses and the like). Nothing is recorded yet.
#include "qel/system.h"

extern "C" int QEL_recordInit(void) { return 0; }
extern "C" int QEL_recordDeinit(void) { return 0; }
