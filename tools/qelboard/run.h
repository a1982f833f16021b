// run.h - `qelboard run`: a command on a board, with everything around it started and stopped again.
#pragma once

#include <string>
#include <vector>

#include "tools/qelboard/home.h"
#include "tools/qelboard/launch.h"
#include "tools/qelboard/step_fault.h"

namespace qel::tool {

// What is not the command's own status: 125 to 127 as env and a shell say it.
constexpr int kMisused = 124;  // the command succeeded, but a device was used wrongly
constexpr int kRunFailed = 125;
constexpr int kNotExecutable = 126;
constexpr int kNotFound = 127;

struct RunOptions {
    BoardChoice choice;
    Place place;  // without the socket
    std::vector<StepFault> step_faults;
    bool residents = true;
    std::vector<std::string> command;
};

// The exit status of the command, 128 + n after signal n, or one of the above (also by Failure).
int run_on_board(const RunOptions &options);

// The software of another chip: loads the library and keeps it until standard input ends.
int be_resident();

}  // namespace qel::tool
