// flagfile.cpp - flag files. None is kept yet.
#include "qel/storage.h"

extern "C" int QEL_flagfileInit(void) { return 0; }
extern "C" int QEL_flagfileDeInit(void) { return 0; }
