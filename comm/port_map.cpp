#include "comm/port_map.h"

#include <algorithm>
#include <iterator>
#include <span>

#include "frame/log.h"

namespace qel::comm {

namespace {

constexpr ComMap empty_map() {
    ComMap empty{};
    empty.items[0].port = QEL_COM_END_OF_MAP;
    return empty;
}
constinit ComMap map = empty_map();

static_assert(sizeof(ComTtyInfo) == 56 && sizeof(CommMapInfo) == 56);

// What a port of a usage code is for.
constexpr uint8_t kNoType = 0xFF;
constexpr uint8_t kLogicTypes[] = {
    1,       2,       10,      0,       11,      13,      12,       // usage 0 to 6
    kNoType, kNoType, kNoType, kNoType, kNoType, kNoType, kNoType,  // 7 to 13
    kNoType, kNoType, kNoType, kNoType, kNoType, kNoType, 1,        // 14 to 20
    kNoType, 0,       kNoType, 12,      16,      17,      0,        // 21 to 27
    19,      20,      21,      22,      20,                         // 28 to 32
};
constexpr uint32_t kUsageWithoutPort = 20;

std::span<const ComMapItem> items() {
    size_t count = 0;
    while (count < std::size(map.items) && map.items[count].port != QEL_COM_END_OF_MAP) ++count;
    return {map.items, count};
}

const ComMapItem *find_among(std::span<const ComMapItem> some, uint32_t port) {
    const auto found = std::ranges::find(some, port, &ComMapItem::port);
    return found != some.end() ? &*found : nullptr;
}

bool comes_and_goes(const ComMapItem &item) {
    return item.countedIfRs485 == 1 && item.statusLine != QEL_COM_NO_LINE;
}

uint32_t count_present(const char *function) {
    uint32_t count = 0;
    for (const ComMapItem &item : items()) {
        if (!comes_and_goes(item)) {
            ++count;
            continue;
        }
        uint32_t status = 0;
        if (QEL_Get485Status(item.port, &status) != 0) {
            QEL_ERROR_AS(function, "get485Status FAILED!!\n");
            break;
        }
        QEL_INFO("get485Status: status=%d\n", static_cast<int>(status));
        if (status != 0) ++count;
        QEL_INFO("s2lm portInfo: level=%d,comcount=%d\n", static_cast<int>(status), static_cast<int>(count));
    }
    return count;
}

std::span<const ComMapItem> present_items() { return items().first(count_present("getCommPortCount")); }

template <typename Record>
bool refuse_null(const char *function, const Record *list) {
    if (list != nullptr) return false;
    QEL_ERROR_AS(function, "Para: list is NULL!\n");
    return true;
}

}  // namespace

int load_port_map() {
    ComMap read{};
    if (QEL_comGetMapInfo(&read) != 0) return OSA_EFAIL;
    map = read;
    return 0;
}

const ComMapItem *find_item(uint32_t port) { return find_among(items(), port); }

const ComMapItem *find_present_item(uint32_t port) { return find_among(present_items(), port); }

const ComMapItem *find_present_item_for(uint32_t usage) {
    const std::span<const ComMapItem> some = present_items();
    const auto found = std::ranges::find(some, usage, &ComMapItem::usage);
    return found != some.end() ? &*found : nullptr;
}

}  // namespace qel::comm

using namespace qel::comm;

extern "C" {

int getCommPortCount(void) { return static_cast<int>(count_present(__func__)); }

int COMM_getCommType(unsigned port, uint8_t *type) {
    if (type == nullptr) {
        QEL_ERROR("Para: type is NULL!\n");
        return OSA_EFAIL;
    }
    const ComMapItem *item = find_present_item(port);
    if (item == nullptr) {
        QEL_ERROR("port invalid: %d \n", static_cast<int>(port));
        return OSA_EFAIL;
    }
    *type = item->commType;
    return 0;
}

int getComTtyInfo(ComTtyInfo *list) {
    if (refuse_null(__func__, list)) return OSA_EFAIL;
    for (const ComMapItem &item : items()) {
        list->ttyNumber = item.ttyNumber;
        list->ttyGiven = item.ttyGiven;
        ++list;
    }
    return 0;
}

int getCommMapInfoList(CommMapInfo *list) {
    if (refuse_null(__func__, list)) return OSA_EFAIL;
    for (const ComMapItem &item : items()) {
        const uint8_t type = item.usage < std::size(kLogicTypes) ? kLogicTypes[item.usage] : kNoType;
        if (type == kNoType) {
            QEL_ERROR("Unknown Com MapItem!!\n");
            return OSA_EFAIL;
        }
        list->logicType = type;
        list->port = item.usage == kUsageWithoutPort ? QEL_COM_NULL_PORT : item.port;
        ++list;
    }
    return 0;
}

}  // extern "C"
