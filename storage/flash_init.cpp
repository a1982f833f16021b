// flash_init.cpp - start and end of the flash module: table, geometry, lock, and which copy of the
// firmware this device runs.
#include <fcntl.h>
#include <cstring>

#include "frame/log.h"
#include "os/mtd.h"
#include "os/os.h"
#include "storage/flag_pages.h"
#include "storage/flash.h"
#include "storage/flash_description.h"
#include "storage/flash_switch.h"
#include "storage/upgrade_files.h"

namespace qel::flash {

namespace {

constexpr const char *kStarter = "QEL_flashIinit";
constexpr const char *kSignFile = "/tmp/backupsign";
constexpr unsigned kSignFileMode = 0777;
constexpr uint32_t kEmmcPageBytes = 512;
constexpr uint32_t kEmmcEraseBytes = 16384;
constexpr flag_pages::Place kBootBackupVersion = {1, 1};
constexpr flag_pages::Place kBootFromBackup = {0, 4};

int read_mtd_geometry(int fd, FlashInfo *out) {
    os::MtdInfo mtd{};
    const int status = os::ioctl(fd, os::kMtdGetInfo, &mtd);
    if (status < 0 || mtd.erase_bytes == 0) {
        QEL_ERROR_AS(kStarter, "  MEMGETINFO error,ret = %d!\n", status);
        return OSA_EFAIL;
    }
    *out = {mtd.type, mtd.size_bytes, mtd.write_bytes, mtd.erase_bytes};
    if (out->type == QEL_FLASH_NOR) out->pageBytes = out->eraseBytes;
    return 0;
}

int read_geometry(FlashInfo *out) {
    char path[kDevicePathBytes];
    device_path({}, 0, path);
    const os::Fd mtd(os::open(path, O_RDWR));
    if (mtd.is_open()) return read_mtd_geometry(mtd.get(), out);
    QEL_INFO("open %s failed, try emmc device\n", path);
    *out = {QEL_FLASH_EMMC, 0, kEmmcPageBytes, kEmmcEraseBytes};
    device_path(*out, 0, path);
    const os::Fd emmc(os::open(path, O_RDWR));
    if (!emmc.is_open()) {
        QEL_ERROR_AS(kStarter, "open %s failed!\n", path);
        return OSA_EFAIL;
    }
    FlashPartition first{};
    if (partition(0, &first)) out->partitionBytes = static_cast<uint32_t>(first.size);
    return 0;
}

void detect_flag_partition() {
    const int index = find_partition(kFlagPartition);
    const os::Fd flags(index >= 0 ? open_partition(index) : -1);
    set_flag_partition(flags.is_open());
    if (flags.is_open()) {
        QEL_INFO("Support backup partition !!!\n");
    } else {
        QEL_INFO("Not support backup partition !!!\n");
    }
}

// Whether every partition with a backup copy has it in a place of its own.
bool detect_switch_support() {
    if (!can_boot_loader_switch()) {
        QEL_INFO("boot dont support switch part\n");
        return false;
    }
    FlashPartition entries[QEL_MAX_PARTITIONS];
    uint32_t count = 0;
    while (count < QEL_MAX_PARTITIONS && partition(static_cast<int>(count), &entries[count])) ++count;
    const BackupCount found = count_backups({entries, count});
    if (found.with_backup != 0 && found.with_backup == found.of_its_own) return true;
    QEL_INFO("bakcnt:%d, bakpartcnt:%d\n", found.with_backup, found.of_its_own);
    return false;
}

int write_signs(const BackupSigns &signs) {
    const os::Fd file(os::open(kSignFile, O_RDWR | O_CREAT | O_TRUNC, kSignFileMode));
    if (!file.is_open()) {
        QEL_ERROR_AS(kStarter, "fail to create file:%s\n", kSignFile);
        return OSA_EFAIL;
    }
    os::set_mode(file.get(), kSignFileMode);
    if (os::write_full(file.get(), &signs, sizeof signs) == static_cast<ssize_t>(sizeof signs)) return 0;
    QEL_ERROR_AS(kStarter, "Fail to write bootfromback sign to file\n");
    os::remove(kSignFile);
    return OSA_EFAIL;
}

int read_signs_of_flash(BackupSigns *signs) {
    uint8_t version = 0;
    uint8_t from_backup = 0;
    if (flag_pages::read_byte({"QEL_readBootBackupVerFromFlash"}, kBootBackupVersion, 0, &version) != 0) {
        return OSA_EFAIL;
    }
    signs->boot_version = version;
    signs->can_switch = detect_switch_support() ? 1 : 0;
    if (signs->can_switch != 0 &&
        flag_pages::read_byte({"QEL_flashReadBackUpFlag"}, kBootFromBackup, 0, &from_backup) != 0) {
        return OSA_EFAIL;
    }
    signs->boot_from_backup = from_backup == kErasedByte ? 0 : from_backup;
    return 0;
}

// The first process of a power cycle asks the flash and tells the others in a file.
int detect_backup() {
    const Lock lock;
    if (!lock.held()) return OSA_EFAIL;
    BackupSigns signs{};
    if (os::exists(kSignFile)) {
        if (os::read_file(kSignFile, &signs, sizeof signs) != static_cast<ssize_t>(sizeof signs)) {
            QEL_ERROR_AS(kStarter, "fail to read bootfromback sign\n");
            return OSA_EFAIL;
        }
        set_backup_signs(signs);
        return 0;
    }
    const int from_flash = read_signs_of_flash(&signs);
    if (from_flash != 0) return from_flash;
    set_backup_signs(signs);
    const int written = write_signs(signs);
    QEL_INFO("gFlashCtrlObj.isSupportSwitchPart:%d\n", static_cast<int>(signs.can_switch));
    QEL_INFO("gFlashCtrlObj.bootFromBack:%d\n", static_cast<int>(signs.boot_from_backup));
    QEL_INFO("gFlashCtrlObj.bootVersion:%d\n", static_cast<int>(signs.boot_version));
    return written;
}

int start() {
    if (start_blocks() != 0) return OSA_EFAIL;
    set_switch_target(kNoSwitchTarget);
    set_backup_signs({});
    set_flag_partition(false);
    set_info({});
    if (load_table() != 0) {
        QEL_ERROR_AS(kStarter, "Get Partion info  failed!\n");
        return OSA_EFAIL;
    }
    if (can_boot_loader_switch() && allocate_description(partition_count()) != 0) {
        QEL_ERROR_AS(kStarter, "OSA_memCalloc failed !\n");
    }
    FlashInfo info{};
    if (read_geometry(&info) != 0) return OSA_EFAIL;
    set_info(info);
    detect_flag_partition();
    QEL_INFO(" Flashtype = %#x,patSize = %#x,rwSize = %#x,ersSize = %#x \n", info.type, info.partitionBytes,
             info.pageBytes, info.eraseBytes);
    if (set_up_lock() != 0) return OSA_EFAIL;
    return has_flag_partition() ? detect_backup() : 0;
}

}  // namespace

}  // namespace qel::flash

using namespace qel;

extern "C" {

int QEL_flashIinit(void) { return flash::start(); }

int QEL_flashDeinit(void) {
    flash::free_description();
    flash::free_table();
    flash::stop_blocks();
    upgrade_files::close_all();
    return 0;
}

}  // extern "C"
