// verb.h - the verbs of qelctl. A verb is one source file with one function that adds it to the
// command line, and one line in verbs.cpp.
//
// The function describes the verb, its options and its examples (as footer, one command per line),
// and sets a callback that does the work: it asks session.library() when it wants the board, prints
// its result once, and throws Failure when something is wrong.
#pragma once

#include <CLI/CLI.hpp>

#include "tools/qelctl/session.h"

namespace qelctl {

using AddVerb = void (*)(CLI::App &app, Session &session);

void add_info(CLI::App &app, Session &session);
void add_properties(CLI::App &app, Session &session);
void add_channels(CLI::App &app, Session &session);
void add_environment(CLI::App &app, Session &session);
void add_eeprom(CLI::App &app, Session &session);
void add_flash(CLI::App &app, Session &session);
void add_upgrade_state(CLI::App &app, Session &session);
void add_keyvalue(CLI::App &app, Session &session);
void add_serial(CLI::App &app, Session &session);
void add_microcontroller(CLI::App &app, Session &session);
void add_framed_link(CLI::App &app, Session &session);
void add_version(CLI::App &app, Session &session);
// Hidden: they print what the build installs, made from the same description as --help.
void add_completion(CLI::App &app, Session &session);
void add_manual(CLI::App &app, Session &session);

// The whole command line: common options, all verbs, and the reference at the end of the help.
void build_command_line(CLI::App &app, Session &session);

}  // namespace qelctl
