// schema.h - holds what qelctl prints to docs/qelctl.schema.json, for the words that it uses.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/tools/command.h"

namespace qel::test {

using nlohmann::json;

// The document that a command printed; the test fails unless it ended with `code`, printed nothing else
// and the document is what the schema's `definition` says. A word of the schema that the check does not
// know ends the test, so that no rule is passed over.
json document(const Outcome &outcome, const std::string &definition, int code = kOk);

// One document per line.
std::vector<json> documents(const std::string &lines, const std::string &definition);

}  // namespace qel::test
