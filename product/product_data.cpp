#include "product/product_data.h"

#include "qel/product.h"

namespace qel::product {

namespace {

constexpr FamilyRule kFamilyRules[] = {
    {Family::kMicrocontrollerClock, "TRF-"},
    {Family::kHardwareRs485Direction, "TRF-"},
};
// No model known so far needs a fixed line, or the length-framed link elsewhere than others.
constexpr std::span<const LineRule> kLineRules;
constexpr std::span<const LinkRule> kLinkRules;

}  // namespace

std::string_view own_name() {
    const char *name = nullptr;
    if (QEL_productGetCfgNum() <= 0 || QEL_productGetName(&name) != 0) return {};
    return name;
}

std::span<const FamilyRule> family_rules() { return kFamilyRules; }

bool is_of_family(Family family) { return is_of_family(family_rules(), own_name(), family); }

std::span<const LineRule> line_rules() { return kLineRules; }

FixedLine fixed_line_of(uint32_t port) { return fixed_line_of(line_rules(), own_name(), port); }

LinkLine link_line() { return link_line_of(kLinkRules, own_name()); }

}  // namespace qel::product
