// mcu_usb.cpp - the microcontroller that is a card reader on a USB serial adapter: raw bytes, after a
// start-up of two fixed frames.
#include <fcntl.h>
#include <algorithm>

#include "comm/com_attribute.h"
#include "comm/mcu_object.h"
#include "frame/log.h"
#include "os/os.h"
#include "qel/comm.h"

namespace qel::mcu {

namespace {

constexpr const char *kCreate = "createMcuDevice";
constexpr int kBaud = 115200;
constexpr unsigned kStart_ms = 500;
constexpr uint32_t kReadBytesMax = 4096;

// The card reader's own, checksums and all.
constexpr uint8_t kFirstFrame[] = {0xAA, 0xAA, 0x00, 0x0A, 0x00, 0xFF, 0xFF, 0xFF,
                                   0xFE, 0xFF, 0x00, 0x0A, 0xF6, 0xFE, 0x00};
constexpr uint8_t kSecondFrame[] = {0xAA, 0xAA, 0x00, 0x0F, 0x00, 0xFF, 0xFF, 0xFF, 0xFE, 0xFF,
                                    0x00, 0x15, 0x01, 0x3C, 0x01, 0x7F, 0x02, 0x50, 0x18};

int open_line() {
    const int fd = os::open("/dev/ttyXRUSB0", O_RDWR | O_NOCTTY);
    if (fd >= 0) return fd;
    QEL_WARN_AS(kCreate, " open ttyXRUSB fail,Fail to create mcu!\n");
    const int plain = os::open("/dev/ttyUSB0", O_RDWR | O_NOCTTY);
    if (plain < 0) QEL_WARN_AS(kCreate, " open ttyUSB fail,Fail to create mcu!\n");
    return plain;
}

// Raw first: the frames must arrive byte for byte.
bool set_line(int fd) {
    termios saved{};
    if (comm::make_line_raw(kCreate, fd, saved) != 0) return false;
    if (QEL_setTtyUsbSpeed(fd, kBaud) != 0) {
        QEL_ERROR_AS(kCreate, "set_USB speed failed\n");
        return false;
    }
    if (QEL_setTtyUsbParity(fd, 8, 1, 's') != 0) {
        QEL_ERROR_AS(kCreate, "set no parity failed\n");
        return false;
    }
    return true;
}

template <size_t kBytes>
bool write_frame(int fd, const uint8_t (&frame)[kBytes]) {
    return os::write_full(fd, frame, kBytes) == static_cast<ssize_t>(kBytes);
}

bool start_reader(int fd) {
    OSA_sleepMs(kStart_ms);
    if (!set_line(fd)) return false;
    if (!write_frame(fd, kFirstFrame)) {
        QEL_ERROR_AS(kCreate, "Fail to create mcu!\n");
        return false;
    }
    OSA_sleepMs(kStart_ms);
    if (write_frame(fd, kSecondFrame)) return true;
    QEL_ERROR_AS(kCreate, "Fail to write mcu!\n");
    return false;
}

int send(MCU_Device *thiz, const McuSendData *data) {
    constexpr const char *kFunction = "mcu_sendUsb";
    const McuPrivate *priv = private_of(thiz, kFunction);
    if (priv == nullptr || data == nullptr) return OSA_EFAIL;
    if (data->pData != nullptr) {
        const ssize_t written = os::write_full(priv->common.fd, data->pData, data->len);
        if (written >= 0 && static_cast<uint32_t>(written) == data->len) return 0;
    }
    QEL_ERROR_AS(kFunction, "Wirte sbuf error\n");
    return OSA_EFAIL;
}

int receive_data(MCU_Device *thiz, McuRecvData *data) {
    const McuPrivate *priv = private_of(thiz, "mcu_recvDataUsb");
    if (priv == nullptr || data == nullptr || data->pData == nullptr) return OSA_EFAIL;
    const ssize_t got = os::read(priv->common.fd, data->pData, std::min(data->len, kReadBytesMax));
    if (got < 0) return OSA_EFAIL;
    data->len = static_cast<uint32_t>(got);
    return 0;
}

// What the card reader has no use for.
template <typename... Arguments>
int nothing(MCU_Device *thiz, Arguments... /*unused*/) {
    return private_of(thiz, "mcu_usb") != nullptr ? 0 : OSA_EFAIL;
}

}  // namespace

int make_usb_variant(MCU_Device *object) {
    const int fd = open_line();
    if (fd < 0) return OSA_EFAIL;
    if (!start_reader(fd)) {
        os::close(fd);
        return OSA_EFAIL;
    }
    static_cast<McuPrivate *>(object->priv)->common.fd = fd;
    object->getcaps = nothing;
    object->send = send;
    object->recv = nothing;
    object->getState = nothing;
    object->recvData = receive_data;
    object->reset = nothing;
    object->getVersion = nothing;
    object->radarRecv = nothing;
    return 0;
}

}  // namespace qel::mcu
