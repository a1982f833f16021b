#include "comm/com_board.h"

#include "comm/port_map.h"
#include "product/hwid_store.h"
#include "product/product_data.h"
#include "qel/product.h"

namespace qel::comm {

namespace {

constexpr int kSecondPortRule = 20;  // the property
constexpr unsigned kNonblockingPorts = 2;
constexpr unsigned kManyNonblockingPorts = 5;

unsigned own_uarts() {
    if (product::is_of_family(product::Family::kSixOwnUarts)) return 6;
    return product::is_of_family(product::Family::kThreeOwnUarts) ? 3 : 2;
}

}  // namespace

NameFacts name_facts(uint32_t port) {
    NameFacts facts;
    facts.port = port;
    const ComMapItem *item = find_item(port);
    if (item != nullptr) {
        facts.tty_given = item->ttyGiven == 1;
        facts.tty_number = item->ttyNumber;
    }
    facts.board_type = product::property(0, QEL_PROPERTY_BOARD_TYPE);
    facts.category = product::property(0, QEL_PROPERTY_CATEGORY);
    facts.second_port_rule = product::property(0, kSecondPortRule);
    facts.own_uarts = own_uarts();
    facts.door_station = product::is_of_family(product::Family::kDoorStation);
    facts.no_third_tty = product::is_of_family(product::Family::kNoThirdTty);
    return facts;
}

bool board_polls_line_status() {
    return polls_line_status(product::property(0, QEL_PROPERTY_BOARD_TYPE),
                             product::property(0, QEL_PROPERTY_CATEGORY));
}

bool opens_nonblocking(uint32_t port) {
    const bool many = product::is_of_family(product::Family::kFiveNonblockingPorts);
    return port < (many ? kManyNonblockingPorts : kNonblockingPorts);
}

int turn_line_round(uint32_t port, uint32_t state) {
    if (product::is_of_family(product::Family::kHardwareRs485Direction)) return 0;
    return QEL_485SetCtl(port, state);
}

}  // namespace qel::comm
