// two_eyes.cpp - link between the two halves of a twin-lens unit. No operations yet, no line opened.
#include "qel/comm.h"

extern "C" int QEL_TwoEyesComInit(void) { return 0; }
extern "C" int QEL_TwoEyesComDeInit(void) { return 0; }
