// adapter_master.cpp - forwarding on chip 0: one pair of channels per slave, requests from any thread.
#include <cstdint>

#include "frame/adapter.h"
#include "frame/log.h"

namespace qel::adapter {

namespace {

// Written while the library loads and unloads, only read in between.
struct State {
    uint32_t count;
    uintptr_t *channels;  // by slave number; entry 0 is unused
};
State state;

void close_channels(uintptr_t *channels, unsigned end) {
    for (unsigned slave = 1; slave < end; ++slave) {
        if (XCC_unBind(channels[slave]) != 0) QEL_WARN_AS("QEL_adapterMasterDeInit", "XCC_unBind failed !\n");
        close_channel(channels[slave]);
    }
    OSA_memFree(channels);
}

int check_request(const AdapterMsg *msg) {
    constexpr const char *kFunction = "QEL_adapterMasterProc";
    if (msg == nullptr) {
        QEL_ERROR_AS(kFunction, "pMsg is NULL !\n");
        return OSA_EFAIL;
    }
    if (state.channels == nullptr) {
        QEL_ERROR_AS(kFunction, "Handle Need Init !\n");
        return OSA_EFAIL;
    }
    if (msg->chip == 0 || msg->chip >= state.count) {
        QEL_ERROR_AS(kFunction, "id err :[%x] [%x] !\n", msg->chip, state.count);
        return OSA_EFAIL;
    }
    if (msg->length > QEL_ADAPTER_MAX_PAYLOAD) {
        QEL_ERROR_AS(kFunction, "length err :[%x] [%x] !\n", msg->length, QEL_ADAPTER_MAX_PAYLOAD);
        return OSA_EFAIL;
    }
    return 0;
}

}  // namespace

}  // namespace qel::adapter

using namespace qel::adapter;

extern "C" {

int QEL_openMasterXcc(unsigned slave, unsigned count, uintptr_t *handle) {
    const Peer peer{.own_chip = 0,
                    .peer_chip = slave,
                    .chip_count = count,
                    .own_format = kMasterToSlave,
                    .peer_format = kSlaveToMaster,
                    .function = __func__};
    return open_channel(peer, handle);
}

int QEL_adapterMasterInit(unsigned chip, unsigned count) {
    QEL_ASSERT(chip == 0 && count >= 2);
    auto *channels = static_cast<uintptr_t *>(OSA_memCalloc(count * sizeof(uintptr_t)));
    if (channels == nullptr) {
        QEL_ERROR("OSA_memCalloc error\n");
        set_chip_count(1);
        return OSA_EFAIL;
    }
    for (unsigned slave = 1; slave < count; ++slave) {
        if (QEL_openMasterXcc(slave, count, &channels[slave]) != 0) {
            QEL_ERROR("QEL_openXcc[%d] err\n", static_cast<int>(slave));
            close_channels(channels, slave);
            set_chip_count(1);
            return OSA_EFAIL;
        }
    }
    state = {count, channels};
    return 0;
}

int QEL_adapterMasterDeInit(void) {
    if (state.channels == nullptr) return 0;
    close_channels(state.channels, state.count);
    state = {};
    return 0;
}

int QEL_adapterMasterProc(AdapterMsg *msg) {
    if (check_request(msg) != 0) return OSA_EFAIL;
    msg->tid = static_cast<uint32_t>(OSA_thrGetTid());
    const uint32_t bytes = QEL_ADAPTER_HEADER_BYTES + msg->length;
    QEL_adapterPrintBuffer("put:", msg, bytes);
    XCC_BufInfo buffer{};
    buffer.addr = msg;
    buffer.length = bytes;
    buffer.waitReply = msg->needReply == 1 ? 1 : 0;
    const int status = XCC_put(state.channels[msg->chip], &buffer, msg->timeout);
    if (status != 0) QEL_WARN("Fail to put buffer, status=%d\n", status);
    return status;
}

}  // extern "C"
