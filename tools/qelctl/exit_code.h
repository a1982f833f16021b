// exit_code.h - how qelctl ends. The help text, the manual and the docs show the same table.
#pragma once

#include <stdexcept>
#include <string>

namespace qelctl {

enum class ExitCode {
    kOk = 0,
    kFailed = 1,
    kUsage = 2,
    kNoLibrary = 3,
    kNoAnswer = 4,
    kNoOutput = 5,
    kInterrupted = 6,
};

struct ExitCodeMeaning {
    ExitCode code;
    const char *meaning;
};

constexpr ExitCodeMeaning kExitCodes[] = {
    {ExitCode::kOk, "it worked"},
    {ExitCode::kFailed, "the board or the library says no; the message on standard error tells what"},
    {ExitCode::kUsage, "wrong use: unknown verb or option, or a value out of range"},
    {ExitCode::kNoLibrary, "libqel.so does not load, or is too old for this qelctl"},
    {ExitCode::kNoAnswer, "no answer from the library within --timeout"},
    {ExitCode::kNoOutput, "the output could not be written"},
    {ExitCode::kInterrupted, "a signal ended the work before all of it was done; the message says where"},
};

// Ends the program with `code` after "qelctl: <what>" on standard error. `what` names the cause and
// what the user can do about it.
class Failure : public std::runtime_error {
public:
    Failure(ExitCode code, const std::string &what) : std::runtime_error(what), code_(code) {}
    ExitCode code() const { return code_; }

private:
    ExitCode code_;
};

}  // namespace qelctl
