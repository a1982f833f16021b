// mutex.h - a mutex that the compiler can check: which state it guards, who must hold it.
#pragma once

#include <pthread.h>

#if defined(__clang__)
#define QEL_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define QEL_THREAD_ATTRIBUTE(x)
#endif
#define QEL_CAPABILITY(x) QEL_THREAD_ATTRIBUTE(capability(x))
#define QEL_SCOPED_CAPABILITY QEL_THREAD_ATTRIBUTE(scoped_lockable)
#define QEL_GUARDED_BY(x) QEL_THREAD_ATTRIBUTE(guarded_by(x))
#define QEL_REQUIRES(...) QEL_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define QEL_ACQUIRE(...) QEL_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define QEL_RELEASE(...) QEL_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))

namespace qel::platform {

class QEL_CAPABILITY("mutex") Mutex {
public:
    Mutex() = default;
    Mutex(const Mutex &) = delete;
    Mutex &operator=(const Mutex &) = delete;
    ~Mutex() { pthread_mutex_destroy(&mutex_); }
    void lock() QEL_ACQUIRE() { pthread_mutex_lock(&mutex_); }
    void unlock() QEL_RELEASE() { pthread_mutex_unlock(&mutex_); }

private:
    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
};

class QEL_SCOPED_CAPABILITY Lock {
public:
    explicit Lock(Mutex &mutex) QEL_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
    ~Lock() QEL_RELEASE() { mutex_.unlock(); }
    Lock(const Lock &) = delete;
    Lock &operator=(const Lock &) = delete;

private:
    Mutex &mutex_;
};

}  // namespace qel::platform
