#include "product/product_data.h"

#include <algorithm>

#include "qel/product.h"

namespace qel::product {

namespace {

// No model known so far needs a fixed line.
constexpr FamilyRule kFamilyRules[] = {
    {Family::kMicrocontrollerClock, "TRF-"},
};
constexpr std::span<const LineRule> kLineRules;
// The last one is for all products that no other rule names.
constexpr LinkRule kLinkRules[] = {
    {"", {.usage = 26, .baud = 9600}},
};

// Empty where the product module did not start; nothing begins with a rule's prefix then.
std::string_view own_name() {
    const char *name = nullptr;
    if (QEL_productGetCfgNum() <= 0 || QEL_productGetName(&name) != 0) return {};
    return name;
}

}  // namespace

std::span<const FamilyRule> family_rules() { return kFamilyRules; }

bool is_of_family(Family family) { return is_of_family(family_rules(), own_name(), family); }

std::span<const LineRule> line_rules() { return kLineRules; }

FixedLine fixed_line_of(uint32_t port) { return fixed_line_of(line_rules(), own_name(), port); }

LinkLine link_line() {
    const std::string_view name = own_name();
    return std::ranges::find_if(kLinkRules,
                                [=](const LinkRule &rule) { return name.starts_with(rule.prefix); })
        ->line;
}

}  // namespace qel::product
