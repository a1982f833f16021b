/*
 * ptz.h - lens and pan-tilt head.
 *
 * Neither has a step in the chains or a forwarding pair; their objects and operations come with the
 * modules.
 */
#ifndef QEL_PTZ_H
#define QEL_PTZ_H

#include "qel/frame.h"

#endif
