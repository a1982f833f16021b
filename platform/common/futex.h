// futex.h - waiting for a 32-bit word to change. The word is aligned and changed by atomic operations only;
// here it is no more than an address.
#pragma once

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <ctime>

#include "platform/common/world.h"

namespace qel::platform {

enum class Scope { kProcess, kMachine };  // who may wait on the word

// A 32-bit system whose time_t has 64 bits speaks the newer call.
#if defined(SYS_futex_time64) && __SIZEOF_POINTER__ == 4
constexpr long kFutexCall = sizeof(time_t) == 8 ? SYS_futex_time64 : SYS_futex;
#else
constexpr long kFutexCall = SYS_futex;
#endif

// Returns when the word was signalled, no longer holds `expected`, a signal came or the time is over:
// the caller looks again. False only when the time is over.
inline bool futex_wait(const void *word, uint32_t expected, Deadline deadline, Scope scope) {
    timespec at{};
    at.tv_sec = static_cast<time_t>(deadline.at_ns() / 1'000'000'000);
    at.tv_nsec = static_cast<long>(deadline.at_ns() % 1'000'000'000);
    const int operation = FUTEX_WAIT_BITSET | (scope == Scope::kProcess ? FUTEX_PRIVATE_FLAG : 0);
    const long result = syscall(kFutexCall, word, operation, expected, deadline.is_never() ? nullptr : &at,
                                nullptr, FUTEX_BITSET_MATCH_ANY);
    return result == 0 || errno != ETIMEDOUT;
}

// Harmless on a word that is gone by now.
inline void futex_wake(const void *word, int waiters, Scope scope) {
    syscall(kFutexCall, word, FUTEX_WAKE | (scope == Scope::kProcess ? FUTEX_PRIVATE_FLAG : 0), waiters,
            nullptr, nullptr, 0);
}

}  // namespace qel::platform
