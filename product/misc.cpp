// misc.cpp - the board's miscellaneous driver. Its users open it when they need it; none exists yet.
#include "qel/product.h"

extern "C" int QEL_miscInit(void) { return 0; }
extern "C" int QEL_miscDeinit(void) { return 0; }
