// spinner.h - looks for a short answer before the thread goes to sleep for it.
//
// To sleep and be woken costs more than most answers take. So the caller looks for the answer for a
// while, about twice as long as answers usually take, and lets others run between two looks: on the same
// core that is how the peer gets to its work at all. Unless most answers come in that time it stops
// looking and tries again later, ever more seldom: where others want the core too, a look costs their
// whole turn.
#pragma once

#include <sched.h>
#include <algorithm>
#include <atomic>
#include <cstdint>

#include "platform/common/world.h"

namespace qel::xcc {

class Spinner {
public:
    // True when `done()` came true meanwhile. Threads may spin at once; what they learn is theirs together.
    template <typename Done>
    bool spin(Done done) {
        if (done()) return true;
        const uint32_t call = calls_.fetch_add(1, kRelaxed);
        if (credit_.load(kRelaxed) <= 0 && !try_again(call)) return false;
        const int credit = credit_.load(kRelaxed);
        const int64_t usual_ns = usual_ns_.load(kRelaxed);
        const int64_t start_ns = platform::monotonic_ns();
        const int64_t limit_ns = std::min(kMaxNs, 2 * usual_ns + kMinNs);
        int64_t taken_ns = 0;
        bool came = false;
        while (!came && taken_ns < limit_ns) {
            sched_yield();
            for (int i = 0; i < kLooksPerYield && !came; ++i) {
                came = done();
                relax();
            }
            taken_ns = platform::monotonic_ns() - start_ns;
        }
        // One that came late, because others had the core meanwhile, would have been quicker asleep.
        if (came && taken_ns < limit_ns) {
            usual_ns_.store((7 * usual_ns + taken_ns) / 8, kRelaxed);
            credit_.store(std::min(credit + 1, kMaxCredit), kRelaxed);
            if (credit + 1 >= kMaxCredit) pause_calls_.store(kLeastPauseCalls, kRelaxed);
        } else {
            credit_.store(credit - kMissCost, kRelaxed);
            if (credit <= kMissCost) pause_from(call);
        }
        return came;
    }

private:
    static constexpr auto kRelaxed = std::memory_order_relaxed;
    static constexpr int64_t kMaxNs = 100'000;
    static constexpr int64_t kMinNs = 5'000;
    static constexpr int64_t kTrialNs = 20'000;
    static constexpr int kLooksPerYield = 16;
    static constexpr int kMissCost = 4;  // answers in time that make up for one that was late
    static constexpr int kTrialCredit = kMissCost;
    static constexpr int kMaxCredit = 4 * kMissCost;
    static constexpr uint32_t kLeastPauseCalls = 256;
    static constexpr uint32_t kMostPauseCalls = 16384;

    static void relax() {
#if defined(__x86_64__) || defined(__i386__)
        __builtin_ia32_pause();
#elif defined(__arm__) || defined(__aarch64__)
        asm volatile("yield");
#endif
    }

    bool try_again(uint32_t call) {
        if (static_cast<int32_t>(call - next_trial_.load(kRelaxed)) < 0) return false;
        usual_ns_.store(kTrialNs, kRelaxed);
        credit_.store(kTrialCredit, kRelaxed);
        return true;
    }

    void pause_from(uint32_t call) {
        const uint32_t calls = pause_calls_.load(kRelaxed);
        next_trial_.store(call + calls, kRelaxed);
        pause_calls_.store(std::min(2 * calls, kMostPauseCalls), kRelaxed);
    }

    std::atomic<uint32_t> calls_{0};
    std::atomic<uint32_t> next_trial_{0};
    std::atomic<uint32_t> pause_calls_{kLeastPauseCalls};
    std::atomic<int> credit_{0};
    std::atomic<int64_t> usual_ns_{0};
};

}  // namespace qel::xcc
