#include "tests/tools/schema.h"

#include <gtest/gtest.h>

namespace qel::test {
namespace {

using nlohmann::json;

const json kSchema = json::parse(R"({"$defs": {
    "camera": {"type": "object", "required": ["id"], "properties": {
        "id": {"type": "integer", "minimum": 1, "maximum": 9},
        "mode": {"enum": ["day", null]},
        "mac": {"type": "string", "pattern": "^[0-9a-f]{4}$"},
        "list": {"type": ["array", "null"], "items": {"$ref": "#/$defs/camera"}, "minItems": 1, "maxItems": 2}}}}})");

TEST(SchemaCheck, TellsAValidDocumentFromABrokenOne) {
    const std::pair<const char *, const char *> cases[] = {
        {R"({"id": 1, "mode": null, "mac": "00ff", "list": [{"id": 9}]})", ""},
        {R"({"id": 1, "list": null})", ""},
        {R"({"mode": "day"})", ": lacks \"id\""},
        {R"({"id": "1"})", "/id: is a string, not [\"integer\"]"},
        {R"({"id": 1.5})", "/id: is a number, not [\"integer\"]"},
        {R"({"id": 0})", "/id: 0 is too small"},
        {R"({"id": 10})", "/id: 10 is too large"},
        {R"({"id": 1, "mode": "night"})", "/mode: \"night\" is none of [\"day\",null]"},
        {R"({"id": 1, "mac": "00fg"})", "/mac: \"00fg\" has another form"},
        {R"({"id": 1, "list": []})", "/list: has too few items"},
        {R"({"id": 1, "list": [{"id": 1}, {"id": 1}, {"id": 1}]})", "/list: has too many items"},
        {R"({"id": 1, "list": [{"id": 1}, {}]})", "/list/1: lacks \"id\""},
        {R"({"id": 1, "colour": 2})", ": \"colour\" is not described"},
    };
    for (const auto &[document, expected] : cases) {
        EXPECT_EQ(violation(kSchema, "camera", json::parse(document)), expected) << document;
    }
    EXPECT_THROW(violation(json::parse(R"({"$defs": {"x": {"const": 1}}})"), "x", 1), std::runtime_error);
}

}  // namespace
}  // namespace qel::test
