// outline.h - the command line as data, for whatever is generated from it.
#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

namespace qelctl {

struct OptionOutline {
    std::vector<std::string> names;  // "-h", "--help"; one name without dashes for a positional
    std::string value;               // "SECONDS"; empty for a flag
    std::vector<std::string> words;  // the values it takes, where they can be listed
    std::string description;
    bool is_file() const { return value == "FILE"; }
};

struct VerbOutline {
    std::string path;  // "/info", "/env/get"; empty for the program itself
    std::string name;
    std::string description;
    std::vector<std::string> examples;
    std::vector<OptionOutline> options;  // its own ones
    std::vector<VerbOutline> verbs;      // those people see
};

VerbOutline outline(const CLI::App &app);

// The outline and all below it, flat, parents first.
std::vector<const VerbOutline *> flatten(const VerbOutline &top);

}  // namespace qelctl
