/*
 * qel.h - the whole interface of libqel.so, the device layer of network cameras.
 *
 * Loading the library is all the setting up there is; see frame.h.
 */
#ifndef QEL_QEL_H
#define QEL_QEL_H

#include "qel/comm.h"
#include "qel/frame.h"
#include "qel/product.h"
#include "qel/ptz.h"
#include "qel/storage.h"
#include "qel/system.h"
#include "qel/types.h"
#include "qel/upgrade.h"
#include "qel/video.h"

#endif
