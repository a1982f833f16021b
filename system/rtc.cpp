// rtc.cpp - real-time clock. No operations yet, so the device stays closed.
#include "qel/system.h"

extern "C" int QEL_rtcInit(void) { return 0; }
extern "C" int QEL_rtcDeinit(void) { return 0; }
