/*
 * xcc.h - named channels between the chips of one unit.
 *
 * A device brings its own libxcc.so (shared memory or PCIe between the chips); the reference one in
 * platform/xcc joins processes of one host. libqel carries weak defaults of these calls that fail.
 * All calls return 0 or a negative value. Time-outs are milliseconds, divided by the time scale on a
 * virtual board; 0 = do not wait, negative = for ever.
 */
#ifndef QEL_PLATFORM_XCC_H
#define QEL_PLATFORM_XCC_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define XCC_EFAIL (-1)    /* wrong argument or handle, channel not bound, system error */
#define XCC_ETIMEOUT (-2) /* the time is over */
#define XCC_EPEER (-3)    /* the peer is not there, or died meanwhile */
#define XCC_EDROPPED (-4) /* the peer gave the message back without an answer */

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

#pragma GCC visibility push(default)

/*
 * Says who this process is; a master calls it once per slave. Every call is undone by one XCC_deInit.
 * Fails with another identity than the one in use.
 */
int XCC_init(const XCC_InitParams *params);
/* The end of chip 0 sends, the ends of the other chips receive. Names: not empty, no slash. */
int XCC_create(const XCC_CreateParams *params, uintptr_t *handle);
/* Waits until the peer is bound to this channel too. May be repeated after a failure. */
int XCC_bind(uintptr_t handle, const XCC_BindParams *peer, int timeoutMs);
/*
 * Master: sends addr/length, at most the size of the channel; waits while the channel is full, in the
 * order of the calls. With waitReply it also waits for the answer, which replaces the message; `length`
 * stays. Several threads may put at once. A put whose message is given back without an answer, or
 * whose peer dies, ends with a negative status. While there is no peer a put waits up to 200 ms for its
 * return and then fails with XCC_EPEER; the channel works again once the peer is back.
 * Slave: answers a message it got with XCC_get, in place, and gives its memory back. Never waits.
 */
int XCC_put(uintptr_t handle, XCC_BufInfo *buffer, int timeoutMs);
/*
 * Slave: the next message; addr points into the channel's memory, which stays valid until the message
 * is given back by put or release, in any order and from any thread, even after XCC_delete. `rsv` has
 * to come back as it was. Goes on with the next master when one ends.
 */
int XCC_get(uintptr_t handle, XCC_BufInfo *buffer, int timeoutMs);
int XCC_release(uintptr_t handle, XCC_BufInfo *buffer); /* gives a message back without an answer */
int XCC_unBind(uintptr_t handle);                       /* this and XCC_delete end every call that waits */
int XCC_delete(uintptr_t handle);
int XCC_deInit(void);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
