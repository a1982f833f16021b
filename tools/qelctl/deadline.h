// deadline.h - qelctl never hangs: a failed assertion of the library stops the calling thread for
// good, and loading it on a unit of several chips waits for the others without limit.
#pragma once

namespace qelctl {

// Ends the process with ExitCode::kNoAnswer and a message when `seconds` are over; 0 = never.
void start_deadline(unsigned seconds);

// The time counts from now again: the work goes on.
void restart_deadline();

// What the message says qelctl was doing, and what may help. Both live as long as the process.
void now_doing(const char *activity, const char *hint);

}  // namespace qelctl
