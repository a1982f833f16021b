#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "tools/qelctl/exit_code.h"
#include "tools/qelctl/output.h"
#include "tools/qelctl/report.h"
#include "tools/qelctl/table.h"
#include "tools/qelctl/unit.h"
#include "tools/qelctl/verb.h"

namespace qelctl {

namespace {

using nlohmann::ordered_json;

struct Choice {
    std::optional<unsigned> chip;
    std::optional<unsigned> channel;
    bool json = false;
};

std::string known_numbers(const std::vector<ChipFacts> &chips) {
    std::string text;
    for (const ChipFacts &chip : chips) text += (text.empty() ? "" : ", ") + std::to_string(chip.chip);
    return text;
}

std::vector<ChipFacts> only(std::vector<ChipFacts> chips, unsigned number) {
    const auto found = std::find_if(chips.begin(), chips.end(),
                                    [number](const ChipFacts &chip) { return chip.chip == number; });
    if (found != chips.end()) return {*found};
    throw Failure(ExitCode::kFailed, "chip " + std::to_string(number) +
                                         " is not known to this process; known: " + known_numbers(chips) +
                                         ".");
}

void run_for_channel(const Library &library, unsigned channel, bool json) {
    const std::vector<int> values = read_properties_of_channel(library, channel);
    if (json) {
        print_json(ordered_json{{"logical", channel}, {"properties", properties_json(values)}});
        return;
    }
    Table table({"id", "property", "channel " + std::to_string(channel)});
    for (size_t i = 0; i < values.size(); ++i) {
        table.add(
            {std::to_string(kProperties[i].id), property_label(kProperties[i]), std::to_string(values[i])});
    }
    print(table.text(wants_colour()));
}

void run_for_chips(const Library &library, const Choice &choice) {
    std::vector<ChipFacts> chips = read_chips(library);
    if (choice.chip) chips = only(std::move(chips), *choice.chip);
    if (choice.json) {
        print_json(chips_json(chips));
    } else {
        print(properties_text(chips, wants_colour()));
    }
    require_answers(chips);
}

}  // namespace

void add_properties(CLI::App &app, Session &session) {
    CLI::App *verb = app.add_subcommand("properties", "Print the numbered properties of the board");
    auto choice = std::make_shared<Choice>();
    CLI::Option *chip = verb->add_option("--chip", choice->chip, "Of this chip only, 0 = master");
    CLI::Option *channel =
        verb->add_option("--chn", choice->channel, "Of the chip that owns this logical channel");
    chip->type_name("N");
    channel->type_name("N")->excludes(chip);
    verb->add_flag("--json", choice->json, "Print JSON (described by qelctl.schema.json)");
    verb->footer(
        "Examples:\n"
        "  qelctl properties\n"
        "  qelctl properties --chip 1 --as systools\n"
        "  qelctl properties --chn 0 --as systools --json");
    verb->callback([&session, choice] {
        const Library &library = session.library();
        if (choice->channel) {
            run_for_channel(library, *choice->channel, choice->json);
        } else {
            run_for_chips(library, *choice);
        }
    });
}

}  // namespace qelctl
