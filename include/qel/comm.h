/*
 * comm.h - serial ports, microcontroller, length-framed link, camera-module link.
 *
 * The link modules' chain and forwarding pairs; their operations come with the modules.
 */
#ifndef QEL_COMM_H
#define QEL_COMM_H

#include "qel/commlen.h"
#include "qel/frame.h"
#include "qel/mcu.h"
#include "qel/serial.h"

QEL_BEGIN_DECLS

/* ---- chain ---- */

QEL_API int QEL_TwoEyesComInit(void);
QEL_API int QEL_TwoEyesComDeInit(void);
QEL_API int QEL_comInit(void);
QEL_API int QEL_comDeinit(void);

/* ---- forwarding: registered by QEL_adapterInit ---- */

QEL_API int VISCA_COMM_adapterInit(void);
QEL_API int VISCA_COMM_adapterDeInit(void);

QEL_END_DECLS

#endif
