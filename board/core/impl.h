// impl.h - the inside of a Board, shared with the link of processes that enter it.
#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "board/core/board.h"
#include "board/core/lock.h"
#include "board/core/pump.h"
#include "board/core/unit.h"
#include "board/core/workplace.h"

namespace qel::board {

struct Board::Impl {
    Impl(const std::string &description, const Options &options);
    ~Impl();

    // Counts changes; waiting requests of this process sleep on it.
    void wake_waiting();
    // A test that leaves misuses behind has found a fault and must not pass.
    void stop_for_misuse();

    const Workplace workplace;
    const uint32_t ipc_salt;
    Mutex mutex;
    Unit unit QEL_GUARDED_BY(mutex);
    std::function<void(uint32_t)> on_ready QEL_GUARDED_BY(mutex);
    std::function<void()> on_changed QEL_GUARDED_BY(mutex);
    // Descriptors of devices that this process opened on its own board.
    std::unordered_map<uint32_t, int> local_descriptors QEL_GUARDED_BY(mutex);
    std::atomic<uint32_t> generation{0};
    bool entered = false;
    bool was_entered = false;
    std::string old_process_name;
    Pump pump;  // the last member: its thread ends before anything it uses
};

}  // namespace qel::board
