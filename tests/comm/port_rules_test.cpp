// What boards and products decide about their ports: the rules, against tables of this test's own.
#include <gtest/gtest.h>

#include <string>

#include "comm/port_rules.h"

namespace qel::comm {
namespace {

using product::Family;
using product::FamilyRule;
using product::FixedLine;

constexpr FamilyRule kFamilies[] = {
    {Family::kThreeOwnUarts, "THREE"},      {Family::kSixOwnUarts, "SIX"},
    {Family::kDoorStation, "DOOR"},         {Family::kNoThirdTty, "SHORT"},
    {Family::kFiveNonblockingPorts, "SIX"}, {Family::kHardwareRs485Direction, "SHORT"},
};

TEST(TtyName, FollowsTheFirstRuleThatFits) {
    const struct {
        const char *product;
        int board_type;
        uint32_t port;
        const char *name;
        int category = 0;
        int second_port_rule = 0;
    } rules[] = {
        {"BOX", 9, 1, "O1"},        {"BOX", 9, 2, "M0"},        {"BOX", 15, 2, "M0"},
        {"BOX", 16, 5, "M3"},       {"THREE-1", 9, 2, "O2"},    {"THREE-1", 9, 3, "M0"},
        {"THREE-1", 12, 2, "O2"},   {"SIX-1", 9, 5, "O5"},      {"SIX-1", 16, 6, "M0"},
        {"SIX-1", 9, 7, "M1"},      {"BOX", 27, 2, "AMA2"},     {"DOOR-1", 26, 2, "AMA1"},
        {"DOOR-1", 26, 1, "S1"},    {"DOOR-1", 25, 2, "S2"},    {"", 26, 2, "S2"},
        {"SHORT-1", 1, 2, "S1"},    {"SHORT-1", 1, 3, "S3"},    {"SHORT-1", 1, 4, "S4"},
        {"BOX", 54, 2, "S1", 4},    {"BOX", 54, 2, "S2", 3},    {"BOX", 54, 1, "S1", 4},
        {"BOX", 52, 2, "S5", 4},    {"BOX", 52, 4, "S2", 4},    {"BOX", 52, 1, "S1", 4},
        {"BOX", 52, 1, "S2", 4, 1}, {"BOX", 52, 4, "S4", 4, 1}, {"BOX", 52, 2, "S2", 3},
        {"BOX", 18, 9, "S9"},
    };
    for (const auto &rule : rules) {
        NameFacts facts{rule.port,
                        false,
                        0,
                        rule.board_type,
                        rule.category,
                        rule.second_port_rule,
                        rules_of(kFamilies, rule.product)};
        const TtyName name = tty_name(facts);
        EXPECT_EQ(std::string(name.prefix) + std::to_string(name.number), "/dev/tty" + std::string(rule.name))
            << rule.product << " port " << rule.port << " of " << rule.board_type;
        facts.tty_given = true;
        facts.tty_number = 7;
        EXPECT_EQ(tty_name(facts).number, 7U);
        EXPECT_STREQ(tty_name(facts).prefix, "/dev/ttyS");
    }
}

TEST(ProductRules, SayHowPortsAreOpenedAndWhoTurnsThemRound) {
    for (const auto &[product, first_blocking] : {std::pair{"BOX", 2U}, {"SIX-1", 5U}, {"", 2U}}) {
        const ProductRules rules = rules_of(kFamilies, product);
        for (uint32_t port = 0; port < QEL_COM_MAX_PORTS; ++port)
            EXPECT_EQ(opens_nonblocking(rules, port), port < first_blocking) << product << " port " << port;
    }
    EXPECT_TRUE(drives_direction(rules_of(kFamilies, "BOX"), true));
    EXPECT_FALSE(drives_direction(rules_of(kFamilies, "BOX"), false));
    EXPECT_FALSE(drives_direction(rules_of(kFamilies, "SHORT-1"), true));
}

TEST(PortCaps, OfTheProductCountWhereTheMapHasNoDirectionLine) {
    constexpr uint32_t kNone = QEL_COM_NO_LINE;
    const struct {
        uint32_t direction_line, status_line;
        FixedLine fixed;
        ComCaps caps;
    } lines[] = {
        {kNone, kNone, FixedLine::kUnknown, {0, 0, QEL_COM_LINE_RS232}},
        {kNone, kNone, FixedLine::kRs485, {1, 0, QEL_COM_LINE_RS485}},
        {kNone, 5, FixedLine::kRs485, {1, 0, QEL_COM_LINE_RS485}},
        {kNone, kNone, FixedLine::kRs232, {0, 1, QEL_COM_LINE_RS232}},
        {4, kNone, FixedLine::kRs232, {1, 0, QEL_COM_LINE_RS485}},
        {4, 5, FixedLine::kRs232, {0, 0, QEL_COM_LINE_SWITCHABLE}},
    };
    for (const auto &line : lines) {
        ComMapItem item{};
        item.directionLine = line.direction_line;
        item.statusLine = line.status_line;
        const ComCaps caps = caps_of(item, line.fixed);
        EXPECT_EQ(caps.fixedRs485, line.caps.fixedRs485);
        EXPECT_EQ(caps.fixedRs232, line.caps.fixedRs232);
        EXPECT_EQ(caps.lineType, line.caps.lineType);
    }
}

TEST(LineStatus, TellsWhenTheLineIsEmptyOnItsBoardsOnly) {
    for (const int type : {44, 58, 52, 53, 54, 45, 56, 32, 33, 37, 63, 64})
        EXPECT_TRUE(polls_line_status(type, 0)) << type;
    EXPECT_TRUE(polls_line_status(1, 4));
    for (const int type : {0, 9, 27, 26, 31, 34, 57, 65}) EXPECT_FALSE(polls_line_status(type, 3)) << type;
}

TEST(FramedLink, IsWhereTheProductHasIt) {
    constexpr product::LinkRule kRules[] = {{"DOOR", {.usage = 6, .baud = 115200}}, {"D", {.usage = 5}}};
    EXPECT_EQ(product::link_line_of(kRules, "DOOR-1").usage, 6U);
    EXPECT_EQ(product::link_line_of(kRules, "DOOR-1").baud, 115200U);
    EXPECT_EQ(product::link_line_of(kRules, "DESK").usage, 5U);
    EXPECT_EQ(product::link_line_of(kRules, "BOX").usage, 26U);
    EXPECT_EQ(product::link_line_of(kRules, "").baud, 9600U);
}

}  // namespace
}  // namespace qel::comm
