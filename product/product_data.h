// product_data.h - what the product decides and no device tells: which models belong to a family that
// a module treats in a way of its own.
//
// One table for all modules (product_data.cpp), matched against the product name of the hardware id.
// It is empty for a board that needs nothing special.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

namespace qel::product {

enum class Family {
    kHardwareRs485Direction,  // the line driver turns round by itself
    kMicrocontrollerClock,    // the clock is the microcontroller's
    // Serial ports: how many are on the chip's own UARTs where that is not two, which ttys they are, and
    // how many are opened non-blocking where that is not two.
    kThreeOwnUarts,
    kSixOwnUarts,
    kDoorStation,  // board type 26: port 2 is the tty before its own
    kNoThirdTty,   // port 2 is the tty before its own
    kFiveNonblockingPorts,
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
// This product's; empty where the product module did not start, and no prefix is that of a rule then.
std::string_view own_name();
// Of this product.
bool is_of_family(Family family);

// What the line of a serial port is where the port map says nothing of it.
enum class FixedLine { kUnknown, kRs232, kRs485 };

struct LineRule {
    std::string_view prefix;  // of the product name
    uint32_t port;
    FixedLine line;
};

constexpr FixedLine fixed_line_of(std::span<const LineRule> rules, std::string_view product_name,
                                  uint32_t port) {
    for (const LineRule &rule : rules) {
        if (rule.port == port && product_name.starts_with(rule.prefix)) return rule.line;
    }
    return FixedLine::kUnknown;
}

std::span<const LineRule> line_rules();
// Of this product.
FixedLine fixed_line_of(uint32_t port);

// Which port carries the length-framed link, by what the port map says it is for, and its speed.
struct LinkLine {
    uint32_t usage = 26;
    uint32_t baud = 9600;
};

struct LinkRule {
    std::string_view prefix;  // of the product name
    LinkLine line;
};

constexpr LinkLine link_line_of(std::span<const LinkRule> rules, std::string_view product_name) {
    for (const LinkRule &rule : rules) {
        if (product_name.starts_with(rule.prefix)) return rule.line;
    }
    return {};
}

// Of this product.
LinkLine link_line();

}  // namespace qel::product
