// command.h - runs programs of the build as a user does, from a shell, and keeps what they say.
#pragma once

#include <string>

#include "tests/support/scratch.h"

namespace qel::test {

// Exit codes of qelctl.
enum Exit {
    kOk = 0,
    kFailed = 1,
    kUsage = 2,
    kNoLibrary = 3,
    kNoAnswer = 4,
    kNoOutput = 5,
    kInterrupted = 6
};

struct Outcome {
    int code;  // exit code, 128 + n after signal n, -1 when it was still running at the deadline
    std::string out;
    std::string err;
};

// Runs `command` with /bin/sh; the programs of the build are on PATH, OSA_LOG and NO_COLOR unset.
Outcome run(const std::string &command, int deadline_ms = 60000);

bool holds(const std::string &text, const std::string &part);
// How a command ended, and what it said in either stream.
void expect_end(const Outcome &outcome, int code, const std::string &said);

// Bytes that do not repeat with any block.
std::string noise(size_t bytes);

}  // namespace qel::test
