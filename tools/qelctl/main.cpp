// qelctl - talks to a board through the library, from a shell.
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "tools/qelctl/exit_code.h"
#include "tools/qelctl/verb.h"

namespace {

using namespace qelctl;

int end(ExitCode code) { return static_cast<int>(code); }

int complain(ExitCode code, const std::string &what) {
    fprintf(stderr, "qelctl: %s\n", what.c_str());
    return end(code);
}

// The parser only says that a verb is missing.
std::string what_is_no_verb(const CLI::App &app, const std::string &what) {
    const std::vector<std::string> unknown = app.remaining(true);
    if (!unknown.empty()) {
        return (unknown.front()[0] == '-' ? "there is no option " : "there is no verb ") + unknown.front() +
               ".";
    }
    return what.starts_with("A subcommand") ? "which verb?" : what;
}

// --help and --version arrive here as well.
int finish_parsing(const CLI::App &app, const CLI::ParseError &error) {
    if (error.get_exit_code() == 0) return app.exit(error);
    std::string command = "qelctl";
    const CLI::App *innermost = &app;
    while (!innermost->get_subcommands().empty()) {
        innermost = innermost->get_subcommands().front();
        command += " " + innermost->get_name();
    }
    std::string what = error.what();
    if (!innermost->get_subcommands({}).empty()) what = what_is_no_verb(app, what);
    return complain(ExitCode::kUsage, what + "\nSee " + command + " --help.");
}

}  // namespace

int main(int argc, char **argv) {
    CLI::App app("", "qelctl");
    try {
        Session session;
        build_command_line(app, session);
        app.parse(argc, argv);
        return end(ExitCode::kOk);
    } catch (const CLI::ParseError &error) {
        return finish_parsing(app, error);
    } catch (const Failure &failure) {
        return complain(failure.code(), failure.what());
    } catch (const std::exception &error) {
        return complain(ExitCode::kFailed, error.what());
    }
}
