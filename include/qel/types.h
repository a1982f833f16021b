/* types.h - what every header of the library shares: export mark and status codes. */
#ifndef QEL_TYPES_H
#define QEL_TYPES_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define QEL_BEGIN_DECLS extern "C" {
#define QEL_END_DECLS }
#else
#define QEL_BEGIN_DECLS
#define QEL_END_DECLS
#endif

/* Marks an exported function or variable; everything else in the library is hidden. */
#define QEL_API __attribute__((visibility("default")))

/* Status of every operation: 0 or a negative value; callers treat any non-zero value as failure. */
#define QEL_OK 0
#ifndef OSA_EFAIL
#define OSA_EFAIL (-1)
#endif
#define QEL_ENOPRIV (-2)  /* object check: the object carries no private state */
#define QEL_ECLOSED (-3)  /* object check: the object's device is not open */
#define QEL_ETIMEOUT (-2) /* timed reads that say so in their own description */

#endif
