// runner.h - what a model does between the requests: serve descriptors of the host, act when it is time.
#pragma once

#include <poll.h>
#include <cstdint>
#include <vector>

namespace qel::board {

// What the runners of a board wait for.
struct RunnerWaits {
    std::vector<pollfd> fds;
    int64_t deadline_us = -1;  // of the board's clock; -1 = none

    void watch(int fd, short events) { fds.push_back({fd, events, 0}); }
    void wake_at(int64_t us) {
        if (deadline_us < 0 || us < deadline_us) deadline_us = us;
    }
};

// One thread of the board calls it with the board's lock held (pump.h): it must not block, and needs no lock.
class Runner {
public:
    virtual ~Runner() = default;
    // Does what is due and says what it waits for next. Called for every runner whenever something came for
    // one of them: what is there, it finds out itself.
    virtual void run(RunnerWaits &waits) = 0;
};

}  // namespace qel::board
