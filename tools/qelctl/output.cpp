#include "tools/qelctl/output.h"

#include <fcntl.h>
#include <unistd.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>
#include <string_view>

#include "tools/qelctl/exit_code.h"

namespace qelctl {

namespace {

int output = STDOUT_FILENO;

bool is_set(const char *variable) {
    const char *value = getenv(variable);
    return value != nullptr && *value != '\0';
}

[[noreturn]] void no_output(int error) {
    throw Failure(ExitCode::kNoOutput, std::string("cannot write the output: ") + strerror(error) + ".");
}

// Device strings need not be UTF-8; JSON must be.
void print_json_indented(const nlohmann::ordered_json &document, int indent) {
    print(document.dump(indent, ' ', false, nlohmann::json::error_handler_t::replace) + "\n");
}

}  // namespace

void keep_output_to_ourselves() {
    if (output != STDOUT_FILENO) return;
    const int ours = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    if (ours < 0) no_output(errno);
    const int theirs = is_set("OSA_LOG") ? dup(STDERR_FILENO) : open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (theirs < 0 || dup2(theirs, STDOUT_FILENO) < 0) no_output(errno);
    close(theirs);
    output = ours;
}

void print(const std::string &text) {
    std::string_view rest = text;
    while (!rest.empty()) {
        const ssize_t written = write(output, rest.data(), rest.size());
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) no_output(errno);
        rest.remove_prefix(static_cast<size_t>(written));
    }
}

void print_json(const nlohmann::ordered_json &document) { print_json_indented(document, 2); }

void print_json_line(const nlohmann::ordered_json &line) { print_json_indented(line, -1); }

bool wants_colour() {
    const char *terminal = getenv("TERM");
    if (terminal == nullptr || std::string_view(terminal) == "dumb" || is_set("NO_COLOR")) return false;
    return isatty(output) == 1;
}

}  // namespace qelctl
