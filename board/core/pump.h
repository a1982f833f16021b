// pump.h - the one thread of a board: it lets the runners run (runner.h).
#pragma once

#include <memory>

#include "board/core/lock.h"
#include "board/core/unit.h"

namespace qel::board {

// No thread before the first wake(), none for boards that never need one. A child after fork() gets one of
// its own at its first wake().
class Pump {
public:
    Pump(Mutex &mutex, Unit &unit);
    ~Pump();
    Pump(const Pump &) = delete;
    Pump &operator=(const Pump &) = delete;

    // With the board's lock held.
    void wake();

private:
    struct Worker;
    bool start();
    void loop(const Worker &worker);

    Mutex &mutex_;
    Unit &unit_;
    std::unique_ptr<Worker> worker_;
};

}  // namespace qel::board
