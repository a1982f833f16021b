// channel_map.cpp - the logical video channels of the unit: from the channel-map driver, or all on
// this chip where the board has none. Written while the library loads, only read afterwards.
#include "product/channel_table.h"

#include <fcntl.h>

#include "frame/log.h"
#include "os/os.h"
#include "product/hwid_store.h"
#include "qel/product.h"

namespace qel::product {

namespace {

constexpr const char *kDevice = "/dev/qecChnMap";
constexpr uint32_t kGetTotal = 0xC0044300;  // uint32_t out
constexpr uint32_t kGetTable = 0xC0044301;  // total x ChannelEntry out
constexpr uint32_t kMaxChannels = 1023;

struct State {
    bool initialised = false;
    unsigned local = 0;
    std::span<ChannelEntry> table;
};
constinit State state;

uint32_t read_total(const os::Fd &fd) {
    if (!fd.is_open()) return static_cast<uint32_t>(property(0, QEL_PROPERTY_CHANNELS));
    uint32_t total = 0;
    QEL_ASSERT_AS("QEL_chnMapInit", os::ioctl(fd.get(), kGetTotal, &total) == 0);
    return total;
}

void fill(const os::Fd &fd, std::span<ChannelEntry> table) {
    if (fd.is_open()) {
        QEL_ASSERT_AS("QEL_chnMapInit", os::ioctl(fd.get(), kGetTable, table.data()) == 0);
        return;
    }
    fill_local(table, static_cast<uint8_t>(property(0, QEL_PROPERTY_BOARD_TYPE)),
               static_cast<uint8_t>(property(0, QEL_PROPERTY_CATEGORY)));
}

void free_table() {
    if (!state.table.empty()) OSA_memFree(state.table.data());
    state = {};
}

}  // namespace

}  // namespace qel::product

using namespace qel;
using namespace qel::product;

extern "C" {

int QEL_chnMapInit(void) {
    free_table();
    const os::Fd fd(os::open(kDevice, O_RDWR));
    uint32_t total = read_total(fd);
    if (QEL_adapterGetProcessID() < 0 || total > kMaxChannels) total = 0;
    if (total != 0) {
        // Room for all that a driver can have: the request for the table carries no length, and the driver
        // may answer more than it counted a moment ago.
        auto *entries = static_cast<ChannelEntry *>(OSA_memCalloc(kMaxChannels * sizeof(ChannelEntry)));
        if (entries == nullptr) return OSA_EFAIL;
        state.table = {entries, total};
        fill(fd, state.table);
    }
    for (const ChannelEntry &entry : state.table) {
        QEL_INFO(">>logChn[%d]:phyChip[%d]:%d, phyChn[%d]:%d\n", entry.logical, entry.chip, entry.board_type,
                 entry.channel, entry.category);
    }
    state.local = count_on_chip(state.table, 0);
    state.initialised = true;
    return 0;
}

int QEL_chnMapDeinit(void) {
    free_table();
    return 0;
}

int QEL_chnMapGetTotalNum(void) { return state.initialised ? static_cast<int>(state.table.size()) : -1; }

int QEL_chnMapGetLocalNum(void) { return state.initialised ? static_cast<int>(state.local) : -1; }

int QEL_chnMapGetInfo(unsigned logChn, unsigned char info[4]) {
    if (info == nullptr || !state.initialised) return OSA_EFAIL;
    const ChannelEntry *entry = find_channel(state.table, logChn);
    if (entry == nullptr) return OSA_EFAIL;
    info[0] = entry->chip;
    info[1] = entry->board_type;
    info[2] = entry->channel;
    info[3] = entry->category;
    return 0;
}

int QEL_getMapInfoByLogChn(unsigned logChn, unsigned char info[4]) {
    if (info == nullptr) {
        QEL_ERROR("pFuncParam is null!\n");
        return OSA_EFAIL;
    }
    const int status = QEL_chnMapGetInfo(logChn, info);
    if (status != 0) QEL_WARN("QEL_chnMapGetInfo Failed!, logChn %d\n", static_cast<int>(logChn));
    return status;
}

}  // extern "C"
