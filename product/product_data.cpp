#include "product/product_data.h"

namespace qel::product {

namespace {

// No model known so far needs a family.
constexpr std::span<const FamilyRule> kFamilyRules;

}  // namespace

std::span<const FamilyRule> family_rules() { return kFamilyRules; }

}  // namespace qel::product
