#include <climits>
#include <string>

#include "tools/qelctl/exit_code.h"
#include "tools/qelctl/reference.h"
#include "tools/qelctl/verb.h"

namespace qelctl {

namespace {

constexpr AddVerb kVerbs[] = {
    add_info,        add_properties,    add_channels,   add_environment, add_eeprom,
    add_flash,       add_upgrade_state, add_keyvalue,   add_serial,      add_microcontroller,
    add_framed_link, add_version,       add_completion, add_manual,
};

constexpr size_t kLongestName = 15;  // the kernel's limit for a command name
constexpr unsigned kLongestTimeout_s = 24 * 60 * 60;

std::string name_problem(const std::string &name) {
    if (name.empty() || name.size() > kLongestName) return "a process name has 1 to 15 characters";
    for (const char c : name) {
        if (c <= ' ' || c > '~') return "a process name is plain text without blanks";
    }
    return {};
}

std::string entry(const std::string &word, const char *meaning) {
    const size_t width = 17;
    return "  " + word + std::string(word.size() < width ? width - word.size() : 1, ' ') + meaning + "\n";
}

std::string reference() {
    std::string text = "Exit codes:\n";
    for (const auto &[code, meaning] : kExitCodes)
        text += entry(std::to_string(static_cast<int>(code)), meaning);
    text += "\nEnvironment:\n";
    for (const auto &[name, meaning] : kEnvironment) text += entry(name, meaning);
    return text + "\nExamples:\n  qelctl info\n  qelctl --as systools channels\n  qelctl info --help";
}

void name_them_verbs(CLI::App &app) {
    app.get_formatter()->label("SUBCOMMAND", "VERB");
    for (CLI::App *verb : app.get_subcommands({})) {
        if (!verb->get_group().empty()) verb->group("Verbs");
        name_them_verbs(*verb);
    }
}

}  // namespace

void build_command_line(CLI::App &app, Session &session) {
    app.description(kDescription);
    app.require_subcommand(1);
    app.fallthrough();  // common options may stand behind the verb, too
    app.set_help_flag("-h,--help", "Print this help and exit");
    app.set_version_flag("--version", "qelctl " QEL_VERSION, "Print the version of qelctl and exit");
    app.add_option("--as", session.options.as,
                   "Take this process name before the library loads, to see what it shows only to\n"
                   "vesta, VideoDaemon and systools. Choose one that is not running on this chip")
        ->type_name("NAME")
        ->check(CLI::Validator(name_problem, ""));
    app.add_option("--library", session.options.library, "Load this file instead of the installed library")
        ->type_name("FILE");
    app.add_option("--timeout", session.options.timeout_s,
                   "Give up after so many seconds, 0 = never; 30 unless given")
        ->type_name("SECONDS")
        ->check(CLI::Range(0U, kLongestTimeout_s).description(""));
    for (const AddVerb add : kVerbs) add(app, session);
    name_them_verbs(app);
    app.footer(reference());
}

}  // namespace qelctl
