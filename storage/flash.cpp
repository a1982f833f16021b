// flash.cpp - the partition table and what else is known of the flash; look-ups and opening by name.
#include "storage/flash.h"

#include <fcntl.h>
#include <atomic>
#include <cstdio>
#include <cstring>

#include "frame/log.h"
#include "os/os.h"
#include "product/hwid_store.h"
#include "qel/product.h"

namespace qel::flash {

namespace {

constexpr const char *kDriver = "/dev/qecPartion";
constexpr uint32_t kGetPartitions32 = 0xC0045800;  // PartitionRequest with Record32
constexpr uint32_t kGetFpgaStart = 0xC0045801;     // u32 out
constexpr uint32_t kGetTotalBytes = 0xC0045802;    // u64 out
constexpr uint32_t kGetCanSwitch = 0xC0045805;     // u32 out
constexpr uint32_t kGetPartitions64 = 0xC0045806;  // PartitionRequest with Record64

constexpr const char *kLoader = "Flash_getPartionInfo";

// No records: the driver answers with the count alone.
struct PartitionRequest {
    uint32_t count;
    void *records;
};
static_assert(sizeof(void *) != 4 || sizeof(PartitionRequest) == 8);

struct Record32 {
    char name[QEL_PARTITION_NAME_BYTES];
    uint32_t size;
    uint32_t offset;
    uint32_t type;
    uint32_t backup_offset;
    uint8_t flag;
    uint8_t reserved[15];
};
static_assert(sizeof(Record32) == 48 && offsetof(Record32, flag) == 32);

struct Record64 {
    char name[QEL_PARTITION_NAME_BYTES];
    uint64_t size;
    uint64_t offset;
    uint64_t type;  // not used by drivers so far
    uint64_t backup_offset;
    uint8_t flag;
    uint8_t reserved[7];
};
static_assert(sizeof(Record64) == 56 && offsetof(Record64, flag) == 48);

// What the driver tells of a partition beside its entry.
struct PartitionRecord {
    uint32_t type;
    uint8_t flag;
};

struct TableMemory {
    FlashPartition entries[QEL_MAX_PARTITIONS];
    PartitionRecord records[QEL_MAX_PARTITIONS];
};

// Set while the library loads, read afterwards; `current` may change at any time.
struct State {
    FlashPartitionTable table = {0, nullptr};
    TableMemory *memory = nullptr;
    FlashInfo info = {};
    uint32_t fpga_start = 0;
    uint64_t total_bytes = 0;
    bool can_switch = false;
    bool flag_partition = false;
    BackupSigns signs = {};
    std::atomic<int> current{-1};
    std::atomic<uint32_t> switch_target{kNoSwitchTarget};
};
constinit State state;

// Asks one of the two requests into `records`, of which there is room for QEL_MAX_PARTITIONS. The
// number of partitions, or -1.
template <typename Record>
int ask_partitions(int fd, uint32_t request, Record *records) {
    PartitionRequest argument{0, nullptr};
    if (os::ioctl(fd, request, &argument) < 0) return OSA_EFAIL;
    if (argument.count > QEL_MAX_PARTITIONS) {
        QEL_ERROR_AS(kLoader, "%u partitions, at most %u are possible\n", argument.count, QEL_MAX_PARTITIONS);
        return OSA_EFAIL;
    }
    const uint32_t count = argument.count;
    argument.records = records;
    if (os::ioctl(fd, request, &argument) < 0 || argument.count > count) return OSA_EFAIL;
    return static_cast<int>(argument.count);
}

template <typename Record>
void store(const Record *from, uint32_t count, TableMemory *to) {
    for (uint32_t i = 0; i < count; ++i) {
        FlashPartition &entry = to->entries[i];
        memcpy(entry.name, from[i].name, sizeof entry.name);
        entry.name[sizeof entry.name - 1] = '\0';
        entry.size = from[i].size;
        entry.offset = from[i].offset;
        entry.backupOffset = from[i].backup_offset;
        to->records[i] = {static_cast<uint32_t>(from[i].type), from[i].flag};
    }
}

template <typename Record>
int load_records(int fd, uint32_t request, TableMemory *to) {
    Record records[QEL_MAX_PARTITIONS] = {};
    const int count = ask_partitions(fd, request, records);
    if (count > 0) store(records, static_cast<uint32_t>(count), to);
    return count;
}

int load_partitions(int fd) {
    auto *const memory = static_cast<TableMemory *>(OSA_memCalloc(sizeof(TableMemory)));
    if (memory == nullptr) {
        QEL_ERROR_AS(kLoader, "OSA_memCalloc failed !\n");
        return OSA_EFAIL;
    }
    int count = load_records<Record64>(fd, kGetPartitions64, memory);
    if (count < 0) {
        QEL_ERROR_AS(kLoader, "Get partion64 info failed, try partion32 again\n");
        count = load_records<Record32>(fd, kGetPartitions32, memory);
    }
    if (count < 0) {
        QEL_ERROR_AS(kLoader, "Get partion32 info failed\n");
        OSA_memFree(memory);
        return OSA_EFAIL;
    }
    QEL_INFO("partionNum=%u\n", static_cast<uint32_t>(count));
    state.memory = memory;
    state.table = {static_cast<uint32_t>(count), memory->entries};
    return 0;
}

// Where the FPGA's area starts on boards whose partition driver does not tell.
uint32_t default_fpga_start() {
    switch (product::property(0, QEL_PROPERTY_BOARD_TYPE)) {
        case 9:
            return 0x2000000;
        case 31:
        case 35:
            return 0x20000000;
        default:
            return 0x4000000;
    }
}

void load_limits(int fd) {
    if (os::ioctl(fd, kGetFpgaStart, &state.fpga_start) < 0) {
        QEL_INFO("Get fpga upgrade cfg failed, use default\n");
        state.fpga_start = default_fpga_start();
    }
    if (os::ioctl(fd, kGetTotalBytes, &state.total_bytes) < 0) {
        QEL_INFO("Get flash total size failed.\n");
        state.total_bytes = 0;
    }
    uint32_t can_switch = 0;
    if (os::ioctl(fd, kGetCanSwitch, &can_switch) < 0) {
        QEL_INFO("Get bootsupportswitchpart failed.\n");
        can_switch = 0;
    }
    state.can_switch = can_switch == 1;
}

bool is_index(int index) { return index >= 0 && static_cast<uint32_t>(index) < state.table.count; }

}  // namespace

int load_table() {
    if (state.memory != nullptr) return 0;
    const os::Fd driver(os::open(kDriver, O_RDWR));
    if (!driver.is_open()) {
        QEL_ERROR_AS(kLoader, "Can't open %s\n", kDriver);
        return OSA_EFAIL;
    }
    if (load_partitions(driver.get()) != 0) return OSA_EFAIL;
    load_limits(driver.get());
    return 0;
}

void free_table() {
    state.table = {0, nullptr};
    if (state.memory != nullptr) OSA_memFree(state.memory);
    state.memory = nullptr;
    state.current = -1;
}

FlashInfo info() { return state.info; }
void set_info(const FlashInfo &info) { state.info = info; }
uint32_t fpga_start() { return state.fpga_start; }
uint64_t total_bytes() { return state.total_bytes; }
bool can_boot_loader_switch() { return state.can_switch; }

uint32_t partition_count() { return state.table.count; }

bool partition(int index, FlashPartition *out) {
    if (!is_index(index)) return false;
    *out = state.table.entries[index];
    return true;
}

int find_partition(const char *name) {
    for (uint32_t i = 0; i < state.table.count; ++i) {
        if (strcmp(state.table.entries[i].name, name) == 0) return static_cast<int>(i);
    }
    return -1;
}

uint32_t partition_type(int index) { return is_index(index) ? state.memory->records[index].type : 0; }

void device_path(const FlashInfo &info, int index, char (&out)[kDevicePathBytes]) {
    if (is_emmc(info)) {
        snprintf(out, sizeof out, "/dev/mmcblk0p%u", static_cast<unsigned>(index) + 1);
    } else {
        snprintf(out, sizeof out, "/dev/mtd/%d", index);
    }
}

int open_partition(int index) {
    char path[kDevicePathBytes];
    device_path(state.info, index, path);
    return os::open(path, O_RDWR);
}

void set_current_partition(int index) { state.current = index; }
int current_partition() { return state.current; }

BackupSigns backup_signs() { return state.signs; }
void set_backup_signs(const BackupSigns &signs) { state.signs = signs; }
bool has_flag_partition() { return state.flag_partition; }
void set_flag_partition(bool there) { state.flag_partition = there; }
uint32_t switch_target() { return state.switch_target; }
void set_switch_target(uint32_t address) { state.switch_target = address; }

}  // namespace qel::flash

using namespace qel;
using namespace qel::flash;

extern "C" {

int Flash_getPartionInfo(void) { return load_table(); }

int QEL_getPartionInfo(FlashPartitionList *out) {
    if (out == nullptr || state.memory == nullptr) {
        QEL_ERROR("no partition table\n");
        return OSA_EFAIL;
    }
    out->count = state.table.count;
    for (uint32_t i = 0; i < state.table.count; ++i) {
        const FlashPartition &entry = state.table.entries[i];
        memcpy(out->entries[i].name, entry.name, sizeof entry.name);
        out->entries[i].size = static_cast<uint32_t>(entry.size);
        out->entries[i].offset = static_cast<uint32_t>(entry.offset);
        out->entries[i].backupOffset = static_cast<uint32_t>(entry.backupOffset);
    }
    return 0;
}

int QEL_getPartionInfo64(FlashPartitionTable **out) {
    if (out == nullptr || state.memory == nullptr) {
        QEL_ERROR("no partition table\n");
        return OSA_EFAIL;
    }
    *out = &state.table;
    return 0;
}

int QEL_getFlashInfo(FlashInfo *out) {
    if (out == nullptr || state.info.type == 0) {
        QEL_ERROR("no flash information\n");
        return OSA_EFAIL;
    }
    *out = state.info;
    return 0;
}

int QEL_getFpgaStartAddress(uint32_t *out) {
    if (out == nullptr || state.memory == nullptr) {
        QEL_ERROR("no partition table\n");
        return OSA_EFAIL;
    }
    *out = state.fpga_start;
    return 0;
}

int QEL_flashOpenPartion(const char *name, int *fd, int *index) {
    if (name == nullptr || fd == nullptr || index == nullptr) {
        QEL_ERROR("bad argument\n");
        return OSA_EFAIL;
    }
    *fd = -1;
    *index = find_partition(name);
    if (*index < 0) {
        QEL_WARN_SHORT("Get partion %s failed!\n", name);
        return OSA_EFAIL;
    }
    const int opened = open_partition(*index);
    if (opened < 0) {
        char path[kDevicePathBytes];
        device_path(state.info, *index, path);
        QEL_ERROR("open %s\n", path);
        return OSA_EFAIL;
    }
    *fd = opened;
    set_current_partition(*index);
    return 0;
}

}  // extern "C"
