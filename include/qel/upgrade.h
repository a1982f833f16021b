/*
 * upgrade.h - firmware upgrade of microcontrollers and peripheral controllers.
 *
 * The module's forwarding pair; its operations come with the module.
 */
#ifndef QEL_UPGRADE_H
#define QEL_UPGRADE_H

#include "qel/frame.h"

QEL_BEGIN_DECLS

/* ---- forwarding: registered by QEL_adapterInit ---- */

QEL_API int PERUPGRADE_adapterInit(void);
QEL_API int PERUPGRADE_adapterDeInit(void);

QEL_END_DECLS

#endif
