#include "tests/tools/schema.h"

#include <regex>
#include <set>
#include <stdexcept>

namespace qel::test {

namespace {

using nlohmann::json;

const std::set<std::string> kKnownWords = {"$ref",       "type",    "enum",     "required",
                                           "properties", "items",   "minItems", "maxItems",
                                           "minimum",    "maximum", "pattern",  "description"};

bool has_type(const json &value, const std::string &type) {
    if (type == "integer") return value.is_number_integer();
    return type == value.type_name();
}

class Checker {
public:
    explicit Checker(const json &schema) : schema_(schema) {}

    std::string check(const json &rule, const json &value, const std::string &at) const {
        for (const auto &[word, unused] : rule.items()) {
            if (!kKnownWords.contains(word)) throw std::runtime_error("unknown word in the schema: " + word);
        }
        if (rule.contains("$ref")) return check(definition(rule["$ref"]), value, at);
        const std::string own = check_value(rule, value);
        if (!own.empty()) return at + ": " + own;
        if (value.is_object()) return check_members(rule, value, at);
        if (value.is_array() && rule.contains("items")) {
            for (size_t i = 0; i < value.size(); ++i) {
                const std::string wrong = check(rule["items"], value[i], at + "/" + std::to_string(i));
                if (!wrong.empty()) return wrong;
            }
        }
        return {};
    }

    const json &definition(const std::string &reference) const {
        return schema_.at(json::json_pointer(reference.substr(1)));
    }

private:
    static std::string check_value(const json &rule, const json &value) {
        if (rule.contains("type")) {
            const json types = rule["type"].is_array() ? rule["type"] : json::array({rule["type"]});
            bool good = false;
            for (const auto &type : types) good = good || has_type(value, type);
            if (!good) return "is a " + std::string(value.type_name()) + ", not " + types.dump();
        }
        if (rule.contains("enum")) {
            bool good = false;
            for (const auto &allowed : rule["enum"]) good = good || allowed == value;
            if (!good) return value.dump() + " is none of " + rule["enum"].dump();
        }
        if (value.is_number() && value < rule.value("minimum", json(INT64_MIN)))
            return value.dump() + " is too small";
        if (value.is_number() && value > rule.value("maximum", json(INT64_MAX)))
            return value.dump() + " is too large";
        if (value.is_array() && value.size() < rule.value("minItems", 0U)) return "has too few items";
        if (value.is_array() && value.size() > rule.value("maxItems", UINT32_MAX))
            return "has too many items";
        if (value.is_string() && rule.contains("pattern") &&
            !std::regex_search(value.get<std::string>(), std::regex(rule["pattern"].get<std::string>())))
            return value.dump() + " has another form";
        return {};
    }

    // Stricter than the schema is to its readers: what qelctl prints must also be described.
    std::string check_members(const json &rule, const json &value, const std::string &at) const {
        for (const auto &name : rule.value("required", json::array())) {
            if (!value.contains(name)) return at + ": lacks " + name.dump();
        }
        for (const auto &[name, member] : value.items()) {
            if (!rule["properties"].contains(name)) return at + ": \"" + name + "\" is not described";
            const std::string wrong = check(rule["properties"][name], member, at + "/" + name);
            if (!wrong.empty()) return wrong;
        }
        return {};
    }

    const json &schema_;
};

}  // namespace

std::string violation(const json &schema, const std::string &definition, const json &document) {
    const Checker checker(schema);
    return checker.check(checker.definition("#/$defs/" + definition), document, "");
}

}  // namespace qel::test
