// product.cpp - the hardware-id records of all chips, and the image sensors as their driver tells.
#include <fcntl.h>
#include <cstring>

#include "frame/adapter.h"
#include "frame/hwid.h"
#include "frame/log.h"
#include "os/os.h"
#include "product/adapter_module.h"
#include "product/hwid_store.h"
#include "product/properties.h"
#include "qel/product.h"

namespace qel::product {

namespace {

using hwid::ChipInfo;
using hwid::HwidRecord;

static_assert(sizeof(HwidRecord) == QEL_HWID_BYTES);
static_assert(sizeof(SensorDrvEntry) == 64);
static_assert(sizeof(void *) != 4 || sizeof(SensorDrvInfo) == 12);

constexpr size_t kRecordAlign = 16;
constexpr uint32_t kMaxSensors = 1024;  // more than any board has: the count is a driver's word
constexpr uint32_t kCmdRecord = 0;      // of module QEL_MODULE_PRODUCT: the slave's own record
constexpr size_t kTypeNameOffset = 64;  // of the name in the record QEL_productTypeGet fills

// The pointer and the count change only in init and deinit; what they point to is under the mutex,
// but for record 0's name and blocks, which do not change while the module runs.
struct State {
    Mutex mutex;
    int fd = -1;
    int count = 0;
    HwidRecord *records = nullptr;
    SensorDrvInfo sensors = {};
};
constinit State state;

void free_sensors() {
    if (state.sensors.entries != nullptr) OSA_memFree(state.sensors.entries);
    state.sensors.entries = nullptr;
}

void clean_up() {
    free_sensors();
    if (state.records != nullptr) OSA_memAlignFree(state.records);
    state.records = nullptr;
    state.count = 0;
    if (state.fd >= 0) os::close(state.fd);
    state.fd = -1;
    state.mutex.destroy();
}

// Names are handed out as C strings, whatever the driver filled in.
void store(HwidRecord *to, const void *from) {
    memcpy(to, from, sizeof(*to));
    to->name[sizeof(to->name) - 1] = '\0';
}

int start(const char *function) {
    if (state.mutex.create() != 0) {
        QEL_ERROR_AS(function, "Fail to create mutex!\n");
        return OSA_EFAIL;
    }
    state.fd = os::open(hwid::kDevice, O_RDWR);
    if (state.fd < 0) {
        QEL_ERROR_AS(function, "Can't open %s\n", hwid::kDevice);
        return OSA_EFAIL;
    }
    HwidRecord own{};
    if (os::ioctl(state.fd, hwid::kGetRecord, &own) != 0) {
        QEL_ERROR_AS(function, "Ioctl execute error\n");
        return OSA_EFAIL;
    }
    state.count = static_cast<int>(QEL_adapterGetChipNum());
    QEL_INFO("QEL product has %d configs!!!\r\n", state.count);
    const size_t bytes = static_cast<size_t>(state.count) * sizeof(HwidRecord);
    state.records = static_cast<HwidRecord *>(OSA_memUCallocAlign(bytes, kRecordAlign));
    if (state.records == nullptr) {
        QEL_ERROR_AS(function, "malloc pHwidInfo error\n");
        return OSA_EFAIL;
    }
    store(&state.records[0], &own);
    return 0;
}

// ---- the other chips' records ----

int fetch_record(unsigned chip, HwidRecord *out) {
    constexpr const char *kFunction = "QEL_productMasterIoctl";
    QEL_ASSERT_AS(kFunction, chip < static_cast<unsigned>(state.count));
    const adapter::Request request(chip, QEL_MODULE_PRODUCT, kCmdRecord, sizeof(HwidRecord));
    if (request.get() == nullptr) {
        QEL_ERROR_AS(kFunction, "OSA_memCalloc err\n");
        return OSA_EFAIL;
    }
    const int status = QEL_adapterMasterProc(request.get());
    if (status != 0) {
        QEL_ERROR_AS(kFunction, "Fail to put buffer, status=%d\n", status);
        return status;
    }
    QEL_ASSERT_AS(kFunction, request.is_answered());
    store(out, request.payload());
    return 0;
}

int product_slave_proc(AdapterMsg *msg) {
    if (msg->module != QEL_MODULE_PRODUCT || msg->cmd != kCmdRecord || msg->length != sizeof(HwidRecord)) {
        QEL_ERROR("cmd:%u of module %u with %u bytes is unknown\n", msg->cmd, msg->module, msg->length);
        return OSA_EFAIL;
    }
    const MutexLock lock(state.mutex);
    if (state.records == nullptr) return OSA_EFAIL;
    memcpy(QEL_ADAPTER_PAYLOAD(msg), &state.records[0], sizeof(HwidRecord));
    return 0;
}

// ---- look-ups ----

int property_locked(unsigned chip, int number) QEL_REQUIRES(state.mutex) {
    const int value = property_of(state.records[chip], number);
    if (value < 0) QEL_STDERR("qel_product", "Invalid HWID Info Command\n");
    return value;
}

// Record 0 as the exported look-ups take it for granted.
HwidRecord &own_record(const char *function) {
    QEL_ASSERT_AS(function, state.records != nullptr);
    return state.records[0];
}

// ---- image sensors ----

int read_sensors(int fd, const char *function) {
    SensorDrvInfo &sensors = state.sensors;
    sensors = {};
    if (os::ioctl(fd, hwid::kGetSensors, &sensors) != 0 || sensors.count > kMaxSensors) {
        QEL_WARN_AS(function, "GET_SENSOREXT_CFG fail!\n");
        return OSA_EFAIL;
    }
    if (sensors.count == 0) return 0;
    const uint32_t count = sensors.count;
    sensors.entries = static_cast<SensorDrvEntry *>(OSA_memCalloc(count * sizeof(SensorDrvEntry)));
    if (sensors.entries == nullptr) {
        QEL_ERROR_AS(function, "OSA_memCalloc error\n");
        return OSA_EFAIL;
    }
    if (os::ioctl(fd, hwid::kGetSensors, &sensors) != 0 || sensors.count > count) {
        QEL_ERROR_AS(function, "Ioctl execute error\n");
        return OSA_EFAIL;
    }
    return 0;
}

}  // namespace

Mutex &module_mutex() { return state.mutex; }

int chip_info(ChipInfo *out) {
    const MutexLock lock(state.mutex);
    if (state.records == nullptr) return OSA_EFAIL;
    HwidRecord &own = state.records[0];
    *out = hwid::chip_info(own);
    own.dsp_sums = out->dsp_sums;
    own.chip_idx = out->chip_idx;
    return 0;
}

int property(unsigned chip, int number) {
    if (state.records == nullptr || chip >= static_cast<unsigned>(state.count)) return -1;
    const MutexLock lock(state.mutex);
    return property_locked(chip, number);
}

}  // namespace qel::product

using namespace qel;
using namespace qel::product;

QEL_ADAPTER_MODULE(PRODUCT, QEL_MODULE_PRODUCT, product_slave_proc)

extern "C" {

int QEL_productInit(void) {
    clean_up();
    if (start(__func__) != 0) {
        clean_up();
        return OSA_EFAIL;
    }
    QEL_getSensorDrvInfo();
    QEL_INFO("QEL product Init OK!\n");
    return 0;
}

int QEL_productDeinit(void) {
    ChipInfo chip{};
    if (chip_info(&chip) != 0) {
        QEL_ERROR("QEL_getChipInfo err\n");
        return OSA_EFAIL;
    }
    clean_up();
    return 0;
}

int QEL_hwidGet(void) {
    if (state.records == nullptr) return OSA_EFAIL;
    const MutexLock lock(state.mutex);
    for (int chip = 1; chip < state.count; ++chip) {
        const int status = fetch_record(static_cast<unsigned>(chip), &state.records[chip]);
        if (status != 0) {
            QEL_ERROR("QEL_productMasterIoctl error\n");
            return status;
        }
    }
    QEL_INFO("QEL hwid Get OK!\n");
    return 0;
}

int QEL_productGetCfgNum(void) { return state.count; }

int QEL_productGetHwidInfoByChip(unsigned chip, int cmd) {
    own_record(__func__);
    return property(chip, cmd);
}

int QEL_productGetHwidInfo(int cmd) { return QEL_productGetHwidInfoByChip(0, cmd); }

int QEL_productGetHwidInfoByChn(unsigned logChn, int cmd) {
    uint8_t info[QEL_CHANNEL_INFO_BYTES];
    if (QEL_chnMapGetInfo(logChn, info) != 0) {
        QEL_ERROR("QEL_chnMapGetInfo error\n");
        return OSA_EFAIL;
    }
    if (cmd == QEL_PROPERTY_CATEGORY) return info[3];
    if (cmd == QEL_PROPERTY_BOARD_TYPE) return info[1];
    return QEL_productGetHwidInfoByChip(info[0], cmd);
}

int QEL_productGetInfo(void *out) {
    if (out == nullptr) {
        QEL_ERROR("The paramenter pProductName is NULL\n");
        return OSA_EFAIL;
    }
    memcpy(out, own_record(__func__).info, QEL_PRODUCT_INFO_BYTES);
    return 0;
}

int QEL_productGetBaseCfg(void *out) {
    if (out == nullptr) {
        QEL_ERROR("The paramenter pBaseCfg is NULL\n");
        return OSA_EFAIL;
    }
    memcpy(out, own_record(__func__).base_cfg, QEL_BASE_CFG_BYTES);
    return 0;
}

int QEL_productGetName(const char **out) {
    if (out == nullptr) {
        QEL_ERROR("The paramenter pProductName is NULL\n");
        return OSA_EFAIL;
    }
    *out = own_record(__func__).name;
    return 0;
}

int QEL_productTypeGet(void *out) {
    if (out == nullptr) return OSA_EFAIL;
    memcpy(static_cast<uint8_t *>(out) + kTypeNameOffset, own_record(__func__).name, QEL_PRODUCT_NAME_BYTES);
    return 0;
}

int QEL_checkProductType(const char *name) {
    QEL_ASSERT(name != nullptr);
    return strcmp(own_record(__func__).name, name) == 0 ? 0 : OSA_EFAIL;
}

int QEL_isModel(const char *prefix) {
    if (prefix == nullptr) return OSA_EFAIL;
    return strncmp(own_record(__func__).name, prefix, strlen(prefix)) == 0 ? 1 : 0;
}

int QEL_getMasterSlaveMark(unsigned char *mark) {
    if (mark == nullptr) return OSA_EFAIL;
    *mark = own_record(__func__).master_slave_mark;
    return 0;
}

int QEL_getChipInfo(unsigned char info[2]) {
    if (info == nullptr) return OSA_EFAIL;
    own_record(__func__);
    ChipInfo chip{};
    if (chip_info(&chip) != 0) return OSA_EFAIL;
    info[0] = chip.dsp_sums;
    info[1] = chip.chip_idx;
    return 0;
}

int QEL_getSensorDrvInfo(void) {
    const os::Fd fd(os::open(hwid::kDevice, O_RDWR));
    if (!fd.is_open()) {
        QEL_ERROR("Can't open %s\n", hwid::kDevice);
        return OSA_EFAIL;
    }
    free_sensors();
    if (read_sensors(fd.get(), __func__) != 0) {
        free_sensors();
        return OSA_EFAIL;
    }
    QEL_INFO("Sensor has %d sensor(s)\n", static_cast<int>(state.sensors.count));
    return 0;
}

int QEL_getSensorInfo(void **out) {
    if (out == nullptr) return OSA_EFAIL;
    *out = &state.sensors;
    return 0;
}

}  // extern "C"
