// semlock.cpp - locks by name. No module takes one yet, so there is no table to make.
#include "qel/frame.h"

extern "C" int QEL_semLockInit(void) { return 0; }
extern "C" int QEL_semLockDeinit(void) { return 0; }
