#include "tools/qelctl/deadline.h"

#include <unistd.h>
#include <atomic>
#include <csignal>
#include <cstring>

#include "tools/qelctl/exit_code.h"

namespace qelctl {

namespace {

std::atomic<const char *> activity_now{"starting"};
std::atomic<const char *> hint_now{""};
unsigned limit_s = 0;

// Only calls that are allowed in a signal handler.
void write_raw(const char *text) {
    if (write(STDERR_FILENO, text, strlen(text)) < 0) return;  // nobody reads it: nothing left to do
}

void time_is_over(int) {
    write_raw("qelctl: no answer in time while ");
    write_raw(activity_now.load());
    write_raw(".\n");
    write_raw(hint_now.load());
    _exit(static_cast<int>(ExitCode::kNoAnswer));
}

}  // namespace

void start_deadline(unsigned seconds) {
    limit_s = seconds;
    if (seconds == 0) return;
    struct sigaction action = {};
    action.sa_handler = time_is_over;
    sigaction(SIGALRM, &action, nullptr);
    alarm(seconds);
}

void restart_deadline() {
    if (limit_s != 0) alarm(limit_s);
}

void now_doing(const char *activity, const char *hint) {
    activity_now = activity;
    hint_now = hint;
}

}  // namespace qelctl
