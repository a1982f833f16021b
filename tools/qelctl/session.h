// session.h - one run of qelctl: the options every verb shares, and the library once it is needed.
#pragma once

#include <optional>
#include <string>

#include "tools/qelctl/library.h"

namespace qelctl {

struct Options {
    std::string as;           // process name to take before the library loads; empty = keep our own
    std::string library;      // file to load; empty = the installed one
    unsigned timeout_s = 30;  // for the whole run; 0 = wait for ever
};

class Session {
public:
    Options options;

    // Takes the name asked for and loads the library, at the first call. Verbs that do not call it
    // leave the board alone.
    const Library &library();

private:
    std::optional<Library> library_;
};

// The command name of this process, as the library reads it.
std::string process_name();

}  // namespace qelctl
