#include "tests/tools/command.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <cstdlib>

#include "tests/support/library.h"

namespace qel::test {

namespace {

void make_it(int fd, const std::string &path, int flags) {
    const int file = open(path.c_str(), flags | O_CLOEXEC, 0600);
    if (file < 0 || dup2(file, fd) < 0) _exit(125);
}

}  // namespace

Outcome run(const std::string &command, int deadline_ms) {
    const Scratch scratch;
    const std::string out = scratch.path() + "/out";
    const std::string err = scratch.path() + "/err";
    const int pid = fork_child();
    if (pid == 0) {
        make_it(STDIN_FILENO, "/dev/null", O_RDONLY);
        make_it(STDOUT_FILENO, out, O_WRONLY | O_CREAT | O_TRUNC);
        make_it(STDERR_FILENO, err, O_WRONLY | O_CREAT | O_TRUNC);
        setenv("PATH", (std::string(QEL_BIN_DIR ":") + getenv("PATH")).c_str(), 1);
        unsetenv("OSA_LOG");
        unsetenv("NO_COLOR");
        execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
        _exit(127);
    }
    const int code = wait_for_child(pid, deadline_ms);
    return {code, read_all(out), read_all(err)};
}

bool holds(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }

void expect_end(const Outcome &outcome, int code, const std::string &said) {
    EXPECT_EQ(outcome.code, code) << outcome.err;
    EXPECT_TRUE(holds(outcome.out + outcome.err, said)) << said << "\nin " << outcome.out << outcome.err;
}

std::string noise(size_t bytes) {
    std::string text;
    for (size_t i = 0; i < bytes; ++i) text += static_cast<char>(i * 7 + i / 251);
    return text;
}

}  // namespace qel::test
