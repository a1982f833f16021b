#include "comm/com_name.h"

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
constexpr int kStatusCategory = 4;  // also of the boards that number their ttys in a way of their own

template <size_t kCount>
bool is_one_of(const int (&boards)[kCount], int board) {
    return std::find(std::begin(boards), std::end(boards), board) != std::end(boards);
}

TtyName expansion_name(const NameFacts &facts) {
    if (facts.port < facts.own_uarts) return {"/dev/ttyO", facts.port};
    return {"/dev/ttyM", facts.port - facts.own_uarts};
}

uint32_t crossed_number(const NameFacts &facts) {
    const uint32_t second_tty_port = facts.second_port_rule == 1 ? 1 : 4;
    if (facts.port == 2) return 5;
    return facts.port == second_tty_port ? 2 : facts.port;
}

}  // namespace

TtyName tty_name(const NameFacts &facts) {
    constexpr const char *kPlain = "/dev/ttyS";
    constexpr const char *kAmba = "/dev/ttyAMA";
    const bool numbers_its_own_way = facts.category == kStatusCategory;
    if (facts.tty_given) return {kPlain, facts.tty_number};
    if (is_one_of(kExpansionBoards, facts.board_type)) return expansion_name(facts);
    if (facts.board_type == kAmbaBoard) return {kAmba, facts.port};
    if (facts.port == 2 && facts.board_type == kDoorStationBoard && facts.door_station)
        return {kAmba, facts.port - 1};
    if (facts.port == 2 &&
        (facts.no_third_tty || (facts.board_type == kNoThirdTtyBoard && numbers_its_own_way)))
        return {kPlain, facts.port - 1};
    if (facts.board_type == kCrossedBoard && numbers_its_own_way) return {kPlain, crossed_number(facts)};
    return {kPlain, facts.port};
}

bool polls_line_status(int board_type, int category) {
    return category == kStatusCategory || is_one_of(kStatusBoards, board_type);
}

}  // namespace qel::comm
