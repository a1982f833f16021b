// basics.cpp - life cycle, memory, mutexes, time.
#include <pthread.h>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>

#include "platform/osa/log.h"
#include "platform/osa/wait.h"

namespace {

std::atomic<int> users{0};

int status_of(int error) { return error == 0 ? 0 : OSA_EFAIL; }

pthread_mutex_t *mutex_of(OSA_MutexHandle handle) { return static_cast<pthread_mutex_t *>(handle); }

}  // namespace

extern "C" {

int OSA_init(void *param) {
    if (param == nullptr) return OSA_EFAIL;
    qel::osa::read_log_settings();
    users.fetch_add(1);
    return 0;
}

int OSA_deinit(void) {
    int count = users.load();
    while (count > 0) {
        if (users.compare_exchange_weak(count, count - 1)) return 0;
    }
    return OSA_EFAIL;
}

void *OSA_memAlloc(size_t bytes) { return malloc(bytes != 0 ? bytes : 1); }

void *OSA_memCalloc(size_t bytes) { return calloc(1, bytes != 0 ? bytes : 1); }

void OSA_memFree(void *block) { free(block); }

void *OSA_memUCallocAlign(size_t bytes, size_t align) {
    if (align == 0 || (align & (align - 1)) != 0) return nullptr;
    void *block = nullptr;
    const size_t least = align < sizeof(void *) ? sizeof(void *) : align;
    if (posix_memalign(&block, least, bytes != 0 ? bytes : 1) != 0) return nullptr;
    return memset(block, 0, bytes);
}

void OSA_memAlignFree(void *block) { free(block); }

int OSA_mutexCreate(OSA_MutexHandle *handle) {
    if (handle == nullptr) return OSA_EFAIL;
    *handle = nullptr;
    auto *const mutex = new (std::nothrow) pthread_mutex_t;
    if (mutex == nullptr) return OSA_EFAIL;
    // Locking twice, or unlocking another thread's, is an error instead of a hang.
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
    const int failure = pthread_mutex_init(mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
    if (failure != 0) {
        delete mutex;
        return OSA_EFAIL;
    }
    *handle = mutex;
    return 0;
}

int OSA_mutexDelete(OSA_MutexHandle *handle) {
    if (handle == nullptr || *handle == nullptr) return OSA_EFAIL;
    if (pthread_mutex_destroy(mutex_of(*handle)) != 0) return OSA_EFAIL;  // somebody holds it
    delete mutex_of(*handle);
    *handle = nullptr;
    return 0;
}

int OSA_mutexLock(OSA_MutexHandle handle) {
    return handle != nullptr ? status_of(pthread_mutex_lock(mutex_of(handle))) : OSA_EFAIL;
}

int OSA_mutexUnlock(OSA_MutexHandle handle) {
    return handle != nullptr ? status_of(pthread_mutex_unlock(mutex_of(handle))) : OSA_EFAIL;
}

void OSA_sleepMs(unsigned ms) {
    const std::atomic<uint32_t> nobody{0};
    const auto deadline = qel::osa::Deadline::after_ms(ms);
    while (qel::osa::wait_on(&nobody, 0, deadline) == qel::osa::Wait::kSignalled) {
    }
}

uint64_t OSA_timeMs(void) {
    using namespace qel::platform;
    // Whole seconds apart, so that the product cannot overflow.
    const auto now_ns = static_cast<uint64_t>(monotonic_ns());
    const auto scale = static_cast<uint64_t>(time_scale());
    return now_ns / 1'000'000'000 * 1000 * scale + now_ns % 1'000'000'000 * scale / 1'000'000;
}

}  // extern "C"
