// thread.h - a thread that can be asked to end while it sleeps inside this layer.
#pragma once

#include <pthread.h>
#include <atomic>
#include <cstdint>

#include "platform/include/osa.h"

namespace qel::osa {

class Thread {
public:
    Thread(OSA_ThrEntry entry, void *arg, int priority, const char *name);
    Thread(const Thread &) = delete;
    Thread &operator=(const Thread &) = delete;

    // 0 or -1. `stack_bytes` 0 = the system's default.
    int start(unsigned stack_bytes);
    // Asks the thread to end and waits until it has. Not from the thread itself.
    void stop_and_join();
    bool is_self() const;
    bool stopping() const { return stopping_.load(std::memory_order_acquire); }

private:
    friend class StopScope;
    static void *run(void *self);
    void take_name_and_priority() const;

    const OSA_ThrEntry entry_;
    void *const arg_;
    const int priority_;
    char name_[16];  // what the kernel keeps of it
    pthread_t thread_{};
    std::atomic<bool> stopping_{false};
    std::atomic<uint32_t> ended_{0};
    std::atomic<const void *> waiting_on_{nullptr};
};

// While it lives, whoever stops the calling thread also wakes it from `word`.
class StopScope {
public:
    explicit StopScope(const void *word);
    ~StopScope();
    StopScope(const StopScope &) = delete;
    StopScope &operator=(const StopScope &) = delete;
    bool requested() const;

private:
    Thread *const self_;
};

}  // namespace qel::osa
