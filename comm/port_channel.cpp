// port_channel.cpp - ports that are carried inside the microcontroller link: a head's line, its log, its
// other functions, and what a receiver of satellite positions tells.
//
// Each request takes the microcontroller's device for its own time, so that a close in another thread
// takes nothing away from it.
#include <algorithm>
#include <cstring>

#include "comm/mcu_use.h"
#include "comm/port_backend.h"
#include "frame/log.h"
#include "qel/mcu.h"
#include "qel/serial_driver.h"

namespace qel::comm {

namespace {

using mcu::McuUse;

static_assert(sizeof(qel_mcu_uart) == 512 && sizeof(qel_mcu_uart_config) == 12);

constexpr unsigned kMostDiscarded = 64;  // records; a far end that never stops does not keep us

bool is_gps(const QEL_ComManagePriv &priv) { return priv.gps != 0; }

uint32_t channel_of(const QEL_ComManagePriv &priv) { return is_gps(priv) ? priv.gps : priv.channel; }

// 0 or more: how many came.
int get(const McuUse &mcu, const QEL_ComManagePriv &priv, uint32_t timeout_ms, qel_mcu_uart &record) {
    record.channel = channel_of(priv);
    record.timeout_ms = timeout_ms;
    record.length = std::min(record.length, QEL_MCU_UART_BYTES);
    if (mcu.get() == nullptr || QEL_McuGetInfo(mcu.get(), QEL_MCU_CMD_UART_GET, &record) < 0)
        return OSA_EFAIL;
    if (record.length > QEL_MCU_UART_BYTES) return OSA_EFAIL;
    return static_cast<int>(record.length);
}

int create(QEL_ComManagePriv &priv, const ComMapItem &item) {
    // Channels are numbered as the usage codes.
    (item.usage == QEL_MCU_CHANNEL_GPS ? priv.gps : priv.channel) = item.usage;
    return 0;
}

void destroy(QEL_ComManagePriv &) {}

// The device stays open while the port is.
int open(QEL_ComManagePriv &) {
    McuHandle handle = nullptr;
    return QEL_mcuCreate(&handle);
}

int close(QEL_ComManagePriv &) {
    const McuUse mcu;
    return mcu.get() != nullptr ? QEL_mcuDelete(mcu.get()) : OSA_EFAIL;
}

int set_attribute(QEL_ComManagePriv &priv, const ComAttribute *attribute) {
    constexpr const char *kFunction = "COMM_setAttributeForChannel";
    if (attribute == nullptr) {
        QEL_ERROR_AS(kFunction, "para pComAttrbute  is null\n");
        return OSA_EFAIL;
    }
    if (is_closed(kFunction, priv)) return OSA_EFAIL;
    qel_mcu_uart_config config{channel_of(priv),  attribute->baud,     attribute->dataBits,
                               attribute->parity, attribute->stopBits, attribute->flowControl};
    const McuUse mcu;
    return mcu.get() != nullptr && QEL_mcuSendInfo(mcu.get(), QEL_MCU_CMD_UART_CFG, &config) >= 0 ? 0
                                                                                                  : OSA_EFAIL;
}

int read(QEL_ComManagePriv &priv, void *buffer, uint32_t bytes) {
    if (is_unfit("COMM_readForChannel", priv, buffer, bytes)) return OSA_EFAIL;
    const McuUse mcu;
    qel_mcu_uart record{};
    record.length = bytes;
    const int got = get(mcu, priv, kPortReadTimeout_ms, record);
    if (got > static_cast<int64_t>(bytes)) return OSA_EFAIL;
    if (got > 0) memcpy(buffer, record.bytes, static_cast<size_t>(got));
    return got;
}

// Until the microcontroller has taken it all, or no more.
int write(QEL_ComManagePriv &priv, const void *buffer, uint32_t bytes) {
    constexpr const char *kFunction = "COMM_writeForChannel";
    if (is_unfit(kFunction, priv, buffer, bytes)) return OSA_EFAIL;
    if (is_gps(priv)) {
        QEL_ERROR_AS(kFunction, "port%d only reads\n", priv.port);
        return OSA_EFAIL;
    }
    const McuUse mcu;
    if (mcu.get() == nullptr) return OSA_EFAIL;
    uint32_t done = 0;
    while (done < bytes) {
        qel_mcu_uart record{};
        const uint32_t wanted = std::min(bytes - done, QEL_MCU_UART_BYTES);
        record.channel = channel_of(priv);
        record.length = wanted;
        memcpy(record.bytes, static_cast<const uint8_t *>(buffer) + done, wanted);
        if (QEL_mcuSendInfo(mcu.get(), QEL_MCU_CMD_UART_SEND, &record) < 0) return OSA_EFAIL;
        if (record.length == 0) break;
        done += std::min(record.length, wanted);
    }
    return static_cast<int>(done);
}

int purge(QEL_ComManagePriv &priv, uint32_t flag) {
    constexpr const char *kFunction = "COMM_purgeForChannel";
    if (is_closed(kFunction, priv)) return OSA_EFAIL;
    if (flag == QEL_COM_DISCARD_OUTPUT) return 0;  // the microcontroller has what was written
    if (flag != QEL_COM_DISCARD_INPUT) {
        QEL_ERROR_AS(kFunction, "Unknow flag\n");
        return OSA_EFAIL;
    }
    const McuUse mcu;
    for (unsigned i = 0; i < kMostDiscarded; ++i) {
        qel_mcu_uart record{};
        record.length = QEL_MCU_UART_BYTES;
        const int got = get(mcu, priv, 0, record);
        if (got < static_cast<int>(QEL_MCU_UART_BYTES)) return got < 0 ? OSA_EFAIL : 0;
    }
    return 0;
}

}  // namespace

const PortBackend kChannelPort = {create, destroy, open, close, set_attribute, read, write, purge, nullptr};

}  // namespace qel::comm
