/*
 * xcc.h - named channels between the chips of one unit.
 *
 * A device brings its own libxcc.so (shared memory or PCIe between the chips); the reference one in
 * platform/xcc joins processes of one host. libqel carries weak defaults of these calls that fail.
 * All calls return 0 or a negative value. Time-outs are milliseconds, -1 = for ever.
 */
#ifndef QEL_PLATFORM_XCC_H
#define QEL_PLATFORM_XCC_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define XCC_NAME_BYTES 32 /* with the terminator */
#define XCC_CHANNEL_BYTES 0x100000u

typedef struct {
    uint32_t chip;     /* own chip number, 0 = master */
    int32_t processId; /* channels meet only within the same process identity */
    uint32_t count;    /* chips of the unit */
} XCC_InitParams;

typedef struct {
    char name[XCC_NAME_BYTES];
    uint32_t size; /* bytes of the channel's buffer */
} XCC_CreateParams;

typedef struct {
    uint32_t peerChip;
    int32_t processId;
    char peerName[XCC_NAME_BYTES];
} XCC_BindParams;

/* Describes the message of one put or get. 32 bytes. */
typedef struct {
    void *addr;
    uint32_t length;    /* bytes */
    uint32_t waitReply; /* put of a master: wait until the answer stands in the same memory */
    uint32_t rsv[sizeof(void *) == 4 ? 5 : 4];
} XCC_BufInfo;

int XCC_init(const XCC_InitParams *params); /* a master calls it once per slave */
int XCC_create(const XCC_CreateParams *params, uintptr_t *handle);
int XCC_bind(uintptr_t handle, const XCC_BindParams *peer, int timeoutMs);
/*
 * Master: sends addr/length; with waitReply the answer replaces the message, `length` stays. Slave:
 * answers a message it got with XCC_get and gives its memory back. A put whose message is given back
 * without an answer, or whose peer dies, ends with a negative status.
 */
int XCC_put(uintptr_t handle, XCC_BufInfo *buffer, int timeoutMs);
/* Slave: the next message; addr points into the channel's memory until put or release. */
int XCC_get(uintptr_t handle, XCC_BufInfo *buffer, int timeoutMs);
int XCC_release(uintptr_t handle, XCC_BufInfo *buffer); /* gives a message back without an answer */
int XCC_unBind(uintptr_t handle);                       /* this and XCC_delete wake a blocked XCC_get */
int XCC_delete(uintptr_t handle);
int XCC_deInit(void);

#ifdef __cplusplus
}
#endif

#endif
