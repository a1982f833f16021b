// spinner.h - looks for a short answer before the thread goes to sleep for it.
//
// To sleep and be woken costs more than most answers take. So the caller looks for the answer for a
// while, about twice as long as answers usually take, and lets others run between two looks: on the same
// core that is how the peer gets to its work at all. Unless most answers come in that time it stops
// looking, and tries again now and then.
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
        if (calls_.fetch_add(1, kRelaxed) % kCallsPerTrial == 0) start_trial();
        const int credit = credit_.load(kRelaxed);
        if (credit <= 0) return false;
        const int64_t usual_ns = usual_ns_.load(kRelaxed);
        const int64_t start_ns = platform::monotonic_ns();
        const int64_t end_ns = start_ns + std::min(kMaxNs, 2 * usual_ns + kMinNs);
        for (int64_t now_ns = start_ns; now_ns < end_ns; now_ns = platform::monotonic_ns()) {
            sched_yield();
            for (int i = 0; i < kLooksPerYield; ++i) {
                if (done()) {
                    usual_ns_.store((7 * usual_ns + now_ns - start_ns) / 8, kRelaxed);
                    credit_.store(std::min(credit + 1, kMaxCredit), kRelaxed);
                    return true;
                }
                pause();
            }
        }
        credit_.store(credit - kMissCost, kRelaxed);
        return false;
    }

private:
    static constexpr auto kRelaxed = std::memory_order_relaxed;
    static constexpr int64_t kMaxNs = 100'000;
    static constexpr int64_t kMinNs = 5'000;
    static constexpr int64_t kTrialNs = 20'000;
    static constexpr int kLooksPerYield = 16;
    static constexpr int kMissCost = 4;  // answers in time that make up for one that was late
    static constexpr int kTrialCredit = 2 * kMissCost;
    static constexpr int kMaxCredit = 4 * kMissCost;
    static constexpr uint32_t kCallsPerTrial = 256;

    static void pause() {
#if defined(__x86_64__) || defined(__i386__)
        __builtin_ia32_pause();
#elif defined(__arm__) || defined(__aarch64__)
        asm volatile("yield");
#endif
    }

    void start_trial() {
        if (credit_.load(kRelaxed) > 0) return;
        usual_ns_.store(kTrialNs, kRelaxed);
        credit_.store(kTrialCredit, kRelaxed);
    }

    std::atomic<uint32_t> calls_{0};
    std::atomic<int> credit_{0};
    std::atomic<int64_t> usual_ns_{0};
};

}  // namespace qel::xcc
