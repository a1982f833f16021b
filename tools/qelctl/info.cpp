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

using nlohmann::ordered_json;

struct Info {
    std::string process;
    std::string identity;
    Unit unit;
};

ordered_json to_json(const Info &info) {
    const Unit &unit = info.unit;
    ordered_json document;
    document["process"]["name"] = info.process;
    document["process"]["identity"] = info.identity.empty() ? ordered_json() : ordered_json(info.identity);
    document["product"] = unit.product;
    document["chip_count"] = unit.chip_count;
    document["own_chip"] = unit.own_chip;
    document["master_slave_mark"] = unit.master_slave_mark;
    document["chips"] = chips_json(unit.chips);
    document["channel_map"] = map_json(unit.map);
    document["extended_id"] = unit.extended_id ? ordered_json(*unit.extended_id) : ordered_json();
    document["information"] = unit.information;
    document["base_configuration"] = unit.base_configuration;
    return document;
}

std::string describe_chips(const Unit &unit) {
    if (unit.chip_count == 1) return "1";
    return std::to_string(unit.chip_count) + ", this is chip " + std::to_string(unit.own_chip) +
           (unit.own_chip == 0 ? " (master)" : " (slave)");
}

std::string describe_extended_id(const Unit &unit) {
    if (!unit.extended_id) return "none";
    std::string text;
    char number[8];
    for (const unsigned byte : *unit.extended_id) {
        snprintf(number, sizeof number, "%s%02x", text.empty() ? "" : ":", byte);
        text += number;
    }
    return text;
}

std::string describe_process(const Info &info) {
    std::string name = printable(info.process);
    if (info.identity.empty() || info.identity == info.process) return name;
    return name + ", taken for " + info.identity;
}

std::string describe_channels(const ChannelMap &map) {
    return std::to_string(map.total) + ", " + std::to_string(map.local) + " of them on chip 0";
}

std::string to_text(const Info &info, bool colour) {
    const Unit &unit = info.unit;
    const auto line = [colour](const char *name, const std::string &value) {
        return named_value(name, 14, value, colour);
    };
    std::string text = line("product", printable(unit.product));
    text += line("chips", describe_chips(unit));
    text += line("channels", describe_channels(unit.map));
    text += line("extended id", describe_extended_id(unit));
    text += line("process", describe_process(info));
    text += "\n" + properties_text(unit.chips, colour);
    if (!unit.map.channels.empty()) text += "\n" + channels_text(unit.map, colour);
    return text;
}

void show_info(Session &session, bool json) {
    const Library &library = session.library();
    const Info info{process_name(), identity(library), read_unit(library)};
    if (json) {
        print_json(to_json(info));
    } else {
        print(to_text(info, wants_colour()));
        fputs(what_is_hidden(info.identity).c_str(), stderr);
    }
    require_answers(info.unit.chips);
}

}  // namespace

void add_info(CLI::App &app, Session &session) {
    CLI::App *verb =
        app.add_subcommand("info", "Print what unit this is: product, chips, properties, channels");
    auto json = std::make_shared<bool>(false);
    verb->add_flag("--json", *json, "Print JSON (described by qelctl.schema.json)");
    verb->footer(
        "Examples:\n"
        "  qelctl info\n"
        "  qelctl --as systools info\n"
        "  qelctl info --json");
    verb->callback([&session, json] { show_info(session, *json); });
}

}  // namespace qelctl
