/*
 * system.h - the system and the small devices of the board: watchdog, general-purpose lines,
 * real-time clock, network and others.
 */
#ifndef QEL_SYSTEM_H
#define QEL_SYSTEM_H

#include "qel/frame.h"
#include "qel/gpio_driver.h"

QEL_BEGIN_DECLS

/* ---- watchdog ---- */

#define QEL_WDT_FEED_SOFTWARE 1
#define QEL_WDT_FEED_HARDWARE 2
#define QEL_WDT_FEED_BOTH 3

/* Feeds a watchdog; type 1 to 3. Opens the device when first used. Does not block. */
QEL_API int QEL_wdtFeed(int type);
/* Closes the device; 0 also when it was not open. The next feed opens it again. */
QEL_API int QEL_wdtClose(void);

/*
 * The watchdog as an object; one per process. Beware: it is handed out with NO reference, so
 * release() right after createWatchdog() does nothing and the object stays. Take a reference with
 * addRef() first; the release() that gives up the last one closes the device and frees the record.
 */
typedef struct Watchdog Watchdog;
struct Watchdog {
    void *priv;
    int (*addRef)(Watchdog *thiz);
    int (*release)(Watchdog *thiz);
    /* The device operations are not available yet: -1, with a line in the log. */
    int (*third)(Watchdog *thiz);
    int (*set_time)(Watchdog *thiz, unsigned period_s);
    int (*start)(Watchdog *thiz);
    int (*stop)(Watchdog *thiz);
    int (*seventh)(Watchdog *thiz);
    int (*feed)(Watchdog *thiz);
};

/* -1 while one exists (*out is then left alone), for a null `out` and without memory. */
QEL_API int createWatchdog(Watchdog **out);

/* ---- general-purpose lines ---- */

/* Directions and edges (QEL_GPIO_IN, _OUT, QEL_GPIO_EDGE_...) are the driver's. */
typedef struct {
    uint32_t line;
    uint32_t edge;         /* QEL_GPIO_EDGE_RISING or _FALLING: what happened */
    uint32_t lost;         /* older edges of this line that the driver had to drop */
    uint32_t reserved;     /* 0 */
    uint64_t timestamp_us; /* of the driver's monotonic clock */
} GpioEvent;

/*
 * The lines of "/dev/gpio". Lines are numbered from 0; a line that the board does not have fails
 * with -1, as does every operation that the driver refuses. Each object has a descriptor of its own,
 * several may exist; events go to the object that asked for them. An object may be used by several
 * threads, but not released while another thread is in it.
 */
typedef struct GPIO GPIO;
struct GPIO {
    void *priv;
    int (*addRef)(GPIO *thiz);
    int (*release)(GPIO *thiz);
    int (*set_direction)(GPIO *thiz, unsigned line, int direction);  /* QEL_GPIO_IN or _OUT */
    int (*get_direction)(GPIO *thiz, unsigned line, int *direction); /* fills *direction */
    int (*write)(GPIO *thiz, unsigned line, int level);              /* 0 or 1; outputs only */
    int (*read)(GPIO *thiz, unsigned line, int *level);              /* fills *level: 0 or 1 */
    int (*set_edge)(GPIO *thiz, unsigned line, int edge);            /* QEL_GPIO_EDGE_...; inputs only */
    /*
     * Waits for an edge on any line that set_edge armed on this object, at most timeout_ms (-1 = for
     * ever, 0 = not at all). 0 with the oldest event in *event, -2 when the time is over, -1 on
     * failure.
     */
    int (*wait_edge)(GPIO *thiz, GpioEvent *event, int timeout_ms);
};

/* Opens the device; the caller owns the one reference. -1 and *out = NULL on failure. */
QEL_API int createGPIO(GPIO **out);

/* ---- board record ---- */

/*
 * A hardware address was set: 0 "ethaddr", 1 "ethaddr1", 2 "wifiaddr". Called by the boot environment
 * while it is locked: must not use a boot parameter. The record is not kept yet; the change is logged.
 */
QEL_API int QEL_recordSetMacChange(unsigned index, const unsigned char mac[6]);

/* ---- chain ---- */

QEL_API int QEL_rtcInit(void);
QEL_API int QEL_rtcDeinit(void);
QEL_API int QEL_fpgaInit(void);
QEL_API int QEL_fpgaDeinit(void);
QEL_API int QEL_heatInit(void);
QEL_API int QEL_heatDeinit(void);
QEL_API int QEL_recordInit(void);
QEL_API int QEL_recordDeinit(void);
QEL_API int QEL_netInit(void);
QEL_API int QEL_netDeInit(void);
QEL_API int QEL_coprocInit(void);
QEL_API int QEL_coprocDeinit(void);

/* ---- forwarding: registered by QEL_adapterInit ---- */

QEL_API int SYSTEM_adapterInit(void);
QEL_API int SYSTEM_adapterDeInit(void);

QEL_END_DECLS

#endif
