/*
 * bnd.h - named channels between the library and the daemons that own the video hardware.
 *
 * A device brings its own libbnd.so; the reference one in platform/bnd carries the channels over
 * Unix SOCK_SEQPACKET sockets in the run directory. All calls return 0 or a negative value and may be
 * made from any thread. Time-outs are milliseconds, divided by the time scale on a virtual board;
 * 0 = do not wait, negative = for ever.
 */
#ifndef QEL_PLATFORM_BND_H
#define QEL_PLATFORM_BND_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define BND_EFAIL (-1)    /* wrong argument, closed handle, refused request, system error */
#define BND_ETIMEOUT (-2) /* the time is over */
#define BND_EPEER (-3)    /* nobody serves the channel, or the daemon died before it answered */
#define BND_ETOOBIG (-4)  /* the message is longer than the buffer given for it, and lost */

#define BND_FLAG_REPLY 0x01u /* BinderRecord.flags: the answer will be fetched with BND_get */
#define BND_NAME_BYTES 32    /* with the terminator */
#define BND_MAX_BYTES 65536u /* longest message either way */

/* One message. 24 bytes where pointers have 4 bytes and where they have 8. */
typedef struct {
    uint8_t rsv0[2];
    uint8_t flags;
    uint8_t rsv1;
    uint32_t sendLen;  /* bytes of buf to send */
    uint32_t replyLen; /* in: bytes of buf for the answer; out: bytes of the answer */
    uint32_t rsv2;
    void *buf; /* request and answer share it */
#if UINTPTR_MAX == 0xFFFFFFFFu
    uint32_t rsv3;
#endif
} BinderRecord;

#pragma GCC visibility push(default)

int BND_init(int zero); /* may be called again */
/* Fails at once when nobody serves the channel. Handle 0 = not open. `name`: no slash. */
int BND_open(const char *name, uintptr_t *handle);
/*
 * Sends sendLen bytes of buf; waits while the daemon's queue is full. A handle whose daemon died works
 * again once the channel is served again.
 */
int BND_put(uintptr_t handle, BinderRecord *record, int timeoutMs);
/*
 * Waits for an answer to the last request that the calling thread put on this handle with
 * BND_FLAG_REPLY; answers to earlier requests are skipped. May be repeated: a daemon may answer more
 * than once. Ends at once when the daemon dies.
 */
int BND_get(uintptr_t handle, BinderRecord *record, int timeoutMs);
int BND_delete(uintptr_t handle); /* wakes a blocked get, which fails */

/* ---- the daemon's side: reference library only ---- */

/* Creates the channel; fails while another live process serves it. */
int BND_serverCreate(const char *name, uintptr_t *server);
/*
 * Waits for a request of any client. *bytes: in the capacity of `buffer`, out the length. *client names
 * the request to BND_serverReply and *wantsReply tells whether it waits for an answer. Several threads
 * may receive and answer at once, in any order.
 */
int BND_serverReceive(uintptr_t server, void *buffer, uint32_t *bytes, uint32_t *client, int *wantsReply,
                      int timeoutMs);
/* Never waits; fails when the client is gone or does not fetch its answers. The last 256 requests can be
 * answered. */
int BND_serverReply(uintptr_t server, uint32_t client, const void *buffer, uint32_t bytes);
int BND_serverDelete(uintptr_t server); /* wakes a blocked receive, which fails */

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
