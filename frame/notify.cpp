// notify.cpp - notification service. Nothing publishes or subscribes yet, so there is nothing to start.
#include "qel/frame.h"

extern "C" int QEL_notifyInit(void) { return 0; }
