/*
 * frame.h - the library's frame: start-up and shut-down, device objects, forwarding between the
 * chips of a unit, notification.
 *
 * There is no open call. Loading the library runs the start-up chain on the loading thread,
 * unloading it (or leaving the process) the shut-down chain. A failing step is logged and the chain
 * goes on; so a loaded library may hold modules that did not start, and their calls fail.
 *
 * On a unit of several chips, loading blocks until the same process on the other chips has loaded
 * the library too, without limit. A process whose name contains none of "vesta", "VideoDaemon" and
 * "systools" opens no channels and does not wait.
 *
 * All calls return 0 or a negative status unless they say otherwise. Calls may be made from any
 * thread between loading and unloading; the pairs marked "chain" are made by the chains.
 */
#ifndef QEL_FRAME_H
#define QEL_FRAME_H

#include "qel/types.h"

QEL_BEGIN_DECLS

/* ---- start-up and shut-down ---- */

/* The library's constructor and destructor. Never call them: the loader does. */
QEL_API int QEL_preInit(void);
QEL_API int QEL_preDeinit(void);

/* Logs its own name. A program that refers to one of these two is linked to the library for sure. */
QEL_API void QEL_staticInit(void);
QEL_API int sysStaticInit(void); /* the same; 0 */

/* ---- device objects ---- */

/*
 * A device object is a record made by create<Thing>(). Its first field points to private state,
 * then come operations that take the record itself, `addRef` and `release` first. The creator owns
 * one reference unless the kind says otherwise; the last `release` closes the device and frees the
 * record. Operations return -1 for a record that fails its check, with a line in the log.
 */
#define QEL_OBJECT_KINDS 20
#define QEL_OBJECT_GPIO 5
#define QEL_OBJECT_WATCHDOG 6

/*
 * One word per singleton kind; bit 0 is set while an object of the kind exists. For reading only.
 * Creating the same kind from two threads at once is not guarded.
 */
extern QEL_API uint32_t g_obj_created_libdvr[QEL_OBJECT_KINDS];

/*
 * The check of all object operations, to the given depth:
 *   0 or less  nothing        1  the record        2  and its private state
 *   3 or more  and that its device is open
 * Returns 0; -1 no record; -2 no private state; -3 device not open. Failures are logged with
 * `caller` in front.
 */
QEL_API int verify_para_comm(void *thiz, int depth, const char *caller);

/* ---- forwarding between the chips of a unit ---- */

/*
 * A request to another chip: this header, directly followed by `length` bytes of payload in the
 * same block of memory. The answer comes back in the same block and is never longer. Little-endian.
 */
typedef struct {
    uint32_t chip;      /* target, 1 to chips - 1 */
    int32_t timeout;    /* ms that the call may wait for the answer, -1 = for ever */
    uint32_t needReply; /* 1: the call returns with the answer; 0 in the answer */
    uint32_t replied;   /* 0; 1 in the answer */
    uint32_t module;    /* QEL_MODULE_... */
    uint32_t cmd;       /* command within the module */
    uint32_t length;    /* bytes of payload, at most QEL_ADAPTER_MAX_PAYLOAD */
    uint32_t tid;       /* thread of the sender; filled in by QEL_adapterMasterProc */
} AdapterMsg;

#define QEL_ADAPTER_HEADER_BYTES 32u
#define QEL_ADAPTER_CHANNEL_BYTES 0x100000u
#define QEL_ADAPTER_MAX_PAYLOAD (QEL_ADAPTER_CHANNEL_BYTES - QEL_ADAPTER_HEADER_BYTES)
#define QEL_ADAPTER_PAYLOAD(msg) ((void *)((msg) + 1))

enum {
    QEL_MODULE_PRODUCT = 0,
    QEL_MODULE_VIDEO_INPUT = 1,
    QEL_MODULE_FLASH = 2,
    QEL_MODULE_PERIPHERAL_UPGRADE = 3,
    QEL_MODULE_CONFIG = 4,
    QEL_MODULE_VIDEO_PROCESS = 5,
    QEL_MODULE_VISCA = 6,
    QEL_MODULE_SYSTEM = 7,
    QEL_MODULE_ENVIRONMENT = 8,
    QEL_MODULE_IDS = 45 /* ids are 0 to 44 */
};

/*
 * Serves one module's requests on a slave chip. `msg` and its payload are the handler's until it
 * returns; `length` has been checked against what arrived. Returns 0 with the answer in the payload;
 * any other value is logged and no answer is sent. Runs on the sender's own task: requests of one
 * thread come in order, those of several threads at the same time.
 */
typedef int (*AdapterProc)(AdapterMsg *msg);

/*
 * Sends `msg` from the master and, with needReply 1, blocks until the answer stands in it. -1 for a
 * bad message or where there are no channels (one chip, a slave, another process), else the status
 * of the channel: negative on a time-out, when the slave refuses the request and when it dies. After
 * a failure the payload is undefined. The memory stays the caller's.
 */
QEL_API int QEL_adapterMasterProc(AdapterMsg *msg);

/*
 * Attaches a handler to a module id, in place of an earlier one: -1 for a null handler or an id
 * above 44. Detaching waits until the handler's running calls have returned; never call it from
 * within the handler.
 */
QEL_API int QEL_adapterSlaveAttachProc(AdapterProc handler, unsigned id);
QEL_API int QEL_adapterSlaveDetachProc(unsigned id);

/* Chips this process reaches, itself included: those of the unit on a master, 1 everywhere else. */
QEL_API unsigned QEL_adapterGetChipNum(void);

/*
 * Who the process is, by its name when first asked: 1 "VideoDaemon", 2 "vesta", 4 "systools", -1
 * any other. Channels join only processes of the same identity.
 */
QEL_API int QEL_adapterGetProcessID(void);

/* Logs the first bytes of a message (at most 1024 of `bytes`) at the verbose level, `tag` in front. */
QEL_API void QEL_adapterPrintBuffer(const char *tag, const AdapterMsg *msg, unsigned bytes);

/* The pieces of the layer, called by the chain and by each other; chip numbers and counts as in
 * QEL_getChipInfo. The two Init calls assert that they fit the role. */
QEL_API int QEL_adapterPreInit(void);   /* chain; blocks until the other chips are there */
QEL_API int QEL_adapterInit(void);      /* chain */
QEL_API int QEL_adapterDeinit(void);    /* chain */
QEL_API int QEL_adapterPreDeinit(void); /* chain; ends all threads of the layer */
QEL_API int QEL_adapterMasterInit(unsigned chip, unsigned count);
QEL_API int QEL_adapterMasterDeInit(void);
QEL_API int QEL_adapterSlaveInit(unsigned chip, unsigned count);
QEL_API int QEL_adapterSlaveDeInit(void);
QEL_API int QEL_openMasterXcc(unsigned slave, unsigned count, uintptr_t *handle);
QEL_API int QEL_openSlaveXcc(unsigned chip, unsigned count, uintptr_t *handle);
/* The task that serves one sending thread: an OSA_TskEntry. */
struct OSA_Task;
QEL_API int QEL_adapterSlaveTskRun(struct OSA_Task *self, void *firstMsg, void *arg);

/* ---- locks of one process that any thread may give back ---- */

typedef void *QEL_SemLock;
/* `value`: how many may hold it at once, 1 or more. */
QEL_API int QEL_semLockCreate(QEL_SemLock *out, unsigned value);
QEL_API int QEL_semLockDelete(QEL_SemLock *lock); /* sets *lock to NULL; nobody may wait for it */
QEL_API int QEL_semLockLock(QEL_SemLock lock);    /* waits without limit; not recursive */
QEL_API int QEL_semLockUnlock(QEL_SemLock lock);  /* -1 when nobody holds it */
QEL_API int QEL_semLockGetValue(QEL_SemLock lock, unsigned *value); /* how many may still take it */
QEL_API int QEL_semLockInit(void);                                  /* chain */
QEL_API int QEL_semLockDeinit(void);                                /* chain */

/* ---- notification, events: chain pairs; their services come later ---- */

QEL_API int QEL_notifyInit(void);
QEL_API int QEL_eventInit(void);
QEL_API int QEL_eventDeinit(void);

QEL_END_DECLS

#endif
