// mcu_device.cpp - the microcontroller as a device object, over the driver's requests.
#include <fcntl.h>
#include <atomic>
#include <cstring>

#include "comm/mcu_object.h"
#include "frame/log.h"
#include "os/os.h"
#include "product/hwid_store.h"
#include "qel/comm.h"
#include "qel/misc_driver.h"
#include "qel/product.h"

namespace qel::mcu {

namespace {

constexpr int kUsbCategory = 3;
constexpr uint32_t kCapsFirstWord = 6;
constexpr int kPresent = 1;
constexpr int32_t kResetAll = -1;

std::atomic_ref<int32_t> references_of(McuPrivate &priv) { return std::atomic_ref(priv.common.references); }

int add_ref(MCU_Device *thiz) {
    McuPrivate *priv = private_of(thiz, "mcu_addref");
    if (priv == nullptr) return OSA_EFAIL;
    std::atomic_ref references = references_of(*priv);
    int32_t count = references.load();
    do {
        if (count < 0) return OSA_EFAIL;
    } while (!references.compare_exchange_weak(count, count + 1));
    return 0;
}

void free_object(MCU_Device *object) {
    OSA_memFree(object->priv);
    OSA_memFree(object);
}

int release(MCU_Device *thiz) {
    McuPrivate *priv = private_of(thiz, "mcu_release");
    if (priv == nullptr) return OSA_EFAIL;
    std::atomic_ref references = references_of(*priv);
    int32_t count = references.load();
    do {
        if (count < 1) return 0;
    } while (!references.compare_exchange_weak(count, count - 1));
    if (count > 1) return 0;
    const int status = priv->handle != nullptr ? QEL_mcuDelete(priv->handle) : 0;
    if (priv->common.fd >= 0) os::close(priv->common.fd);
    free_object(thiz);
    return status;
}

int get_caps(MCU_Device *thiz, McuCaps *caps) {
    const McuPrivate *priv = private_of(thiz, "mcu_getcaps");
    if (priv == nullptr || caps == nullptr) return OSA_EFAIL;
    *caps = priv->caps;
    const os::Fd misc(os::open(QEL_MISC_DEVICE, O_RDWR));
    if (!misc.is_open()) return 0;
    uint32_t word = 0;
    if (os::ioctl(misc.get(), QEL_MISC_GET_MCU_CAPS, &word) >= 0) caps->words[1] = word;
    os::ioctl(misc.get(), QEL_MISC_MCU_CAPS_READ, nullptr);  // not every driver cares
    return 0;
}

// ---- send ----

constexpr const char *kSend = "mcu_send";

struct SendType {
    uint32_t type;
    uint32_t bytes_max;  // of pData; 0: not looked at
    uint32_t command;
    const char *message;
};

constexpr SendType kSendTypes[] = {
    {QEL_MCU_SEND_LCD, QEC_MCU_LCD_BYTES_MAX, QEL_MCU_CMD_WRITE_LCD, "MCU_SEND_LCD failed\n"},
    {QEL_MCU_SEND_TIME, sizeof(qec_mcu_time), QEL_MCU_CMD_SET_TIME, "MCU_SEND_TIME failed\n"},
    {QEL_MCU_SEND_ADAPTER, 0, QEL_MCU_CMD_ACK_ADAPTER, "MCU_SEND_ADAPTER failed\n"},
    {QEL_MCU_SEND_POWER, 0, QEL_MCU_CMD_CTRL_POWERSWITCH, "CMD_MCU_CTRL_POWER failed\n"},
    {QEL_MCU_SEND_RFID, 0, QEL_MCU_CMD_RFID_SEND, "MCU_SEND_RFID failed\n"},
};

const SendType *find_send_type(uint32_t type) {
    for (const SendType &known : kSendTypes) {
        if (known.type == type) return &known;
    }
    return nullptr;
}

int send_as(McuHandle handle, const SendType &type, const McuSendData &data) {
    void *bytes = const_cast<void *>(data.pData);  // the driver only reads what is sent
    switch (type.type) {
        case QEL_MCU_SEND_LCD: {
            qec_mcu_block text{data.len, bytes};
            return QEL_mcuSendInfo(handle, type.command, &text);
        }
        case QEL_MCU_SEND_TIME: {
            qec_mcu_time time{};
            memcpy(&time, data.pData, data.len);
            return QEL_mcuSendInfo(handle, type.command, &time);
        }
        case QEL_MCU_SEND_RFID: {
            qec_mcu_transfer block{data.extra, data.len, bytes};
            return QEL_mcuSendInfo(handle, type.command, &block);
        }
        default:
            return QEL_mcuSendInfo(handle, type.command, bytes);
    }
}

int send(MCU_Device *thiz, const McuSendData *data) {
    const McuPrivate *priv = private_of(thiz, kSend);
    if (priv == nullptr || data == nullptr) return OSA_EFAIL;
    const SendType *type = find_send_type(data->type);
    if (type == nullptr) {
        QEL_ERROR_AS(kSend, "unknow pData->type\n");
        return OSA_EFAIL;
    }
    if (data->pData == nullptr || (type->bytes_max != 0 && data->len > type->bytes_max)) {
        QEL_ERROR_AS(kSend, "pData->len too long or pData->pData is NULL\n");
        return OSA_EFAIL;
    }
    if (send_as(priv->handle, *type, *data) >= 0) return 0;
    QEL_ERROR_AS(kSend, "%s", type->message);
    return OSA_EFAIL;
}

// ---- receive ----

int recv(MCU_Device *thiz, qec_mcu_event *event) {
    const McuPrivate *priv = private_of(thiz, "mcu_recv");
    return priv != nullptr ? QEL_McuGetEvent(priv->handle, event) : OSA_EFAIL;
}

int get_state(MCU_Device *thiz, int *state) {
    if (private_of(thiz, "mcu_getState") == nullptr || state == nullptr) return OSA_EFAIL;
    *state = kPresent;
    return 0;
}

constexpr const char *kRecvData = "mcu_recvData";

int receive_power(McuHandle handle, McuRecvData &data) {
    qec_mcu_power_state state{};
    memcpy(&state.selector, data.pData, sizeof(state.selector));
    if (QEL_McuGetInfo(handle, QEL_MCU_CMD_GET_POWRE_STATE, &state) >= 0) {
        memcpy(static_cast<uint8_t *>(data.pData) + sizeof(state.selector), state.words, sizeof(state.words));
        return 0;
    }
    QEL_ERROR_AS(kRecvData, "CMD_MCU_GET_POWRE_STATE failed\n");
    return OSA_EFAIL;
}

int receive_rfid(McuHandle handle, McuRecvData &data) {
    qec_mcu_transfer block{QEC_MCU_SOURCE_RFID, data.len, data.pData};
    if (QEL_McuGetInfo(handle, QEL_MCU_CMD_SPI_GET, &block) >= 0 && block.bytes <= data.len) {
        data.len = block.bytes;
        return 0;
    }
    QEL_ERROR_AS(kRecvData, "CMD_MCU_RECDATA_RFID failed\n");
    return OSA_EFAIL;
}

int receive_key(McuHandle handle, McuRecvData &data) {
    if (QEL_McuGetInfo(handle, QEL_MCU_CMD_LAST_KEY, data.pData) < 0) return OSA_EFAIL;
    data.len = 1;
    return 0;
}

int receive_data(MCU_Device *thiz, McuRecvData *data) {
    const McuPrivate *priv = private_of(thiz, kRecvData);
    if (priv == nullptr || data == nullptr) return OSA_EFAIL;
    if (data->type > QEL_MCU_RECV_KEY) {
        QEL_ERROR_AS(kRecvData, "unknow pData->type\n");
        return OSA_EFAIL;
    }
    if (data->pData == nullptr) {
        QEL_ERROR_AS(kRecvData, "pData->pData is NULL\n");
        return OSA_EFAIL;
    }
    switch (data->type) {
        case QEL_MCU_RECV_POWER:
            return receive_power(priv->handle, *data);
        case QEL_MCU_RECV_RFID:
            return receive_rfid(priv->handle, *data);
        default:
            return receive_key(priv->handle, *data);
    }
}

int reset(MCU_Device *thiz) {
    constexpr const char *kFunction = "mcu_reset";
    const McuPrivate *priv = private_of(thiz, kFunction);
    if (priv == nullptr) return OSA_EFAIL;
    int32_t all = kResetAll;
    if (QEL_mcuSendInfo(priv->handle, QEL_MCU_CMD_RESET_MCU, &all) >= 0) return 0;
    QEL_ERROR_AS(kFunction, "CMD_MCU_RESET failed\n");
    return OSA_EFAIL;
}

int get_version(MCU_Device *thiz, char *version) {
    constexpr const char *kFunction = "mcu_getVersion";
    const McuPrivate *priv = private_of(thiz, kFunction);
    if (priv == nullptr) return OSA_EFAIL;
    if (version == nullptr) {
        QEL_ERROR_AS(kFunction, "pVer is NULL\n");
        return OSA_EFAIL;
    }
    char record[QEC_MCU_VERSION_BYTES + 1] = {};  // a terminator behind what the driver fills
    record[0] = version[QEL_MCU_VERSION_SELECTOR];
    if (QEL_McuGetInfo(priv->handle, QEL_MCU_CMD_GET_VER, record) < 0) {
        QEL_ERROR_AS(kFunction, "CMD_MCU_GET_VER failed\n");
        return OSA_EFAIL;
    }
    memcpy(version, record, strlen(record) + 1);
    return 0;
}

int receive_radar(MCU_Device *thiz, McuRecvData *data) {
    constexpr const char *kFunction = "mcu_radarRecv";
    const McuPrivate *priv = private_of(thiz, kFunction);
    if (priv == nullptr || data == nullptr) return OSA_EFAIL;
    if (data->type != QEL_MCU_RECV_RADAR) {
        QEL_ERROR_AS(kFunction, "unknow pData->type\n");
        return OSA_EFAIL;
    }
    qec_mcu_radar radar;
    qec_mcu_transfer block{QEC_MCU_SOURCE_RADAR, sizeof(radar), &radar};
    if (data->pData == nullptr || QEL_McuRead(priv->handle, &block) < 0) return OSA_EFAIL;
    if (block.bytes != 0 && block.bytes != sizeof(radar)) return OSA_EFAIL;
    data->len = block.bytes != 0 ? 1 : 0;
    if (data->len != 0) memcpy(data->pData, &radar, sizeof(radar));
    return 0;
}

// ---- creation ----

int make_driver_variant(MCU_Device *object) {
    auto *priv = static_cast<McuPrivate *>(object->priv);
    object->getcaps = get_caps;
    object->send = send;
    object->recv = recv;
    object->getState = get_state;
    object->recvData = receive_data;
    object->reset = reset;
    object->getVersion = get_version;
    object->radarRecv = receive_radar;
    return QEL_mcuCreate(&priv->handle);
}

MCU_Device *allocate(const char *function) {
    auto *object = static_cast<MCU_Device *>(OSA_memCalloc(kObjectBytes));
    if (object == nullptr) {
        QEL_ERROR_AS(function, "malloc(MCU_Device) failed \n");
        return nullptr;
    }
    auto *priv = static_cast<McuPrivate *>(OSA_memCalloc(sizeof(McuPrivate)));
    if (priv == nullptr) {
        QEL_ERROR_AS(function, "malloc(MCU_Device->MCU_privModule) failed \n");
        OSA_memFree(object);
        return nullptr;
    }
    priv->common = {.references = 1, .kind_word = 0, .fd = -1};
    priv->caps.words[0] = kCapsFirstWord;
    object->priv = priv;
    object->addref = add_ref;
    object->release = release;
    return object;
}

}  // namespace

McuPrivate *private_of(const MCU_Device *thiz, const char *function) {
    if (thiz != nullptr && thiz->priv != nullptr) return static_cast<McuPrivate *>(thiz->priv);
    QEL_ERROR_AS(function, "Parameter pThz or pThz->priv is NULL!\n");
    return nullptr;
}

}  // namespace qel::mcu

using namespace qel;
using namespace qel::mcu;

extern "C" int createMcuDevice(const uint32_t *id, MCU_Device **out) {
    if (out == nullptr) return OSA_EFAIL;
    *out = nullptr;
    if (id == nullptr) return OSA_EFAIL;
    MCU_Device *object = allocate(__func__);
    if (object == nullptr) return OSA_EFAIL;
    const bool usb = product::property(0, QEL_PROPERTY_CATEGORY) == kUsbCategory;
    if (!usb && make_driver_variant(object) != 0) {
        QEL_ERROR("Fail to create mcu!\n");
    } else if (!usb || make_usb_variant(object) == 0) {
        *out = object;
        return 0;
    }
    free_object(object);
    return OSA_EFAIL;
}
