// rs485.cpp - the RS-485 line behind an SPI bridge. Boards that carry the bridge are gone and nothing opens
// it any more; the calls stay for the programs that make them, and fail where the bridge would answer.
#include <cstring>

#include "frame/log.h"
#include "os/os.h"
#include "qel/serial.h"

namespace qel::rs485 {

namespace {

constexpr const char *kSource = "spi485";
constexpr int kWriteLine = 44;  // where users of the log look for it

constexpr int kBridge = -1;  // the descriptor: never open

struct Setting {
    uint32_t request;
    const char *failure;
    bool (*code)(const ComAttribute &attribute, uint32_t *out);
};

bool baud_code(const ComAttribute &attribute, uint32_t *out) {
    *out = attribute.baud;
    return true;
}

bool word_code(const ComAttribute &attribute, uint32_t *out) {
    if (attribute.dataBits != 7 && attribute.dataBits != 8) return false;
    *out = attribute.dataBits == 7 ? 2 : 3;
    return true;
}

bool stop_code(const ComAttribute &attribute, uint32_t *out) {
    if (attribute.stopBits != QEL_COM_ONE_STOP_BIT && attribute.stopBits != QEL_COM_TWO_STOP_BITS)
        return false;
    *out = attribute.stopBits == QEL_COM_ONE_STOP_BIT ? 0 : 4;
    return true;
}

bool parity_code(const ComAttribute &attribute, uint32_t *out) {
    *out = attribute.parity;
    return attribute.parity <= QEL_COM_PARITY_EVEN;
}

constexpr Setting kSettings[] = {
    {0, "485 set baudrate attr", baud_code},
    {1, "485 set  word length attr", word_code},
    {2, "485 set stop bit len attr", stop_code},
    {3, "485 set parity attr", parity_code},
};

}  // namespace

}  // namespace qel::rs485

using namespace qel;
using namespace qel::rs485;

extern "C" {

int rs485_open(void) {
    // The bridge would be asked whether it is there.
    return os::ioctl(kBridge, 0, nullptr) < 0 ? OSA_EFAIL : 0;
}

int rs485_close(void) { return os::close(kBridge) < 0 ? OSA_EFAIL : 0; }

int rs485_destroy(void) { return rs485_close(); }

int rs485_read(void *buffer, int bytes) {
    if (buffer == nullptr || bytes <= 0) return OSA_EFAIL;
    const ssize_t got = os::read(kBridge, buffer, static_cast<size_t>(bytes));
    return got < 0 ? OSA_EFAIL : static_cast<int>(got);
}

int rs485_write(const void *buffer, int bytes) {
    if (buffer == nullptr || bytes <= 0) {
        os::print_err("err: FILE -> %s, LINE -> %d: \nwrite param", kSource, kWriteLine);
        return OSA_EFAIL;
    }
    const auto put = static_cast<int>(os::write(kBridge, buffer, static_cast<size_t>(bytes)));
    if (put < 0) {
        QEL_ERROR("write data error\n");
        return OSA_EFAIL;
    }
    if (put == bytes)
        QEL_VERBOSE("write uart ok,ret:%d\n", put);
    else
        QEL_VERBOSE("only write %d,need write %d\n", put, bytes);
    return put;
}

int rs485_setattribute(const ComAttribute *attribute) {
    if (attribute == nullptr) {
        QEL_ERROR("para pComAttrbute  is null\n");
        return OSA_EFAIL;
    }
    for (const Setting &setting : kSettings) {
        uint32_t code = 0;
        if (!setting.code(*attribute, &code)) {
            QEL_ERROR("%s: a value that the bridge does not have\n", setting.failure);
            return OSA_EFAIL;
        }
        const int status = os::ioctl(kBridge, setting.request, &code);
        if (status >= 0) continue;
        os::print_err("%s: %s\n", setting.failure, strerror(-status));
        return OSA_EFAIL;
    }
    return 0;
}

}  // extern "C"
