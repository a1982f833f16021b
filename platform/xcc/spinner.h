// spinner.h - looks for a short answer before the thread goes to sleep for it.
//
// Waking a thread on another core costs more than most answers take. Where the caller may run on several
// cores it looks for a while, about as long as the last answers took; where looking did not pay it stops
// doing so, and tries again now and then. With one core it never looks: the peer needs that core.
#pragma once

#include <sched.h>
#include <algorithm>
#include <atomic>
#include <cstdint>

#include "platform/common/world.h"

namespace qel::xcc {

class Spinner {
public:
    // True when `done()` came true meanwhile. Threads may spin at once; the estimate is theirs together.
    template <typename Done>
    bool spin(Done done) {
        if (done()) return true;
        const int64_t budget_ns = next_budget_ns();
        if (budget_ns == 0) return false;
        const int64_t start_ns = platform::monotonic_ns();
        for (;;) {
            for (int i = 0; i < kLooksPerClock; ++i) {
                if (done()) {
                    const int64_t took_ns = platform::monotonic_ns() - start_ns;
                    budget_ns_.store(std::min(kMaxNs, (budget_ns + 2 * took_ns + kMinNs) / 2), kRelaxed);
                    return true;
                }
                pause();
            }
            if (platform::monotonic_ns() - start_ns >= budget_ns) break;
        }
        budget_ns_.store(budget_ns / 4, kRelaxed);
        return false;
    }

private:
    static constexpr auto kRelaxed = std::memory_order_relaxed;
    static constexpr int64_t kMaxNs = 100'000;
    static constexpr int64_t kMinNs = 2'000;  // less is not worth the look
    static constexpr int kLooksPerClock = 32;
    static constexpr uint32_t kCallsPerTrial = 256;

    static void pause() {
#if defined(__x86_64__) || defined(__i386__)
        __builtin_ia32_pause();
#elif defined(__arm__) || defined(__aarch64__)
        asm volatile("yield");
#endif
    }

    static bool has_several_cores() {
        cpu_set_t cores;
        return sched_getaffinity(0, sizeof cores, &cores) == 0 && CPU_COUNT(&cores) > 1;
    }

    int64_t next_budget_ns() {
        if (calls_.fetch_add(1, kRelaxed) % kCallsPerTrial == 0) {
            budget_ns_.store(has_several_cores() ? kMaxNs : 0, kRelaxed);
        }
        const int64_t budget_ns = budget_ns_.load(kRelaxed);
        return budget_ns >= kMinNs ? budget_ns : 0;
    }

    std::atomic<uint32_t> calls_{0};
    std::atomic<int64_t> budget_ns_{0};
};

}  // namespace qel::xcc
