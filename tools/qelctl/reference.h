// reference.h - what the help text and the manual say alike, beside the options themselves.
#pragma once

namespace qelctl {

struct EnvironmentVariable {
    const char *name;
    const char *meaning;
};

constexpr EnvironmentVariable kEnvironment[] = {
    {"OSA_LOG",
     "how much of the library's log goes to standard error: error (unless set), warn, info or\n              "
     "     debug"},
    {"NO_COLOR", "set to anything: no colour, not even on a terminal"},
    {"LD_LIBRARY_PATH", "where to look for libqel.so.1 and libxcc.so.1 first"},
};

constexpr const char *kDescription =
    "Talks to the board of a network camera through its hardware library, libqel.so.\n"
    "The library starts up when it is loaded, on the chip that qelctl runs on.";

}  // namespace qelctl
