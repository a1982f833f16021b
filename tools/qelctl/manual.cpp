// The manual page, from the same description as the help text.
#include <string>

#include "tools/qelctl/exit_code.h"
#include "tools/qelctl/outline.h"
#include "tools/qelctl/output.h"
#include "tools/qelctl/reference.h"
#include "tools/qelctl/verb.h"

namespace qelctl {

namespace {

// Text as roff takes it: a dash that can be copied, no line that starts as a request.
std::string roff(const std::string &text) {
    std::string safe;
    bool line_start = true;
    for (const char c : text) {
        if (line_start && (c == '.' || c == '\'')) safe += "\\&";
        if (c == '\\') {
            safe += "\\e";
        } else if (c == '-') {
            safe += "\\-";
        } else {
            safe += c;
        }
        line_start = c == '\n';
    }
    return safe;
}

std::string paragraph(const std::string &word, const std::string &text) {
    return ".TP\n.B " + roff(word) + "\n" + roff(text) + "\n";
}

std::string options(const std::vector<OptionOutline> &all) {
    std::string text;
    for (const OptionOutline &option : all) {
        std::string names;
        for (const std::string &name : option.names) names += (names.empty() ? "" : ", ") + name;
        text += ".TP\n.B " + roff(names);
        text += option.value.empty() ? "\n" : "\\fR \\fI" + roff(option.value) + "\\fR\n";
        text += roff(option.description) + ".\n";
    }
    return text;
}

std::string examples(const std::vector<std::string> &commands) {
    if (commands.empty()) return "";
    std::string text = ".PP\n.nf\n";
    for (const std::string &command : commands) text += ".B \"  " + roff(command) + "\"\n";
    return text + ".fi\n";
}

std::string verb_section(const VerbOutline &verb) {
    std::string words;
    for (const char c : verb.path) words += c == '/' ? ' ' : c;
    std::string text = ".SS \"qelctl" + roff(words) + "\"\n" + roff(verb.description) + ".\n";
    std::vector<OptionOutline> own;
    for (const OptionOutline &option : verb.options) {
        if (option.names.back() != "--help") own.push_back(option);
    }
    return text + options(own) + examples(verb.examples);
}

std::string manual(const VerbOutline &top) {
    std::string text = ".TH QELCTL 1 \"\" \"qelctl " QEL_VERSION "\" \"User Commands\"\n";
    text += ".SH NAME\nqelctl \\- talk to a camera board through its hardware library\n";
    text += ".SH SYNOPSIS\n.B qelctl\n[\\fIOPTIONS\\fR] \\fIVERB\\fR [\\fIVERB OPTIONS\\fR]\n";
    text += ".SH DESCRIPTION\n" + roff(top.description) + "\n";
    text += ".SH OPTIONS\nThey may stand before or behind the verb.\n" + options(top.options);
    text += ".SH VERBS\n";
    for (const VerbOutline *verb : flatten(top)) {
        if (verb != &top) text += verb_section(*verb);
    }
    text += ".SH \"EXIT STATUS\"\n";
    for (const auto &[code, meaning] : kExitCodes) {
        text += paragraph(std::to_string(static_cast<int>(code)), std::string(meaning) + ".");
    }
    text += ".SH ENVIRONMENT\n";
    for (const auto &[name, meaning] : kEnvironment) text += paragraph(name, std::string(meaning) + ".");
    return text + ".SH EXAMPLES\n" + examples(top.examples);
}

}  // namespace

void add_manual(CLI::App &app, Session &) {
    app.add_subcommand("manual", "Print the manual page")->group("")->callback([&app] {
        print(manual(outline(app)));
    });
}

}  // namespace qelctl
