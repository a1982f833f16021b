#include "tests/tools/command.h"

#include <fcntl.h>
#include <unistd.h>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "tests/support/library.h"

namespace qel::test {

namespace {

void make_it(int fd, const std::string &path, int flags) {
    const int file = open(path.c_str(), flags | O_CLOEXEC, 0600);
    if (file < 0 || dup2(file, fd) < 0) _exit(125);
}

}  // namespace

std::string read_all(const std::string &path) {
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

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

Scratch::Scratch() {
    std::string path = std::filesystem::temp_directory_path() / "qel-tools-XXXXXX";
    path_ = mkdtemp(path.data()) != nullptr ? path : "";
}

Scratch::~Scratch() {
    std::error_code ignored;
    if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
}

std::string Scratch::file(const std::string &name, const std::string &text) const {
    std::ofstream(path_ + "/" + name) << text;
    return path_ + "/" + name;
}

}  // namespace qel::test
