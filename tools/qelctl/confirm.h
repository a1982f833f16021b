// confirm.h - verbs that change what a unit cannot do without ask first, or want --yes.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

namespace qelctl {

struct Consent {
    bool yes = false;

    void add_to(CLI::App &verb);
    // Asks on the terminal. `what` is a sentence that says what is about to happen. Throws
    // Failure(kUsage) where nobody can be asked, Failure(kFailed) for any answer but yes.
    void require(const std::string &what) const;
};

}  // namespace qelctl
