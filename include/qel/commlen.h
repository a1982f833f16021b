/*
 * commlen.h - the length-framed link: short commands to a companion controller and its replies, over
 * one serial port of the board. The IR-cut filter and the iris are behind it.
 *
 * One link per process. Loading the library starts its receive thread, which sleeps until the first
 * QEL_commlenCreate has found the port. Which port that is and its rate are product data (9600 baud,
 * 8 data bits, no parity, one stop bit unless they say otherwise).
 *
 *   0xAA  0x10  sequence  L + 2  command  payload[L]  checksum
 *
 * All calls may be made from any thread and return 0 or -1, with a line in the log on failure.
 */
#ifndef QEL_COMMLEN_H
#define QEL_COMMLEN_H

#include "qel/types.h"

QEL_BEGIN_DECLS

#define QEL_COMMLEN_MAGIC 0x15975325u
#define QEL_COMMLEN_PAYLOAD_MAX 253
#define QEL_COMMLEN_TIMEOUT_MS 2000
/* Command codes that may be waited for at the same time; any number of threads may wait for each. */
#define QEL_COMMLEN_CODES_MAX 16

/* The link; the library's, never freed by the caller. It begins with QEL_COMMLEN_MAGIC. */
typedef struct CommLen CommLen;

typedef struct {
    uint8_t command;
    uint8_t length; /* bytes of payload, 0 to QEL_COMMLEN_PAYLOAD_MAX */
    uint8_t payload[QEL_COMMLEN_PAYLOAD_MAX];
} CommLenMsg;

/*
 * Hands out the link. The first call opens the port, which blocks as opening and setting a serial port
 * do (some 30 ms); after a failure the next call tries again. -1, with a warning, where the board has no
 * such port.
 */
QEL_API int QEL_commlenCreate(CommLen **out);

/*
 * Sends one frame: command and `length` bytes of payload. Blocks until the port has taken it, at most
 * 2 s; frames of several threads go out one after the other. Each frame has a number of its own: 0,
 * then 1 to 255 over and over.
 */
QEL_API int QEL_commlenWrite(CommLen *link, const CommLenMsg *message);

/*
 * Waits for a frame with the command code in `message`, at most QEL_COMMLEN_TIMEOUT_MS, and puts its
 * payload and length there. A frame that comes while nobody waits for its code is dropped, as is one with
 * the number of a request that has been answered or given up: what comes late or twice never answers a
 * later read. A reply that is there before the read has begun is lost too: see QEL_commlenExchange. Of
 * several threads that wait for one code each gets a frame of its own. After a failure the message is as
 * it was.
 */
QEL_API int QEL_commlenRead(CommLen *link, CommLenMsg *message);

/*
 * Write and read in one: waits for the code of `reply` from before `request` goes out, so that no
 * reply is too quick. Blocks as the two do together. The two may be the same record.
 */
QEL_API int QEL_commlenExchange(CommLen *link, const CommLenMsg *request, CommLenMsg *reply);

/*
 * Takes the port away from the receive thread, for a user that needs it for itself (an upgrade of the
 * controller), and gives it back. Lock waits while another thread has the port, without limit, and then
 * until the receive thread has left it, at most 500 ms. Not recursive; any thread may unlock, once per
 * lock.
 */
QEL_API int QEL_commlenSemLock(CommLen *link);
QEL_API int QEL_commlenSemUnlock(CommLen *link);

/* ---- chain ---- */

QEL_API int QEL_commlenInit(void);
/* Ends the thread, blocking until it has left the port (at most 500 ms), and releases the port. */
QEL_API int QEL_commlenDeinit(void);

QEL_END_DECLS

#endif
