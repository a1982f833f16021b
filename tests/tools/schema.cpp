#include "tests/tools/schema.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <set>
#include <sstream>
#include <stdexcept>

namespace qel::test {

namespace {

const std::set<std::string> kKnownWords = {"$ref",       "type",    "enum",     "required",
                                           "properties", "items",   "minItems", "maxItems",
                                           "minimum",    "maximum", "pattern",  "description"};

bool has_type(const json &value, const std::string &type) {
    return type == "integer" ? value.is_number_integer() : type == value.type_name();
}

// Our patterns mean the same as extended regular expressions of POSIX.
bool has_form(const std::string &text, const std::string &pattern) {
    return std::regex_search(text, std::regex(pattern, std::regex::extended));
}

std::string wrong_value(const json &rule, const json &value) {
    if (rule.contains("type")) {
        const json types = rule["type"].is_array() ? rule["type"] : json::array({rule["type"]});
        if (std::none_of(types.begin(), types.end(), [&](const json &type) { return has_type(value, type); }))
            return "is a " + std::string(value.type_name()) + ", not " + types.dump();
    }
    if (rule.contains("enum") && std::count(rule["enum"].begin(), rule["enum"].end(), value) == 0)
        return value.dump() + " is none of " + rule["enum"].dump();
    if (value.is_number() &&
        (value < rule.value("minimum", json(INT64_MIN)) || value > rule.value("maximum", json(INT64_MAX))))
        return value.dump() + " is out of range";
    if (value.is_array() &&
        (value.size() < rule.value("minItems", 0U) || value.size() > rule.value("maxItems", UINT32_MAX)))
        return "has too few or too many items";
    if (value.is_string() && rule.contains("pattern") && !has_form(value, rule["pattern"]))
        return value.dump() + " has another form";
    return {};
}

// What is wrong, with the place in the document; empty when it is valid. Stricter than the schema is to
// its readers: what qelctl prints must also be described.
std::string violation(const json &schema, const json &rule, const json &value, const std::string &at) {
    for (const auto &[word, unused] : rule.items()) {
        if (!kKnownWords.contains(word)) throw std::runtime_error("unknown word in the schema: " + word);
    }
    if (rule.contains("$ref")) {
        const std::string reference = rule["$ref"];
        return violation(schema, schema.at(json::json_pointer(reference.substr(1))), value, at);
    }
    std::string wrong = wrong_value(rule, value);
    if (!wrong.empty()) return at + ": " + wrong;
    if (value.is_array()) {
        for (size_t i = 0; i < value.size() && rule.contains("items") && wrong.empty(); ++i)
            wrong = violation(schema, rule["items"], value[i], at + "/" + std::to_string(i));
    }
    if (!value.is_object()) return wrong;
    for (const auto &name : rule.value("required", json::array())) {
        if (!value.contains(name)) return at + ": lacks " + name.dump();
    }
    for (const auto &[name, member] : value.items()) {
        if (!rule["properties"].contains(name)) return at + ": \"" + name + "\" is not described";
        wrong = violation(schema, rule["properties"][name], member, at + "/" + name);
        if (!wrong.empty()) break;
    }
    return wrong;
}

json checked(const std::string &text, const std::string &definition) {
    static const json schema = json::parse(read_all(QEL_SCHEMA));
    json parsed = json::parse(text, nullptr, false);
    EXPECT_EQ(violation(schema, schema.at("$defs").at(definition), parsed, ""), "") << text;
    return parsed;
}

}  // namespace

json document(const Outcome &outcome, const std::string &definition, int code) {
    EXPECT_EQ(outcome.code, code) << outcome.err;
    return checked(outcome.out, definition);
}

std::vector<json> documents(const std::string &lines, const std::string &definition) {
    std::vector<json> all;
    std::istringstream text(lines);
    for (std::string line; std::getline(text, line);) all.push_back(checked(line, definition));
    return all;
}

}  // namespace qel::test
