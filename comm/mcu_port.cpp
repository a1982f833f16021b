// mcu_port.cpp - the microcontroller as a serial port: the raw bytes that it sends and takes outside any
// record, for example of a radio keyboard.
#include <poll.h>
#include <algorithm>
#include <charconv>
#include <cstring>

#include "comm/com.h"
#include "comm/mcu_object.h"
#include "comm/mcu_use.h"
#include "comm/port_backend.h"
#include "comm/port_map.h"
#include "frame/log.h"
#include "os/os.h"
#include "qel/comm.h"
#include "qel/product.h"

namespace qel::mcu {

namespace {

// Set while an upgrade has the microcontroller to itself; none does so yet.
constexpr int kFunctionFlag = 0;
constexpr const char *kKeyboardParameter = "kz_keyboard";
// Readiness may come from events, which are not this port's to fetch.
constexpr unsigned kOthersReady_ms = 10;
constexpr unsigned kMostDiscarded = 64;  // blocks; a far end that never stops does not keep us

// A setting of 0 turns the keyboard off; without a setting it is on.
bool keyboard_is_off() {
    char text[QEL_BOOT_PARAMETER_BYTES];
    if (getBootParameter(kKeyboardParameter, text, sizeof(text)) != 0) return false;
    int value = -1;
    const char *end = text + strlen(text);
    const auto [stop, error] = std::from_chars(text, end, value);
    return error == std::errc() && stop == end && value == 0;
}

int create(comm::QEL_ComManagePriv & /*priv*/, const ComMapItem & /*item*/) { return 0; }

void destroy(comm::QEL_ComManagePriv & /*priv*/) {}

int open(comm::QEL_ComManagePriv &priv) {
    constexpr const char *kFunction = "COMM_openForMcu";
    if (!os::exists(QEC_MCU_DEVICE)) {
        QEL_ERROR_AS(kFunction, "Fail to create mcu!\n");
        return OSA_EFAIL;
    }
    QEL_INFO("The flag of function which both upgrade and commu are using is=%d\n", kFunctionFlag);
    if (keyboard_is_off()) {
        QEL_ERROR_AS(kFunction, "kz_keyboard is set to zero, not support 433 func!\n");
        return OSA_EFAIL;
    }
    McuHandle handle = nullptr;
    if (QEL_mcuCreate(&handle) != 0) {
        QEL_ERROR_AS(kFunction, "Fail to create mcu!\n");
        return OSA_EFAIL;
    }
    // The console hands the line over or not; the port works either way.
    comm::add_console_user(priv.port, descriptor_of(handle));
    return 0;
}

int close(comm::QEL_ComManagePriv &priv) {
    comm::drop_console_user(priv.port);
    const McuUse mcu;  // all handles of a process are one: this is the one that open() counted
    return mcu.get() != nullptr ? QEL_mcuDelete(mcu.get()) : OSA_EFAIL;
}

int set_attribute(comm::QEL_ComManagePriv &priv, const ComAttribute *attribute) {
    if (comm::is_closed("COMM_setAttributeForMcu", priv)) return OSA_EFAIL;
    const ComMapItem *item = comm::find_item(static_cast<uint32_t>(priv.port));
    const uint32_t tty =
        item != nullptr && item->ttyGiven == 1 ? item->ttyNumber : static_cast<uint32_t>(priv.port);
    const McuUse mcu;
    return QEL_mcuSetAttribute(mcu.get(), tty, attribute);
}

int read(comm::QEL_ComManagePriv &priv, void *buffer, uint32_t bytes) {
    if (comm::is_unfit("COMM_readForMcu", priv, buffer, bytes)) return OSA_EFAIL;
    const uint32_t room = std::min(bytes, QEC_MCU_RAW_BYTES_MAX);
    const uint64_t deadline_ms = OSA_timeMs() + comm::kPortReadTimeout_ms;
    const McuUse mcu;
    if (mcu.get() == nullptr) return OSA_EFAIL;
    for (;;) {
        qec_mcu_transfer block{QEC_MCU_SOURCE_RAW, room, buffer};
        if (QEL_McuRead(mcu.get(), &block) < 0 || block.bytes > room) return OSA_EFAIL;
        if (block.bytes > 0) return static_cast<int>(block.bytes);
        const uint64_t now_ms = OSA_timeMs();
        if (now_ms >= deadline_ms) return 0;
        const int ready = os::wait(descriptor_of(mcu.get()), POLLIN, static_cast<int>(deadline_ms - now_ms));
        if (ready < 0) return OSA_EFAIL;
        if (ready > 0) OSA_sleepMs(kOthersReady_ms);
    }
}

int write(comm::QEL_ComManagePriv &priv, const void *buffer, uint32_t bytes) {
    if (comm::is_unfit("COMM_writeForMcu", priv, buffer, bytes)) return OSA_EFAIL;
    const McuUse mcu;
    auto *data = static_cast<uint8_t *>(const_cast<void *>(buffer));  // the driver only reads it
    for (uint32_t done = 0; done < bytes;) {
        const uint32_t piece = std::min(bytes - done, QEC_MCU_RAW_BYTES_MAX);
        qec_mcu_transfer block{QEC_MCU_SOURCE_RAW, piece, data + done};
        if (QEL_McuWrite(mcu.get(), &block) < 0) return OSA_EFAIL;
        done += piece;
    }
    return static_cast<int>(bytes);
}

int discard_input() {
    const McuUse mcu;
    uint8_t bytes[QEC_MCU_RAW_BYTES_MAX];
    for (unsigned i = 0; i < kMostDiscarded; ++i) {
        qec_mcu_transfer block{QEC_MCU_SOURCE_RAW, sizeof(bytes), bytes};
        if (QEL_McuRead(mcu.get(), &block) < 0) return OSA_EFAIL;
        if (block.bytes < sizeof(bytes)) break;
    }
    return 0;
}

int purge(comm::QEL_ComManagePriv &priv, uint32_t flag) {
    constexpr const char *kFunction = "COMM_purgeForMcu";
    if (comm::is_closed(kFunction, priv)) return OSA_EFAIL;
    switch (flag) {
        case QEL_COM_DISCARD_INPUT:
            return discard_input();
        case QEL_COM_DISCARD_OUTPUT:
            return 0;  // a write returns when the microcontroller has it
        default:
            QEL_ERROR_AS(kFunction, "Unknow flag\n");
            return OSA_EFAIL;
    }
}

}  // namespace

}  // namespace qel::mcu

const qel::comm::PortBackend qel::comm::kMcuPort = {
    .create = mcu::create,
    .destroy = mcu::destroy,
    .open = mcu::open,
    .close = mcu::close,
    .set_attribute = mcu::set_attribute,
    .read = mcu::read,
    .write = mcu::write,
    .purge = mcu::purge,
    .set_type = nullptr,
};
