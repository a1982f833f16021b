// interrupt.h - Ctrl-C during what must not be cut in two (a change of flash or EEPROM, a frame on a
// line): that is finished first, long work ends between two blocks. The second Ctrl-C ends the program
// at once.
#pragma once

#include <csignal>

namespace qelctl {

class Interrupt {
public:
    // From here to the end of the object the first SIGINT, SIGTERM or SIGHUP only takes a note, and the
    // time of --timeout starts anew. One at a time.
    Interrupt();
    ~Interrupt();
    Interrupt(const Interrupt &) = delete;
    Interrupt &operator=(const Interrupt &) = delete;

    static bool happened();

private:
    static constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP};
    struct sigaction before_[sizeof kSignals / sizeof kSignals[0]];
};

}  // namespace qelctl
