#include "tools/qelctl/outline.h"

#include <sstream>

namespace qelctl {

namespace {

// Values that are worth proposing though others are allowed, by what the help calls them.
std::vector<std::string> proposals(const std::string &value) {
    if (value == "NAME") return {"vesta", "VideoDaemon", "systools"};
    return {};
}

// A closed set of values shows in the help as {one,two}.
std::vector<std::string> listed_values(const std::string &type_name) {
    const size_t open = type_name.find('{');
    const size_t close = type_name.find('}', open);
    if (close == std::string::npos) return {};
    std::vector<std::string> words;
    std::istringstream list(type_name.substr(open + 1, close - open - 1));
    for (std::string word; std::getline(list, word, ',');) words.push_back(word);
    return words;
}

OptionOutline outline_option(const CLI::Option &option) {
    OptionOutline result;
    for (const std::string &name : option.get_snames()) result.names.push_back("-" + name);
    for (const std::string &name : option.get_lnames()) result.names.push_back("--" + name);
    if (result.names.empty()) result.names.push_back(option.get_name());
    if (option.get_type_size() != 0) {
        result.value = option.get_type_name();
        result.words = listed_values(result.value);
        if (result.words.empty()) result.words = proposals(result.value);
    }
    result.description = option.get_description();
    return result;
}

// The lines below "Examples:" of a footer.
std::vector<std::string> examples_in(const std::string &footer) {
    std::vector<std::string> found;
    std::istringstream lines(footer);
    bool inside = false;
    for (std::string line; std::getline(lines, line);) {
        if (line == "Examples:") {
            inside = true;
        } else if (inside && line.find_first_not_of(' ') != std::string::npos) {
            found.push_back(line.substr(line.find_first_not_of(' ')));
        }
    }
    return found;
}

VerbOutline outline_verb(const CLI::App &app, const std::string &path) {
    VerbOutline result;
    result.path = path;
    result.name = app.get_name();
    result.description = app.get_description();
    result.examples = examples_in(app.get_footer());
    for (const CLI::Option *option : app.get_options()) {
        if (!option->get_group().empty()) result.options.push_back(outline_option(*option));
    }
    for (const CLI::App *verb : app.get_subcommands({})) {
        if (verb->get_group().empty()) continue;
        result.verbs.push_back(outline_verb(*verb, path + "/" + verb->get_name()));
    }
    return result;
}

void append(const VerbOutline &verb, std::vector<const VerbOutline *> &all) {
    all.push_back(&verb);
    for (const VerbOutline &below : verb.verbs) append(below, all);
}

}  // namespace

VerbOutline outline(const CLI::App &app) { return outline_verb(app, ""); }

std::vector<const VerbOutline *> flatten(const VerbOutline &top) {
    std::vector<const VerbOutline *> all;
    append(top, all);
    return all;
}

}  // namespace qelctl
