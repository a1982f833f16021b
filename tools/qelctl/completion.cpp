// The completion scripts for bash and zsh, from the same description as the help text.
#include <string>

#include "tools/qelctl/outline.h"
#include "tools/qelctl/output.h"
#include "tools/qelctl/verb.h"

namespace qelctl {

namespace {

constexpr const char *kBash = R"(# bash completion for qelctl - printed by "qelctl completion bash"
_qelctl() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local verb= words= i
    for ((i = 1; i < COMP_CWORD; i++)); do
        case "$verb/${COMP_WORDS[i]}" in
            @PATHS@) verb="$verb/${COMP_WORDS[i]}" ;;
        esac
    done
    COMPREPLY=()
    case "$previous" in
@VALUES@    esac
    case "$verb" in
@WORDS@    esac
    COMPREPLY=($(compgen -W "$words" -- "$current"))
}
complete -F _qelctl qelctl
)";

// `path` is the search path in zsh, hence `verb` in both.
constexpr const char *kZsh = R"(#compdef qelctl
# zsh completion for qelctl - printed by "qelctl completion zsh"
_qelctl() {
    local verb= i
    local -a items
    for ((i = 2; i < CURRENT; i++)); do
        case "$verb/${words[i]}" in
            @PATHS@) verb="$verb/${words[i]}" ;;
        esac
    done
    case "${words[CURRENT - 1]}" in
@VALUES@    esac
    case "$verb" in
@WORDS@    esac
    _describe qelctl items
}
if [ "${funcstack[1]}" = _qelctl ]; then
    _qelctl "$@"
else
    compdef _qelctl qelctl
fi
)";

std::string join(const std::vector<std::string> &words, const char *between) {
    std::string text;
    for (const std::string &word : words) text += (text.empty() ? "" : between) + word;
    return text;
}

void replace(std::string &text, const std::string &mark, const std::string &with) {
    text.replace(text.find(mark), mark.size(), with);
}

std::string first_line(const std::string &text) { return text.substr(0, text.find('\n')); }

// 'word:description' between single quotes.
std::string zsh_item(const std::string &word, const std::string &description) {
    std::string quoted = "'" + word + ":";
    for (const char c : first_line(description))
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

struct Shell {
    const char *frame;
    const char *files;
    std::string (*values)(const std::vector<std::string> &words);
    std::string (*item)(const std::string &word, const std::string &description);
    const char *list_open;
    const char *list_close;
};

const Shell kShells[] = {
    {kBash, "COMPREPLY=($(compgen -f -- \"$current\"))",
     [](const std::vector<std::string> &words) {
         return "COMPREPLY=($(compgen -W \"" + join(words, " ") + "\" -- \"$current\"))";
     },
     [](const std::string &word, const std::string &) { return word; }, "words=\"", "\""},
    {kZsh, "_files", [](const std::vector<std::string> &words) { return "compadd -- " + join(words, " "); },
     zsh_item, "items=(", ")"},
};

std::string value_cases(const Shell &shell, const std::vector<const VerbOutline *> &all) {
    std::string cases;
    for (const VerbOutline *verb : all) {
        for (const OptionOutline &option : verb->options) {
            if (option.value.empty()) continue;
            std::string action;
            if (option.is_file()) action = shell.files;
            if (!option.words.empty()) action = shell.values(option.words);
            cases += "        " + join(option.names, "|") + ") " + action + (action.empty() ? "" : "; ") +
                     "return ;;\n";
        }
    }
    return cases;
}

// The options that may follow a verb: its own, and those that every verb takes.
std::vector<OptionOutline> options_after(const VerbOutline &verb, const VerbOutline &top) {
    std::vector<OptionOutline> options = verb.options;
    if (&verb == &top) return options;
    for (const OptionOutline &common : top.options) {
        if (common.names.back() != "--help") options.push_back(common);
    }
    return options;
}

std::string word_cases(const Shell &shell, const std::vector<const VerbOutline *> &all) {
    std::string cases;
    for (const VerbOutline *verb : all) {
        std::vector<std::string> items;
        for (const VerbOutline &below : verb->verbs)
            items.push_back(shell.item(below.name, below.description));
        for (const OptionOutline &option : options_after(*verb, *all.front())) {
            for (const std::string &name : option.names)
                items.push_back(shell.item(name, option.description));
        }
        cases += "        \"" + verb->path + "\") " + shell.list_open + join(items, " ") + shell.list_close +
                 " ;;\n";
    }
    return cases;
}

std::string completion(const Shell &shell, const VerbOutline &top) {
    const std::vector<const VerbOutline *> all = flatten(top);
    std::vector<std::string> paths;
    for (const VerbOutline *verb : all) {
        if (!verb->path.empty()) paths.push_back(verb->path);
    }
    std::string text = shell.frame;
    replace(text, "@PATHS@", join(paths, " | "));
    replace(text, "@VALUES@", value_cases(shell, all));
    replace(text, "@WORDS@", word_cases(shell, all));
    return text;
}

}  // namespace

void add_completion(CLI::App &app, Session &) {
    CLI::App *verb = app.add_subcommand("completion", "Print the completion script of a shell")->group("");
    verb->require_subcommand(1);
    verb->add_subcommand("bash", "For bash")->callback([&app] {
        print(completion(kShells[0], outline(app)));
    });
    verb->add_subcommand("zsh", "For zsh")->callback([&app] { print(completion(kShells[1], outline(app))); });
}

}  // namespace qelctl
