#include "tools/qelctl/interrupt.h"

#include <iterator>

#include "tools/qelctl/deadline.h"

namespace qelctl {

namespace {

volatile sig_atomic_t interrupted = 0;

void note_interrupt(int signal_number) {
    if (interrupted != 0) {
        signal(signal_number, SIG_DFL);
        raise(signal_number);
    }
    interrupted = 1;
}

}  // namespace

Interrupt::Interrupt() {
    restart_deadline();
    struct sigaction action = {};
    action.sa_handler = note_interrupt;
    action.sa_flags = SA_RESTART;
    for (size_t i = 0; i < std::size(kSignals); ++i) sigaction(kSignals[i], &action, &before_[i]);
}

Interrupt::~Interrupt() {
    for (size_t i = 0; i < std::size(kSignals); ++i) sigaction(kSignals[i], &before_[i], nullptr);
}

bool Interrupt::happened() { return interrupted != 0; }

}  // namespace qelctl
