// runner.h - what a model does between the requests: serve descriptors of the host, act when it is time.
#pragma once

#include <poll.h>
#include <cstdint>
#include <span>
#include <vector>

namespace qel::board {

// What the runners of a board wait for.
struct RunnerWaits {
    std::vector<pollfd> fds;
    std::vector<size_t> begins;  // of each runner's descriptors in `fds`
    int64_t deadline_us = -1;    // of the board's clock; -1 = none

    void watch(int fd, short events) { fds.push_back({fd, events, 0}); }
    void wake_at(int64_t us) {
        if (deadline_us < 0 || us < deadline_us) deadline_us = us;
    }
    size_t begin_of(size_t runner) const { return runner < begins.size() ? begins[runner] : fds.size(); }
};

// The events that came for a descriptor; 0 = none, or it was not watched.
inline short events_of(std::span<const pollfd> ready, int fd) {
    for (const pollfd &entry : ready) {
        if (entry.fd == fd) return entry.revents;
    }
    return 0;
}

// One thread of the board calls it with the board's lock held (pump.h): it must not block, and needs no lock.
class Runner {
public:
    virtual ~Runner() = default;
    // Does what is due and says what it waits for next. `ready`: what it watched last, with the events that
    // came. Called for every runner whenever something came for one of them.
    virtual void run(std::span<const pollfd> ready, RunnerWaits &waits) = 0;
};

}  // namespace qel::board
