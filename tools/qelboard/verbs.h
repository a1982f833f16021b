// verbs.h - what qelboard can do; each adds its words to the command line. The chosen one leaves the
// exit code in `code`.
#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

namespace qel::tool {

// Everything after "--", which is not ours to understand.
struct CommandLine {
    std::vector<std::string> command;
    int code = 0;
};

void add_run(CLI::App &app, CommandLine &line);
void add_serve(CLI::App &app, CommandLine &line);
void add_boards(CLI::App &app, CommandLine &line);
void add_new(CLI::App &app, CommandLine &line);
void add_show(CLI::App &app, CommandLine &line);
void add_fault(CLI::App &app, CommandLine &line);
void add_trace(CLI::App &app, CommandLine &line);
void add_poke(CLI::App &app, CommandLine &line);
void add_power_on(CLI::App &app, CommandLine &line);

}  // namespace qel::tool
