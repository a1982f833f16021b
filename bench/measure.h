// measure.h - what the measuring programs share: two ways of doing a thing, timed in turns so that what
// else the machine does meanwhile hits both, and printed as a row of bench/CMakeLists.txt's table.
#pragma once

#include <sched.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

namespace qel::bench {

// Ends the program, saying what failed. A forked child leaves its parent's output alone.
inline void expect(bool condition, const char *what) {
    if (condition) return;
    fprintf(stderr, "%s: %s failed\n", program_invocation_short_name, what);
    _exit(1);
}

using Cores = std::vector<int>;

// The cores this program may use.
inline Cores own_cores() {
    cpu_set_t set;
    expect(sched_getaffinity(0, sizeof set, &set) == 0, "sched_getaffinity");
    Cores cores;
    for (int core = 0; core < CPU_SETSIZE; ++core) {
        if (CPU_ISSET(core, &set)) cores.push_back(core);
    }
    return cores;
}

inline void run_on(const Cores &cores) {
    cpu_set_t set;
    CPU_ZERO(&set);
    for (const int core : cores) CPU_SET(core, &set);
    expect(sched_setaffinity(0, sizeof set, &set) == 0, "sched_setaffinity");
}

// A forked process that ends with its parent, by SIGTERM at the latest when this object goes.
class Child {
public:
    explicit Child(const std::function<void()> &body) : pid_(fork()) {
        expect(pid_ >= 0, "fork");
        if (pid_ != 0) return;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        body();
        _exit(0);
    }
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;
    ~Child() {
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
    }

private:
    pid_t pid_;
};

inline double median(std::vector<double> values) {
    std::ranges::nth_element(values, values.begin() + static_cast<ptrdiff_t>(values.size() / 2));
    return values[values.size() / 2];
}

inline double us_per_call(int calls, const std::function<void()> &call) {
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < calls; ++i) call();
    const std::chrono::duration<double, std::micro> taken = std::chrono::steady_clock::now() - start;
    return taken.count() / calls;
}

constexpr int kRounds = 15;

// What two ways took, round by round.
struct Rounds {
    std::vector<double> costs_us;
    std::vector<double> with_us;

    double cost_us() const { return median(costs_us); }
    double with_cost_us() const { return median(with_us); }
    double ratio() const {
        std::vector<double> ratios;
        for (size_t i = 0; i < costs_us.size(); ++i) ratios.push_back(costs_us[i] / with_us[i]);
        return median(ratios);
    }
};

// The first round only warms up.
inline Rounds measure(const std::function<void()> &way, const std::function<void()> &with,
                      int calls_per_round, int round_count = kRounds) {
    Rounds rounds;
    for (int round = 0; round <= round_count; ++round) {
        const double with_us = us_per_call(calls_per_round, with);
        const double cost_us = us_per_call(calls_per_round, way);
        if (round == 0) continue;
        rounds.costs_us.push_back(cost_us);
        rounds.with_us.push_back(with_us);
    }
    return rounds;
}

inline void print_row(const std::string &what, const std::string &with, const Rounds &rounds) {
    printf("| %s | %.2f us | %s | %.2f us | %.2f |\n", what.c_str(), rounds.cost_us(), with.c_str(),
           rounds.with_cost_us(), rounds.ratio());
    fflush(stdout);
}

struct Way {
    std::string name;
    std::function<void()> call;
};

inline void compare(const Way &way, const Way &with, int calls_per_round) {
    print_row(way.name, with.name, measure(way.call, with.call, calls_per_round));
}

}  // namespace qel::bench
