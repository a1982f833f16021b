// mutex.h - the module mutex: the OSA layer's, in a form the compiler can check.
//
// Made in a module's init and deleted in its deinit. A mutex that was not made (its module did not
// start) locks nothing: the calls that still work without their module need no second path.
#pragma once

#include "platform/include/osa.h"

#if defined(__clang__)
#define QEL_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define QEL_THREAD_ATTRIBUTE(x)
#endif
#define QEL_GUARDED_BY(mutex) QEL_THREAD_ATTRIBUTE(guarded_by(mutex))
#define QEL_REQUIRES(mutex) QEL_THREAD_ATTRIBUTE(requires_capability(mutex))

namespace qel {

class QEL_THREAD_ATTRIBUTE(capability("mutex")) Mutex {
public:
    int create() { return OSA_mutexCreate(&handle_); }
    // Not while somebody holds it: then it fails, and the mutex is lost all the same.
    int destroy() {
        const int status = handle_ != nullptr ? OSA_mutexDelete(&handle_) : 0;
        handle_ = nullptr;
        return status;
    }
    void lock() QEL_THREAD_ATTRIBUTE(acquire_capability()) {
        if (handle_ != nullptr) OSA_mutexLock(handle_);
    }
    void unlock() QEL_THREAD_ATTRIBUTE(release_capability()) {
        if (handle_ != nullptr) OSA_mutexUnlock(handle_);
    }

private:
    OSA_MutexHandle handle_ = nullptr;
};

class QEL_THREAD_ATTRIBUTE(scoped_lockable) MutexLock {
public:
    explicit MutexLock(Mutex &mutex) QEL_THREAD_ATTRIBUTE(acquire_capability(mutex)) : mutex_(mutex) {
        mutex_.lock();
    }
    ~MutexLock() QEL_THREAD_ATTRIBUTE(release_capability()) { mutex_.unlock(); }
    MutexLock(const MutexLock &) = delete;
    MutexLock &operator=(const MutexLock &) = delete;

private:
    Mutex &mutex_;
};

}  // namespace qel
