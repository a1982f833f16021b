// event.cpp - event service. No notifiers or waiters exist yet, so there is nothing to set up.
#include "qel/frame.h"

extern "C" int QEL_eventInit(void) { return 0; }
extern "C" int QEL_eventDeinit(void) { return 0; }
