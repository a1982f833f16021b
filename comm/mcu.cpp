// mcu.cpp - the driver's requests to the microcontroller, over one descriptor for the whole process.
#include <fcntl.h>
#include <poll.h>
#include <cstdio>
#include <cstring>

#include "comm/com_attribute.h"
#include "comm/mcu_object.h"
#include "comm/mcu_requests.h"
#include "frame/log.h"
#include "frame/mutex.h"
#include "os/os.h"
#include "product/product_data.h"
#include "qel/comm.h"

struct McuObject {
    qel::Mutex mutex;
    int32_t references = 0;
    int fd = -1;  // changes only while nobody has a reference
};

namespace qel::mcu {

namespace {

constexpr int kDataWait_ms = 4000;
constexpr unsigned kDataRest_ms = 1000;

constinit McuObject gMcuObj;  // before constructors of this source would run

static_assert(sizeof(qec_mcu_time) == 28);
static_assert(sizeof(qec_mcu_event) == 128);
static_assert(sizeof(qec_mcu_power_switch) == 8 && sizeof(qec_mcu_power_state) == 20);
static_assert(sizeof(qec_mcu_can) == 16 && sizeof(qec_mcu_card) == 32);
static_assert(sizeof(qec_mcu_loop) == 8 && sizeof(qec_mcu_module) == 64);
static_assert(sizeof(qec_mcu_radar) == 16);
static_assert(sizeof(void *) != 4 || sizeof(qec_mcu_block) == 8);
static_assert(sizeof(void *) != 4 || sizeof(qec_mcu_transfer) == 12);

// One request; the driver's result, with `message` in the log under `function` when it is a failure.
int ask(McuHandle object, const char *function, uint32_t code, void *record, const char *message) {
    const int result = os::ioctl(object->fd, code, record);
    if (result < 0 && message != nullptr) QEL_ERROR_AS(function, "%s", message);
    return result;
}

int ask(McuHandle object, const char *function, const Request &request, void *record) {
    const int result =
        ask(object, function, request.code, request.record ? record : nullptr, request.message);
    return result < 0 && request.failing == Failing::kMinusOne ? OSA_EFAIL : result;
}

// Waits until the driver has something: > 0; what was logged says why not.
int wait_readable(McuHandle object, int timeout_ms) {
    const int ready = os::wait(object->fd, POLLIN, timeout_ms);
    if (ready < 0) QEL_INFO("select\n");
    if (ready == 0) QEL_INFO("do nothing\n");
    return ready;
}

}  // namespace

int descriptor_of(McuHandle handle) { return handle->fd; }

}  // namespace qel::mcu

using namespace qel;
using namespace qel::mcu;

extern "C" {

int QEL_mcuInit(void) {
    if (gMcuObj.mutex.create() == 0) return 0;
    QEL_ERROR("Fail to create gMcuObj.hMutex!\n");
    return OSA_EFAIL;
}

int QEL_mcuDeinit(void) {
    {
        const MutexLock lock(gMcuObj.mutex);
        if (gMcuObj.references != 0) {
            QEL_ERROR("The mcu is working!\n");
            return OSA_EFAIL;
        }
    }
    gMcuObj.mutex.destroy();
    return 0;
}

int QEL_mcuCreate(McuHandle *hMcu) {
    if (hMcu == nullptr) return OSA_EFAIL;
    *hMcu = nullptr;
    const MutexLock lock(gMcuObj.mutex);
    if (gMcuObj.references == 0) {
        const int fd = os::open(QEC_MCU_DEVICE, O_RDWR);
        if (fd < 0) {
            QEL_INFO("Can't open %s\n", QEC_MCU_DEVICE);
            return OSA_EFAIL;
        }
        gMcuObj.fd = fd;
    }
    ++gMcuObj.references;
    *hMcu = &gMcuObj;
    return 0;
}

int QEL_mcuDelete(McuHandle hMcu) {
    if (hMcu == nullptr) return OSA_EFAIL;
    const MutexLock lock(hMcu->mutex);
    if (hMcu->references == 0) {
        QEL_ERROR("The mcu interface has been deleted\n");
        return OSA_EFAIL;
    }
    if (--hMcu->references > 0) return 0;
    os::close(hMcu->fd);
    hMcu->fd = -1;
    return 0;
}

int QEL_mcuSendInfo(McuHandle hMcu, uint32_t command, void *record) {
    if (hMcu == nullptr || record == nullptr) return OSA_EFAIL;
    const Request *request = find_request(Way::kSend, command);
    if (request != nullptr) return ask(hMcu, __func__, *request, record);
    QEL_WARN("Unknow  QEL_MCU_SEND_CMD!\n");
    return OSA_EFAIL;
}

int QEL_McuGetInfo(McuHandle hMcu, uint32_t command, void *record) {
    if (hMcu == nullptr || record == nullptr) return OSA_EFAIL;
    const Request *request = find_request(Way::kGet, command);
    if (request != nullptr) return ask(hMcu, __func__, *request, record);
    QEL_WARN("Unknow  QEL_MCU_GET_CMD!\n");
    return OSA_EFAIL;
}

int QEL_McuRead(McuHandle hMcu, struct qec_mcu_transfer *record) {
    if (hMcu == nullptr || record == nullptr) return OSA_EFAIL;
    return ask(hMcu, __func__, QEC_MCU_RAW_READ, record, "QEC_MCU_RAW_READ, failed\n");
}

int QEL_McuWrite(McuHandle hMcu, struct qec_mcu_transfer *record) {
    if (hMcu == nullptr || record == nullptr) return OSA_EFAIL;
    return ask(hMcu, __func__, QEC_MCU_RAW_WRITE, record, "QEC_MCU_RAW_WRITE, failed\n");
}

int QEL_McuUpgradeStart(McuHandle hMcu, uint32_t *bytes) {
    if (hMcu == nullptr || bytes == nullptr) return OSA_EFAIL;
    return ask(hMcu, __func__, QEC_MCU_UPGRADE_START, bytes, "QEC_MCU_UPGRADE_START, failed\n");
}

int QEL_McuUpgradeEnd(McuHandle hMcu, uint32_t *bytes) {
    if (hMcu == nullptr || bytes == nullptr) return OSA_EFAIL;
    return ask(hMcu, __func__, QEC_MCU_UPGRADE_END, bytes, "QEC_MCU_UPGRADE_END, failed\n");
}

int QEL_upgradeWirelessMcu(McuHandle hMcu, struct qec_mcu_block *firmware) {
    if (hMcu == nullptr || firmware == nullptr) return OSA_EFAIL;
    return ask(hMcu, __func__, QEC_MCU_UPDATE_WIRELESS, firmware, "QEC_MCU_UPDATE_WIRELESS, failed\n");
}

int QEL_mcuGetNetLinkState(McuHandle hMcu, uint32_t *state) {
    if (hMcu == nullptr || state == nullptr) return OSA_EFAIL;
    return ask(hMcu, __func__, QEC_MCU_GET_NETLINK_STATE, state, "QEC_MCU_GET_NETLINK_STATE, failed\n");
}

int QEL_McuGetGaps(McuHandle hMcu, void *caps) {
    if (hMcu == nullptr || caps == nullptr) return OSA_EFAIL;
    uint8_t block[QEC_MCU_CAPS_BYTES] = {};
    const int result = ask(hMcu, __func__, QEC_MCU_GET_CAPS, block, "QEC_MCU_RAW_WRITE, failed\n");
    if (result >= 0) memcpy(caps, block, sizeof(block));
    return result;
}

int QEL_McuCloseThr(McuHandle hMcu) {
    if (hMcu == nullptr) return OSA_EFAIL;
    return ask(hMcu, __func__, QEC_MCU_CLOSE_THREAD, nullptr, "QEL_McuCloseThr, failed\n");
}

int QEL_McuGetEvent(McuHandle hMcu, struct qec_mcu_event *event) {
    if (hMcu == nullptr || event == nullptr) return OSA_EFAIL;
    const int ready = wait_readable(hMcu, -1);
    if (ready <= 0) return ready == 0 ? 0 : OSA_EFAIL;
    qec_mcu_event record;
    if (os::read(hMcu->fd, &record, sizeof(record)) != static_cast<ssize_t>(sizeof(record))) return OSA_EFAIL;
    *event = record;
    return 0;
}

int QEL_McuGetData(McuHandle hMcu, struct qec_mcu_transfer *record) {
    if (hMcu == nullptr || record == nullptr) return OSA_EFAIL;
    const int ready = wait_readable(hMcu, kDataWait_ms);
    if (ready <= 0) return ready;
    const int result = ask(hMcu, __func__, QEC_MCU_RAW_READ, record, "QEC_MCU_RAW_READ, failed\n");
    if (result < 0) return result;
    OSA_sleepMs(kDataRest_ms);
    return 0;
}

int QEL_syncTimeToMcu(const struct qec_mcu_time *time) {
    if (!product::is_of_family(product::Family::kMicrocontrollerClock)) return 0;
    if (time == nullptr) return OSA_EFAIL;
    const os::Fd device(os::open(QEC_MCU_DEVICE, O_RDWR));
    if (!device.is_open()) {
        QEL_ERROR("open failed\n");
        return OSA_EFAIL;
    }
    qec_mcu_time record = *time;
    if (os::ioctl(device.get(), QEC_MCU_SET_TIME, &record) >= 0) return 0;
    QEL_ERROR("ioctl syncTimeToMcu failed\n");
    return OSA_EFAIL;
}

int QEL_mcuSetAttribute(McuHandle hMcu, uint32_t tty, const ComAttribute *attribute) {
    if (hMcu == nullptr) {
        QEL_ERROR("Para: hMcu is NULL!\n");
        return OSA_EFAIL;
    }
    if (attribute == nullptr) {
        QEL_ERROR("para pComAttrbute  is null\n");
        return OSA_EFAIL;
    }
    char path[32];
    snprintf(path, sizeof(path), "/dev/ttyS%u", tty);
    const os::Fd line(os::open(path, O_RDWR | O_NOCTTY | O_NONBLOCK));
    if (!line.is_open()) {
        QEL_ERROR("open %s failed\n", path);
        return OSA_EFAIL;
    }
    return comm::set_line_attribute(__func__, line.get(), *attribute);
}

}  // extern "C"
