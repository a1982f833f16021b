// reserved_memory.cpp - reserved memory. No flag in it is read yet, so it is not mapped.
#include "qel/storage.h"

extern "C" int QEL_MemInit(void) { return 0; }
extern "C" int QEL_MemDeinit(void) { return 0; }
