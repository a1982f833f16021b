// output.h - qelctl's standard output. The library prints some of its messages there as well; they
// must not end up in what a script reads.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace qelctl {

// From now on standard output as the library sees it is the standard error stream if OSA_LOG asks for
// the library's messages, and nowhere otherwise. What follows keeps going to the real one.
void keep_output_to_ourselves();

// Writes everything or throws Failure(kNoOutput).
void print(const std::string &text);
void print_json(const nlohmann::ordered_json &document);
// On one line, where more are to come.
void print_json_line(const nlohmann::ordered_json &line);

// Colour belongs on a terminal, unless NO_COLOR is set (and not empty) or the terminal is a dumb one.
bool wants_colour();

}  // namespace qelctl
