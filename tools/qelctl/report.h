// report.h - the unit's facts as people read them and as JSON. docs/qelctl.schema.json describes the
// JSON; the two change together.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "tools/qelctl/unit.h"

namespace qelctl {

std::string property_label(const Property &property);

// One row per property, one column per chip.
std::string properties_text(const std::vector<ChipFacts> &chips, bool colour);
std::string channels_text(const ChannelMap &map, bool colour);

nlohmann::ordered_json properties_json(const std::vector<int> &values);  // in the order of kProperties
nlohmann::ordered_json chips_json(const std::vector<ChipFacts> &chips);
nlohmann::ordered_json map_json(const ChannelMap &map);

// Throws Failure(kFailed) when a chip has not answered. For the end of a verb: what is known is out.
void require_answers(const std::vector<ChipFacts> &chips);

// What to tell people when the library hides part of the unit from a process of this identity, with
// the way out; empty when it hides nothing.
std::string what_is_hidden(const std::string &identity);

}  // namespace qelctl
