#include "comm/port_board.h"

#include "comm/port_map.h"
#include "product/hwid_store.h"
#include "qel/product.h"

namespace qel::comm {

namespace {

constexpr int kSecondPortRule = 20;  // the property

}  // namespace

ProductRules product_rules() { return rules_of(product::family_rules(), product::own_name()); }

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
    facts.product = product_rules();
    return facts;
}

bool board_polls_line_status() {
    return polls_line_status(product::property(0, QEL_PROPERTY_BOARD_TYPE),
                             product::property(0, QEL_PROPERTY_CATEGORY));
}

SetDirection direction_control(bool half_duplex) {
    return drives_direction(product_rules(), half_duplex) ? QEL_485SetCtl : nullptr;
}

}  // namespace qel::comm
