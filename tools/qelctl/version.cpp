#include "tools/qelctl/output.h"
#include "tools/qelctl/verb.h"

namespace qelctl {

void add_version(CLI::App &app, Session &session) {
    CLI::App *verb =
        app.add_subcommand("version", "Print the versions of qelctl and of the library it loads");
    verb->footer("Examples:\n  qelctl version\n  qelctl version --library ./lib/libqel.so.1");
    verb->callback([&session] {
        print("qelctl " QEL_VERSION "\n");
        // The number stands in the file's name, as for every shared library.
        print("libqel " + session.library().file() + "\n");
    });
}

}  // namespace qelctl
