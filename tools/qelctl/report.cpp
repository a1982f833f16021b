#include "tools/qelctl/report.h"

#include <iterator>
#include <nlohmann/json.hpp>

#include "tools/qelctl/exit_code.h"
#include "tools/qelctl/table.h"

namespace qelctl {

using nlohmann::ordered_json;

std::string property_label(const Property &property) {
    return property.label == nullptr ? "property " + std::to_string(property.id) : property.label;
}

std::string properties_text(const std::vector<ChipFacts> &chips, bool colour) {
    std::vector<std::string> headings = {"id", "property"};
    for (const ChipFacts &chip : chips) headings.push_back("chip " + std::to_string(chip.chip));
    Table table(headings);
    for (size_t i = 0; i < std::size(kProperties); ++i) {
        std::vector<std::string> cells = {std::to_string(kProperties[i].id), property_label(kProperties[i])};
        for (const ChipFacts &chip : chips) {
            cells.push_back(chip.properties.empty() ? "-" : std::to_string(chip.properties[i]));
        }
        table.add(cells);
    }
    return table.text(colour);
}

std::string channels_text(const ChannelMap &map, bool colour) {
    Table table({"channel", "chip", "channel there", "board type", "product category"});
    for (const Channel &channel : map.channels) {
        table.add({std::to_string(channel.logical), std::to_string(channel.chip),
                   std::to_string(channel.physical), std::to_string(channel.board_type),
                   std::to_string(channel.category)});
    }
    return table.text(colour);
}

ordered_json properties_json(const std::vector<int> &values) {
    ordered_json list = ordered_json::array();
    for (size_t i = 0; i < values.size(); ++i) {
        const Property &property = kProperties[i];
        ordered_json entry = {{"id", property.id}, {"value", values[i]}};
        if (property.label != nullptr) entry["name"] = property.label;
        list.push_back(entry);
    }
    return list;
}

ordered_json chips_json(const std::vector<ChipFacts> &chips) {
    ordered_json list = ordered_json::array();
    for (const ChipFacts &chip : chips) {
        list.push_back({{"chip", chip.chip},
                        {"answered", !chip.properties.empty()},
                        {"properties", properties_json(chip.properties)}});
    }
    return list;
}

ordered_json map_json(const ChannelMap &map) {
    ordered_json channels = ordered_json::array();
    for (const Channel &channel : map.channels) {
        channels.push_back({{"logical", channel.logical},
                            {"chip", channel.chip},
                            {"channel", channel.physical},
                            {"board_type", channel.board_type},
                            {"category", channel.category}});
    }
    return {{"total", map.total}, {"local", map.local}, {"channels", channels}};
}

void require_answers(const std::vector<ChipFacts> &chips) {
    for (const ChipFacts &chip : chips) {
        if (!chip.properties.empty()) continue;
        throw Failure(ExitCode::kFailed, "chip " + std::to_string(chip.chip) +
                                             " did not answer when the library started; is its software "
                                             "running? The library's log says more.");
    }
}

std::string what_is_hidden(const std::string &identity) {
    if (!identity.empty()) return {};
    return "The library shows channels and other chips only to vesta, VideoDaemon and systools.\n"
           "Use --as with one of them that is not running.\n";
}

}  // namespace qelctl
