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

struct OSA_Task;

#pragma GCC visibility push(default)

/* `param` points to a zeroed 32-bit word. May be called again; deinit undoes the last init. */
int OSA_init(void *param);
int OSA_deinit(void);

/*
 * Levels: 0 error, 1 warning, 2 information, 5 verbose. `attribute` only changes how a line looks.
 * Blocks only while the standard error stream does. Leaves errno as it was.
 */
int OSA_logWrite(int level, int attribute, const char *format, ...) __attribute__((format(printf, 3, 4)));

/* Zero-filled memory; NULL when there is none. Aligned blocks go back through OSA_memAlignFree. */
void *OSA_memCalloc(size_t bytes);
void *OSA_memAlloc(size_t bytes); /* not zero-filled */
void OSA_memFree(void *block);
void *OSA_memUCallocAlign(size_t bytes, size_t align); /* align: a power of two */
void OSA_memAlignFree(void *block);

/*
 * Mutex of one process, not recursive: locking it twice or unlocking another thread's fails. Deleting
 * one that is held fails.
 */
typedef void *OSA_MutexHandle;
int OSA_mutexCreate(OSA_MutexHandle *handle);
int OSA_mutexDelete(OSA_MutexHandle *handle); /* sets *handle to NULL */
int OSA_mutexLock(OSA_MutexHandle handle);
int OSA_mutexUnlock(OSA_MutexHandle handle);

/*
 * Counting semaphore of one process. Pend with 0 polls; a non-zero result on time-out. A post beyond
 * `max` fails and changes nothing. Deleting wakes nobody: whoever deletes has made sure that no thread
 * waits and none will; a thread that just came back from pend may delete.
 */
typedef void *OSA_SemHandle;
int OSA_semCreate(OSA_SemHandle *handle, unsigned max, unsigned initial);
int OSA_semPend(OSA_SemHandle handle, unsigned timeoutMs);
int OSA_semPost(OSA_SemHandle handle);
int OSA_semPostWhenEmpty(OSA_SemHandle handle); /* signals only when the count is 0; 0 either way */
int OSA_semGetCount(OSA_SemHandle handle, unsigned *count);
int OSA_semDelete(OSA_SemHandle *handle);

/* Queue of pointers with a fixed capacity, in order of arrival. Deleting wakes nobody. */
typedef void *OSA_QueHandle;
int OSA_queCreate(OSA_QueHandle *handle, unsigned maxLen);
int OSA_quePut(OSA_QueHandle handle, void *item, unsigned timeoutMs);
int OSA_queGet(OSA_QueHandle handle, void **item, unsigned timeoutMs);
int OSA_queDelete(OSA_QueHandle *handle);

/*
 * Threads. `stack` is in bytes, 0 = the default. `name`: the first 15 characters count. Without the
 * right to real-time priorities, and on a virtual board, the thread runs at the ordinary one.
 * OSA_thrDelete asks the thread to end and joins it: OSA_thrStopping turns true, sleeps end early, and
 * waits on semaphores, queues and message boxes fail instead of blocking (what is there is still taken).
 * A thread that waits elsewhere has to be woken by its owner first. Not for the thread's own handle.
 */
typedef void *OSA_ThrHandle;
typedef void *(*OSA_ThrEntry)(void *);
int OSA_thrCreateEx(OSA_ThrHandle *handle, OSA_ThrEntry entry, int priority, unsigned stack, void *arg,
                    const char *name);
int OSA_thrDelete(OSA_ThrHandle *handle);
int OSA_thrStopping(void); /* 1 when the calling thread or task is being deleted */
int OSA_thrGetMaxPri(void);
int OSA_thrGetMinPri(void);
int OSA_thrGetTid(void); /* the kernel's thread id */

/*
 * Task: a thread with a message box of 128 messages. Its entry is called once, with the parameter of
 * the first message; a task deleted before its first message never calls it. OSA_tskSendMsg does not
 * block: it fails while the box is full. `flags` is 0.
 */
typedef struct OSA_Task *OSA_TskHandle;
typedef int (*OSA_TskEntry)(OSA_TskHandle self, void *firstMsg, void *arg);
#define OSA_TSK_CMD_EXIT                                                              \
    0xFFFFFFFFu /* return from the entry: the task is being deleted, its box is empty \
                 */
int OSA_tskCreate(OSA_TskHandle *handle, OSA_TskEntry entry, int priority, unsigned stack, void *arg,
                  const char *name);
int OSA_tskSendMsg(OSA_TskHandle to, unsigned cmd, void *prm, unsigned flags);
/* Waits for the next message: its command in *cmd and parameter in *prm, either may be NULL. */
int OSA_tskWaitMsg(OSA_TskHandle self, unsigned *cmd, void **prm, unsigned timeoutMs);
int OSA_tskDelete(OSA_TskHandle *handle); /* as OSA_thrDelete */

/*
 * System V semaphores and shared memory. A key is made from an existing file and a number from 1 to
 * 255. Semaphore 0 of a set is the lock; the kernel undoes a lock when its holder dies. With `create`
 * the object is opened if it exists and made otherwise; a new set starts with `initial` in each of its
 * `nsems` (1 to 32) semaphores, whoever dies meanwhile. Every process gives the same `nsems`.
 * Unlocking what this handle does not hold fails.
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
 * Reference library only: sends every line to `new_sink` instead of the standard error stream, NULL to
 * stop. The level filter does not apply to a sink. `line` is the formatted text. Once the call has
 * returned no thread is inside the sink before. A sink does not call OSA_logSetSink; what it logs
 * itself goes to the standard error stream.
 */
typedef void (*OSA_LogSink)(void *context, int level, int attribute, const char *line);
void OSA_logSetSink(OSA_LogSink new_sink, void *context);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
