/*
 * gpio_driver.h - the requests of "/dev/gpio": what the library's GPIO object asks of the driver.
 *
 * Flat records of fixed width, the same on every word size. Lines are numbered from 0; the board says
 * how many there are (QEL_GPIO_GET_COUNT). Every request fails with ENOTTY when it is unknown, EFAULT
 * for a bad pointer and EINVAL for a line that does not exist or a value outside its range.
 */
#ifndef QEL_GPIO_DRIVER_H
#define QEL_GPIO_DRIVER_H

#include <stdint.h>

#define QEL_GPIO_DEVICE "/dev/gpio"

/* Argument: struct qel_gpio_line, but for the two that say otherwise. None but WAIT_EDGE blocks. */
#define QEL_GPIO_SET_DIRECTION 0x40084700u /* value: QEL_GPIO_IN or _OUT; an output keeps its level */
#define QEL_GPIO_GET_DIRECTION 0xC0084701u /* value out */
#define QEL_GPIO_WRITE 0x40084702u         /* value: 0 or 1; EPERM on an input */
#define QEL_GPIO_READ 0xC0084703u          /* value out: the level at the pin, 0 or 1 */
#define QEL_GPIO_SET_EDGE 0x40084704u      /* value: QEL_GPIO_EDGE_...; EPERM on an output */
#define QEL_GPIO_WAIT_EDGE 0xC0184705u     /* argument: struct qel_gpio_edge */
#define QEL_GPIO_GET_COUNT 0x80044706u     /* argument: uint32_t, the number of lines */

#define QEL_GPIO_IN 0u
#define QEL_GPIO_OUT 1u

#define QEL_GPIO_EDGE_NONE 0u
#define QEL_GPIO_EDGE_RISING 1u
#define QEL_GPIO_EDGE_FALLING 2u
#define QEL_GPIO_EDGE_BOTH 3u

struct qel_gpio_line {
    uint32_t line;
    uint32_t value;
};

/*
 * One edge. Edges are kept per open descriptor and line from SET_EDGE on, at most
 * QEL_GPIO_EDGE_QUEUE of them; of more the oldest are lost and counted. SET_EDGE forgets those kept.
 *
 * WAIT_EDGE takes the oldest edge of `line`, waiting `timeout_ms` for it (-1 = for ever, 0 = no wait):
 * ETIMEDOUT when none came, EAGAIN at once on a non-blocking descriptor, EINTR on a signal, EINVAL when
 * no edge was asked for on this descriptor and line. The descriptor polls readable while any edge is
 * kept; read() takes the oldest edge of all lines as one record and wants room for all of it (EINVAL).
 */
#define QEL_GPIO_EDGE_QUEUE 16u
struct qel_gpio_edge {
    uint32_t line;         /* in: the line; out: unchanged */
    int32_t timeout_ms;    /* in; out: unchanged, 0 in a record from read() */
    uint32_t edge;         /* out: QEL_GPIO_EDGE_RISING or _FALLING */
    uint32_t lost;         /* out: edges lost on this line before this one */
    uint64_t timestamp_us; /* out: monotonic, when it happened */
};

#endif
