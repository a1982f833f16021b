// live.h - verbs that go on until they are told to end: what comes in is taken on a thread, so that the
// line is never left waiting for a slow terminal, and is printed by the main thread, which also listens to
// Ctrl-C.
#pragma once

#include <CLI/CLI.hpp>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>

#include "tools/qelctl/interrupt.h"

namespace qelctl {

// When it ends, beside Ctrl-C.
struct LiveChoice {
    double seconds = 0;
    uint64_t count = 0;  // of what the verb counts
    // `what`: "frames"; without it there is no --count.
    void add_to(CLI::App &verb, const char *what = nullptr);
};

class LiveRun {
public:
    explicit LiveRun(const LiveChoice &choice);
    // Starts the time of --timeout anew: waiting is what such a verb is for.
    bool goes_on() const;
    void counted(uint64_t more = 1) { counted_ += more; }
    bool has_counted_enough() const { return count_ != 0 && counted_ >= count_; }

private:
    Interrupt interrupt_;
    std::chrono::steady_clock::time_point end_;
    uint64_t count_;
    uint64_t counted_ = 0;
};

// On standard error, so that who waits knows that it is not in vain.
void say_listening_to(const std::string &what);

int64_t milliseconds_since_1970();
// "12:34:56.789", local time.
std::string clock_text(int64_t time_ms);

// From the threads that take to the one that prints. Bounded: who puts waits while it is full.
template <typename Item>
class LiveFeed {
public:
    void put(Item item) {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [this] { return items_.size() < kMostItems || ended_; });
        items_.push_back(std::move(item));
        changed_.notify_all();
    }

    // Nothing more will come, or nobody takes any more.
    void end() {
        const std::lock_guard<std::mutex> lock(mutex_);
        ended_ = true;
        changed_.notify_all();
    }

    bool ended() const {
        const std::lock_guard<std::mutex> lock(mutex_);
        return ended_;
    }

    // The next item; none when none came in time, or at the end. What was put before the end is handed out.
    std::optional<Item> take(std::chrono::milliseconds longest = std::chrono::milliseconds(100)) {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait_for(lock, longest, [this] { return !items_.empty() || ended_; });
        if (items_.empty()) return std::nullopt;
        std::optional<Item> first(std::move(items_.front()));
        items_.pop_front();
        changed_.notify_all();
        return first;
    }

private:
    static constexpr size_t kMostItems = 1024;

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Item> items_;
    bool ended_ = false;
};

}  // namespace qelctl
