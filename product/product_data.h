// product_data.h - what the product decides and no device tells: which models belong to a family that
// a module treats in a way of its own.
//
// One table for all modules (product_data.cpp), matched against the product name of the hardware id.
// It is empty for a board that needs nothing special.
#pragma once

#include <span>
#include <string_view>

namespace qel::product {

enum class Family {
    kHardwareRs485Direction,  // the line driver turns round by itself
    kMicrocontrollerClock,    // the clock is the microcontroller's
};

struct FamilyRule {
    Family family;
    std::string_view prefix;  // of the product name
};

constexpr bool is_of_family(std::span<const FamilyRule> rules, std::string_view product_name, Family family) {
    for (const FamilyRule &rule : rules) {
        if (rule.family == family && product_name.starts_with(rule.prefix)) return true;
    }
    return false;
}

// Of the product's own table.
std::span<const FamilyRule> family_rules();

}  // namespace qel::product
