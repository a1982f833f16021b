// qelboard - run, inspect and break virtual boards.
#include <algorithm>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "tools/qelboard/home.h"
#include "tools/qelboard/run.h"
#include "tools/qelboard/verbs.h"

namespace {

constexpr int kUsage = 2;

constexpr const char *kFooter = R"(Examples:
  qelboard run dome --as vesta -- qelctl info
  qelboard run twin --as vesta --fault '/dev/qecHwid ioctl fail EIO' -- ./myprogram
  qelboard run box --dir ~/mybox --trace box.jsonl -- sh
  qelboard serve dome --dir ~/mydome       (and in another terminal: qelboard show --dir ~/mydome)

Exit codes: of `run`, the command's own, 128 + n when signal n ended it, 127 when it was not found,
126 when it could not be executed, 125 when qelboard itself failed, 124 when the command succeeded but
used a device wrongly. Of the others: 0 done, 1 failed, 2 wrong command line.)";

}  // namespace

int main(int argc, char **argv) {
    using namespace qel::tool;
    // What stands behind "--" belongs to the command of `run`, options and all.
    std::vector<std::string> own(argv + 1, argv + argc);
    CommandLine line;
    if (const auto cut = std::ranges::find(own, "--"); cut != own.end()) {
        line.command.assign(cut + 1, own.end());
        own.erase(cut, own.end());
    }
    const bool runs = !own.empty() && own[0] == "run";

    CLI::App app("Runs, inspects and breaks virtual boards.", "qelboard");
    app.footer(kFooter);
    app.set_version_flag("--version", QEL_VERSION);
    app.require_subcommand(1);
    for (auto *add :
         {add_run, add_serve, add_boards, add_new, add_show, add_fault, add_trace, add_poke, add_power_on})
        add(app, line);
    // Started by `run` for the other chips of a unit.
    app.add_subcommand("resident", "")->group("")->callback([&] { line.code = be_resident(); });

    const auto verbs = app.get_subcommands([](CLI::App *) { return true; });
    if (!own.empty() && !own[0].starts_with('-') &&
        std::ranges::none_of(verbs, [&](const CLI::App *verb) { return verb->get_name() == own[0]; })) {
        fprintf(stderr, "qelboard: there is no verb \"%s\"; see qelboard --help\n", own[0].c_str());
        return kUsage;
    }
    try {
        std::ranges::reverse(own);  // as the parser wants them
        app.parse(own);
    } catch (const CLI::ParseError &error) {
        const bool asked = error.get_exit_code() == 0;  // --help and --version
        app.exit(error);
        return asked ? 0 : (runs ? kRunFailed : kUsage);
    } catch (const Failure &failure) {
        fprintf(stderr, "qelboard: %s\n", failure.what());
        return runs ? kRunFailed : failure.code();
    } catch (const std::exception &error) {
        fprintf(stderr, "qelboard: %s\n", error.what());
        return runs ? kRunFailed : 1;
    }
    return line.code;
}
