/*
 * video.h - video input and output.
 *
 * The modules' forwarding pairs; their operations come with the modules.
 */
#ifndef QEL_VIDEO_H
#define QEL_VIDEO_H

#include "qel/frame.h"

QEL_BEGIN_DECLS

/* ---- forwarding: registered by QEL_adapterInit ---- */

QEL_API int VIDEOINPUT_adapterInit(void);
QEL_API int VIDEOINPUT_adapterDeInit(void);
QEL_API int VIDEOINPUT_adapterSlaveProc(AdapterMsg *msg);
QEL_API int VIDEOPROCESS_adapterInit(void);
QEL_API int VIDEOPROCESS_adapterDeInit(void);

QEL_END_DECLS

#endif
