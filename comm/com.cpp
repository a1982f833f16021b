// com.cpp - serial port objects. None can be created yet, so the port map is not read.
#include "qel/comm.h"

extern "C" int QEL_comInit(void) { return 0; }
extern "C" int QEL_comDeinit(void) { return 0; }
