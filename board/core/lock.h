// lock.h - a mutex that clang's thread-safety analysis understands.
#pragma once

#include <mutex>

#if defined(__clang__)
#define QEL_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define QEL_THREAD_ATTRIBUTE(x)
#endif
#define QEL_GUARDED_BY(x) QEL_THREAD_ATTRIBUTE(guarded_by(x))
#define QEL_REQUIRES(x) QEL_THREAD_ATTRIBUTE(requires_capability(x))

namespace qel::board {

class QEL_THREAD_ATTRIBUTE(capability("mutex")) Mutex {
public:
    void lock() QEL_THREAD_ATTRIBUTE(acquire_capability()) { mutex_.lock(); }
    void unlock() QEL_THREAD_ATTRIBUTE(release_capability()) { mutex_.unlock(); }

private:
    std::mutex mutex_;
};

class QEL_THREAD_ATTRIBUTE(scoped_lockable) Lock {
public:
    explicit Lock(Mutex &mutex) QEL_THREAD_ATTRIBUTE(acquire_capability(mutex)) : mutex_(mutex) {
        mutex_.lock();
    }
    ~Lock() QEL_THREAD_ATTRIBUTE(release_capability()) { mutex_.unlock(); }
    Lock(const Lock &) = delete;
    Lock &operator=(const Lock &) = delete;

private:
    Mutex &mutex_;
};

}  // namespace qel::board
