/*
 * osa.h - the operating-system abstraction that the library runs on.
 *
 * A device brings its own libosa.so; the reference one in platform/osa is for Linux hosts. All calls
 * return 0 or a negative value unless they say otherwise. Time-outs and sleeps are milliseconds and
 * are divided by the time scale when the process lives on a virtual board.
 */
#ifndef QEL_PLATFORM_OSA_H
#define QEL_PLATFORM_OSA_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#ifndef OSA_EFAIL
#define OSA_EFAIL (-1)
#endif
#define OSA_WAIT_FOREVER 0xFFFFFFFFu

/* `param` points to a zeroed 32-bit word. May be called again; deinit undoes the last init. */
int OSA_init(void *param);
int OSA_deinit(void);

/* Levels: 0 error, 1 warning, 2 information, 5 verbose. `attribute` only changes how a line looks. */
int OSA_logWrite(int level, int attribute, const char *format, ...) __attribute__((format(printf, 3, 4)));

/* Zero-filled memory; NULL when there is none. Aligned blocks go back through OSA_memAlignFree. */
void *OSA_memCalloc(size_t bytes);
void *OSA_memAlloc(size_t bytes); /* not zero-filled */
void OSA_memFree(void *block);
void *OSA_memUCallocAlign(size_t bytes, size_t align); /* align: a power of two */
void OSA_memAlignFree(void *block);

/* Mutex of one process, not recursive. */
typedef void *OSA_MutexHandle;
int OSA_mutexCreate(OSA_MutexHandle *handle);
int OSA_mutexDelete(OSA_MutexHandle *handle); /* sets *handle to NULL */
int OSA_mutexLock(OSA_MutexHandle handle);
int OSA_mutexUnlock(OSA_MutexHandle handle);

/* Counting semaphore of one process. Pend with 0 polls; a non-zero result on time-out. */
typedef void *OSA_SemHandle;
int OSA_semCreate(OSA_SemHandle *handle, unsigned max, unsigned initial);
int OSA_semPend(OSA_SemHandle handle, unsigned timeoutMs);
int OSA_semPost(OSA_SemHandle handle);
int OSA_semPostWhenEmpty(OSA_SemHandle handle); /* signals only when the count is 0; 0 either way */
int OSA_semGetCount(OSA_SemHandle handle, unsigned *count);
int OSA_semDelete(OSA_SemHandle *handle);

/* Queue of pointers with a fixed capacity. */
typedef void *OSA_QueHandle;
int OSA_queCreate(OSA_QueHandle *handle, unsigned maxLen);
int OSA_quePut(OSA_QueHandle handle, void *item, unsigned timeoutMs);
int OSA_queGet(OSA_QueHandle handle, void **item, unsigned timeoutMs);
int OSA_queDelete(OSA_QueHandle *handle);

/*
 * Threads. `stack` is in bytes, 0 = the default. Without the right to real-time priorities the
 * thread runs at the ordinary one. OSA_thrDelete asks the thread to end (OSA_thrStopping turns true
 * and waits inside OSA end early) and joins it.
 */
typedef void *OSA_ThrHandle;
typedef void *(*OSA_ThrEntry)(void *);
int OSA_thrCreateEx(OSA_ThrHandle *handle, OSA_ThrEntry entry, int priority, unsigned stack, void *arg,
                    const char *name);
int OSA_thrDelete(OSA_ThrHandle *handle);
int OSA_thrGetMaxPri(void);
int OSA_thrGetMinPri(void);
int OSA_thrGetTid(void); /* the kernel's thread id */

/* Task: a thread with a message box. Its entry is called once, with the first message. */
typedef struct OSA_Task *OSA_TskHandle;
typedef int (*OSA_TskEntry)(OSA_TskHandle self, void *firstMsg, void *arg);
#define OSA_TSK_CMD_EXIT 0xFFFFFFFFu /* what OSA_tskDelete sends: return from the entry */
int OSA_tskCreate(OSA_TskHandle *handle, OSA_TskEntry entry, int priority, unsigned stack, void *arg,
                  const char *name);
int OSA_tskSendMsg(OSA_TskHandle to, unsigned cmd, void *prm, unsigned flags);
/* Waits for the next message: its command in *cmd and parameter in *prm, either may be NULL. */
int OSA_tskWaitMsg(OSA_TskHandle self, unsigned *cmd, void **prm, unsigned timeoutMs);
int OSA_tskDelete(OSA_TskHandle *handle); /* sends the exit command and joins */

/*
 * System V semaphores and shared memory. A key is made from an existing file and a small number.
 * Locks are undone by the kernel when their holder dies.
 */
int OSA_ipcMakeKey(const char *path, int projId, int *key);
typedef void *OSA_IpcSem;
int OSA_ipcSemOpen(OSA_IpcSem *sem, int key, int create, unsigned nsems, unsigned initial);
int OSA_ipcSemLock(OSA_IpcSem sem, unsigned timeoutMs);
int OSA_ipcSemUnlock(OSA_IpcSem sem);
int OSA_ipcSemClose(OSA_IpcSem *sem); /* frees the handle; the semaphore itself stays */
/* create 0: only an existing segment. Returns 1 when it was created (and is all zero), else 0. */
int OSA_ipcShmOpen(int key, size_t bytes, int create, void **address);
int OSA_ipcShmDetach(void *address);

void OSA_sleepMs(unsigned ms);
uint64_t OSA_timeMs(void); /* monotonic, in the world's milliseconds */

/*
 * Reference library only: sends every line to `sink` instead of the standard error stream, NULL to
 * stop. The level filter does not apply to a sink. `line` is the formatted text.
 */
typedef void (*OSA_LogSink)(void *context, int level, int attribute, const char *line);
void OSA_logSetSink(OSA_LogSink sink, void *context);

#ifdef __cplusplus
}
#endif

#endif
