/*
 * storage.h - persistent storage: flash, SRAM files, reserved memory, flag files.
 *
 * The storage modules' chain and forwarding pairs; their operations come with the modules.
 */
#ifndef QEL_STORAGE_H
#define QEL_STORAGE_H

#include "qel/frame.h"

QEL_BEGIN_DECLS

/* ---- chain ---- */

QEL_API int QEL_sramfileInit(void);
QEL_API int QEL_sramfileDeInit(void);
QEL_API int QEL_flashIinit(void); /* the doubled i is its name */
QEL_API int QEL_flashDeinit(void);
QEL_API int QEL_MemInit(void);
QEL_API int QEL_MemDeinit(void);
QEL_API int QEL_flagfileInit(void);
QEL_API int QEL_flagfileDeInit(void);

/* ---- forwarding: registered by QEL_adapterInit ---- */

QEL_API int FLASH_adapterInit(void);
QEL_API int FLASH_adapterDeInit(void);

QEL_END_DECLS

#endif
