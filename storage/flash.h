// flash.h - the process's knowledge of its flash: partitions, geometry, good blocks, the lock.
//
// The table and the geometry are set up while the library loads and only read afterwards. Good-block
// tables and the descriptors that the raw flash object keeps open are guarded inside.
#pragma once

#include <cstdint>

#include "qel/storage.h"

namespace qel::flash {

constexpr uint8_t kErasedByte = 0xFF;
constexpr uint64_t kNoBlock = UINT64_MAX;  // good-block table: entry not used

// ---- start and end of the module ----

int load_table();  // asks the partition driver, unless the table stands already
void free_table();
void set_info(const FlashInfo &info);
bool can_boot_loader_switch();
int set_up_lock();   // between processes; 0 also where it goes on without one
int start_blocks();  // the mutex of the good-block tables; drops tables of an earlier start
void stop_blocks();

// ---- what the flash is ----

FlashInfo info();  // all zero where the flash did not start
inline bool is_emmc(const FlashInfo &info) { return info.type == QEL_FLASH_EMMC; }
inline bool is_raw_nand(const FlashInfo &info) {
    return info.type == QEL_FLASH_NAND || info.type == QEL_FLASH_MLC_NAND;
}
uint32_t fpga_start();
uint64_t total_bytes();  // 0: not known

// ---- partitions ----

uint32_t partition_count();
bool partition(int index, FlashPartition *out);  // false: no such index
int find_partition(const char *name);            // its index or -1
// The driver's type word of a partition, 0 where it gives none.
uint32_t partition_type(int index);
inline bool has_backup(const FlashPartition &entry) {
    return static_cast<uint32_t>(entry.backupOffset) != UINT32_MAX;
}

constexpr size_t kDevicePathBytes = 32;
void device_path(const FlashInfo &info, int index, char (&out)[kDevicePathBytes]);
// A descriptor of the caller's own, or -errno.
int open_partition(int index);
// The process's shared descriptor of a partition, opened on first use and closed by
// release_partitions(); or -errno.
int shared_descriptor(int index);
// Closes the shared descriptors and frees the good-block tables that only the raw flash object
// used: its last user has gone.
void release_partitions();

// ---- good blocks of raw NAND ----

// As Flash_createPartionTab, for the raw flash object: the table goes with its last user.
int create_good_blocks(int fd, int index);
// Asks the driver again, after a block was marked bad.
int rebuild_good_blocks(int fd, int index);
// As Flash_LookupTab.
int look_up(uint64_t offset, uint64_t *out, int index);
// How many good blocks the table holds, 0 without one.
uint32_t good_block_count(int index);
void set_current_partition(int index);
int current_partition();  // -1: none yet

// ---- the lock between processes ----

// The flash semaphore for the life of the object. Taken once per thread: nested objects of the same
// thread ride on the outermost. The kernel gives it back for a process that dies. Where the product
// has no such semaphore it keeps the threads of this process apart.
class Lock {
public:
    Lock();
    ~Lock();
    Lock(const Lock &) = delete;
    Lock &operator=(const Lock &) = delete;
    bool held() const { return held_; }  // false: the operation must not go on

private:
    bool held_;
};

// ---- which copy of the firmware runs, for the upgrade state ----

struct BackupSigns {
    uint32_t can_switch;  // the boot loader changes to the other copy of the partitions
    uint32_t boot_from_backup;
    uint32_t boot_version;  // low byte
};
static_assert(sizeof(BackupSigns) == 12);

constexpr const char *kFlagPartition = "updateflag";
BackupSigns backup_signs();
void set_backup_signs(const BackupSigns &signs);
bool has_flag_partition();  // and it can be opened
void set_flag_partition(bool there);
constexpr uint32_t kNoSwitchTarget = UINT32_MAX;
uint32_t switch_target();
void set_switch_target(uint32_t address);

}  // namespace qel::flash
