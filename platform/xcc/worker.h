// worker.h - the thread that watches a channel's connections, and the word by which others hear of it.
#pragma once

#include <pthread.h>
#include <atomic>
#include <cstdint>

#include "platform/common/socket.h"

namespace qel::xcc {

// Calls body(context) on a thread of its own. The owner makes the body return before it joins.
class Worker {
public:
    ~Worker();
    int start(void *(*body)(void *), void *context, const char *name);
    void join();
    bool is_running() const { return running_; }
    // What the body polls; set until cleared.
    int signal_fd() const { return signal_.get(); }
    void signal();
    void clear_signal();

private:
    platform::Fd signal_;
    pthread_t thread_{};
    bool running_ = false;
};

// A word that changes when something has happened.
class Event {
public:
    uint32_t seen() const { return word_.load(); }
    void happened();
    // Returns when something has happened since `seen`; false when the time is over.
    bool wait(uint32_t seen, platform::Deadline deadline) const;

private:
    std::atomic<uint32_t> word_{0};
};

}  // namespace qel::xcc
