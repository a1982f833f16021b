#include "tools/qelctl/live.h"

#include <cstdio>
#include <ctime>

#include "tools/qelctl/deadline.h"

namespace qelctl {

namespace {

constexpr double kLongestRun_s = 365.0 * 24 * 60 * 60;

std::chrono::steady_clock::time_point end_of_run(double seconds) {
    return std::chrono::steady_clock::now() +
           std::chrono::milliseconds(static_cast<int64_t>((seconds > 0 ? seconds : kLongestRun_s) * 1000));
}

}  // namespace

void LiveChoice::add_to(CLI::App &verb, const char *what) {
    verb.add_option("--for", seconds, "End after so many seconds; Ctrl-C ends it at any time")
        ->type_name("SECONDS")
        ->check(CLI::Range(0.0, kLongestRun_s).description(""));
    if (what == nullptr) return;
    verb.add_option("--count", count, std::string("End after so many ") + what)->type_name("N");
}

LiveRun::LiveRun(const LiveChoice &choice) : end_(end_of_run(choice.seconds)), count_(choice.count) {}

bool LiveRun::goes_on() const {
    restart_deadline();
    if (Interrupt::happened() || has_counted_enough()) return false;
    return std::chrono::steady_clock::now() < end_;
}

void say_listening_to(const std::string &what) { fprintf(stderr, "qelctl: listening to %s\n", what.c_str()); }

int64_t milliseconds_since_1970() {
    struct timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

std::string clock_text(int64_t time_ms) {
    const auto seconds = static_cast<time_t>(time_ms / 1000);
    struct tm parts = {};
    localtime_r(&seconds, &parts);
    char text[32];
    snprintf(text, sizeof text, "%02d:%02d:%02d.%03d", parts.tm_hour, parts.tm_min, parts.tm_sec,
             static_cast<int>(time_ms % 1000));
    return text;
}

}  // namespace qelctl
