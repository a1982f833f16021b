#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>

#include "tools/qelctl/output.h"
#include "tools/qelctl/report.h"
#include "tools/qelctl/table.h"
#include "tools/qelctl/unit.h"
#include "tools/qelctl/verb.h"

namespace qelctl {

namespace {

void run(Session &session, bool json) {
    const Library &library = session.library();
    const ChannelMap map = read_channel_map(library);
    if (json) {
        print_json(map_json(map));
        return;
    }
    if (map.channels.empty()) {
        print("no channels\n");
    } else {
        print(channels_text(map, wants_colour()));
    }
    fputs(what_is_hidden(identity(library)).c_str(), stderr);
}

}  // namespace

void add_channels(CLI::App &app, Session &session) {
    CLI::App *verb =
        app.add_subcommand("channels", "Print the channel map: which chip owns which video channel");
    auto json = std::make_shared<bool>(false);
    verb->add_flag("--json", *json, "Print JSON (described by qelctl.schema.json)");
    verb->footer(
        "Examples:\n"
        "  qelctl channels --as systools\n"
        "  qelctl channels --json --as systools");
    verb->callback([&session, json] { run(session, *json); });
}

}  // namespace qelctl
