#include "tools/qelctl/confirm.h"

#include <unistd.h>
#include <cstdio>
#include <iostream>

#include "tools/qelctl/exit_code.h"

namespace qelctl {

void Consent::add_to(CLI::App &verb) {
    verb.add_flag("-y,--yes", yes, "Do it without asking; needed where there is no terminal to ask on");
}

void Consent::require(const std::string &what) const {
    if (yes) return;
    if (isatty(STDIN_FILENO) != 1 || isatty(STDERR_FILENO) != 1)
        throw Failure(ExitCode::kUsage, what + "\nGive --yes to do it without being asked.");
    fprintf(stderr, "%s\nGo on? [y/N] ", what.c_str());
    std::string answer;
    std::getline(std::cin, answer);
    if (answer == "y" || answer == "Y" || answer == "yes") return;
    throw Failure(ExitCode::kFailed, "nothing was changed.");
}

}  // namespace qelctl
