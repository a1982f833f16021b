/*
 * bnd.h - named channels between the library and the daemons that own the video hardware.
 *
 * A device brings its own libbnd.so; the reference one in platform/bnd carries the channels over
 * Unix SOCK_SEQPACKET sockets in the run directory. All calls return 0 or a negative value.
 */
#ifndef QEL_PLATFORM_BND_H
#define QEL_PLATFORM_BND_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

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

int BND_init(int zero);                            /* may be called again */
int BND_open(const char *name, uintptr_t *handle); /* handle 0 = not open */
int BND_put(uintptr_t handle, BinderRecord *record, int timeoutMs);
int BND_get(uintptr_t handle, BinderRecord *record, int timeoutMs);
int BND_delete(uintptr_t handle);

/* ---- the daemon's side: reference library only ---- */

/* Creates the channel; fails while another live process serves it. */
int BND_serverCreate(const char *name, uintptr_t *server);
/*
 * Waits for a request of any client. in *bytes: capacity, out: length. *client names the sender to
 * BND_serverReply and *wantsReply tells whether it waits. -2 on time-out.
 */
int BND_serverReceive(uintptr_t server, void *buffer, uint32_t *bytes, uint32_t *client, int *wantsReply,
                      int timeoutMs);
int BND_serverReply(uintptr_t server, uint32_t client, const void *buffer, uint32_t bytes);
int BND_serverDelete(uintptr_t server); /* wakes a blocked receive */

#ifdef __cplusplus
}
#endif

#endif
