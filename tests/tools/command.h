// command.h - runs programs of the build as a user does, from a shell, and keeps what they say.
#pragma once

#include <string>

namespace qel::test {

struct Outcome {
    int code;  // exit code, 128 + n after signal n, -1 when it was still running at the deadline
    std::string out;
    std::string err;
};

// Runs `command` with /bin/sh; the programs of the build are on PATH, OSA_LOG and NO_COLOR unset.
Outcome run(const std::string &command, int deadline_ms = 60000);

// A folder of this test's own, removed with everything in it at the end.
class Scratch {
public:
    Scratch();
    ~Scratch();
    Scratch(const Scratch &) = delete;
    Scratch &operator=(const Scratch &) = delete;
    const std::string &path() const { return path_; }
    // Writes a file into it; its path.
    std::string file(const std::string &name, const std::string &text) const;

private:
    std::string path_;
};

std::string read_all(const std::string &path);

}  // namespace qel::test
