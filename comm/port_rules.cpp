#include "comm/port_rules.h"

#include <algorithm>
#include <iterator>

namespace qel::comm {

namespace {

constexpr int kExpansionBoards[] = {9, 12, 15, 16};
constexpr int kAmbaBoard = 27;
constexpr int kDoorStationBoard = 26;
constexpr int kNoThirdTtyBoard = 54;
constexpr int kCrossedBoard = 52;
constexpr int kStatusBoards[] = {44, 58, 52, 53, 54, 45, 56, 32, 33, 37, 63, 64};
// Tells when the last bit is out, and on some boards numbers its ttys otherwise.
constexpr int kOwnWayCategory = 4;

template <size_t kCount>
bool is_one_of(const int (&boards)[kCount], int board) {
    return std::find(std::begin(boards), std::end(boards), board) != std::end(boards);
}

TtyName expansion_name(const NameFacts &facts) {
    const unsigned own_uarts = facts.product.own_uarts;
    if (facts.port < own_uarts) return {"/dev/ttyO", facts.port};
    return {"/dev/ttyM", facts.port - own_uarts};
}

uint32_t crossed_number(const NameFacts &facts) {
    const uint32_t second_tty_port = facts.second_port_rule == 1 ? 1 : 4;
    if (facts.port == 2) return 5;
    return facts.port == second_tty_port ? 2 : facts.port;
}

}  // namespace

ProductRules rules_of(std::span<const product::FamilyRule> families, std::string_view product_name) {
    using product::Family;
    const auto is_of = [=](Family family) { return product::is_of_family(families, product_name, family); };
    ProductRules rules;
    if (is_of(Family::kThreeOwnUarts)) rules.own_uarts = 3;
    if (is_of(Family::kSixOwnUarts)) rules.own_uarts = 6;
    if (is_of(Family::kFiveNonblockingPorts)) rules.nonblocking_ports = 5;
    rules.hardware_direction = is_of(Family::kHardwareRs485Direction);
    rules.door_station = is_of(Family::kDoorStation);
    rules.no_third_tty = is_of(Family::kNoThirdTty);
    return rules;
}

TtyName tty_name(const NameFacts &facts) {
    constexpr const char *kPlain = "/dev/ttyS";
    constexpr const char *kAmba = "/dev/ttyAMA";
    const bool numbers_its_own_way = facts.category == kOwnWayCategory;
    if (facts.tty_given) return {kPlain, facts.tty_number};
    if (is_one_of(kExpansionBoards, facts.board_type)) return expansion_name(facts);
    if (facts.board_type == kAmbaBoard) return {kAmba, facts.port};
    if (facts.port == 2 && facts.board_type == kDoorStationBoard && facts.product.door_station)
        return {kAmba, facts.port - 1};
    if (facts.port == 2 &&
        (facts.product.no_third_tty || (facts.board_type == kNoThirdTtyBoard && numbers_its_own_way)))
        return {kPlain, facts.port - 1};
    if (facts.board_type == kCrossedBoard && numbers_its_own_way) return {kPlain, crossed_number(facts)};
    return {kPlain, facts.port};
}

bool polls_line_status(int board_type, int category) {
    return category == kOwnWayCategory || is_one_of(kStatusBoards, board_type);
}

ComCaps caps_of(const ComMapItem &item, product::FixedLine fixed) {
    if (has_direction_line(item)) {
        if (item.statusLine != QEL_COM_NO_LINE) return {0, 0, QEL_COM_LINE_SWITCHABLE};
        return {.fixedRs485 = 1, .fixedRs232 = 0, .lineType = QEL_COM_LINE_RS485};
    }
    if (fixed == product::FixedLine::kRs485)
        return {.fixedRs485 = 1, .fixedRs232 = 0, .lineType = QEL_COM_LINE_RS485};
    return {.fixedRs485 = 0,
            .fixedRs232 = fixed == product::FixedLine::kRs232 ? 1u : 0u,
            .lineType = QEL_COM_LINE_RS232};
}

}  // namespace qel::comm
