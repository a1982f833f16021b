// semlock.cpp - locks that any thread may give back: a counting semaphore each. They need no table, so
// there is nothing to start.
#include "frame/log.h"
#include "qel/frame.h"

extern "C" {

int QEL_semLockInit(void) { return 0; }
int QEL_semLockDeinit(void) { return 0; }

int QEL_semLockCreate(QEL_SemLock *out, unsigned value) {
    return out != nullptr && value > 0 ? OSA_semCreate(out, value, value) : OSA_EFAIL;
}

int QEL_semLockDelete(QEL_SemLock *lock) {
    return lock != nullptr && *lock != nullptr ? OSA_semDelete(lock) : OSA_EFAIL;
}

int QEL_semLockLock(QEL_SemLock lock) {
    return lock != nullptr && OSA_semPend(lock, OSA_WAIT_FOREVER) == 0 ? 0 : OSA_EFAIL;
}

int QEL_semLockUnlock(QEL_SemLock lock) { return lock != nullptr && OSA_semPost(lock) == 0 ? 0 : OSA_EFAIL; }

int QEL_semLockGetValue(QEL_SemLock lock, unsigned *value) {
    return lock != nullptr && value != nullptr && OSA_semGetCount(lock, value) == 0 ? 0 : OSA_EFAIL;
}

}  // extern "C"
