// schema.h - checks a JSON document against a JSON Schema, for the words that our schemas use.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace qel::test {

// What is wrong, with the place in the document; empty when it is valid. Throws std::runtime_error
// for a schema that uses a word this checker does not know, so that no rule is passed over.
std::string violation(const nlohmann::json &schema, const std::string &definition,
                      const nlohmann::json &document);

}  // namespace qel::test
