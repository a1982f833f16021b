// upgrade_state.cpp - where an upgrade stands: flags in flash that the boot loader reads too, and the
// steps that write them around the writes of an upgrade.
#include "storage/upgrade_state.h"

#include <atomic>
#include <cstring>

#include "frame/log.h"
#include "os/os.h"
#include "product/hwid_store.h"
#include "storage/flag_pages.h"
#include "storage/flash.h"
#include "storage/upgrade_files.h"

uint8_t gBackupState = 0xFF;

namespace qel::upgrade_state {

namespace {

using flag_pages::Kind;
using flag_pages::Operation;
using flag_pages::Place;
using upgrade_files::Found;
using upgrade_files::Word;

// ---- where the flags stand ----

constexpr uint32_t kProgressBlock = 0;  // pages 0 to 3: progress, page 4: switch record
constexpr uint32_t kSystemBlock = 1;
constexpr uint32_t kCrcBlock = 2;
constexpr uint32_t kCryptoBlock = 3;
constexpr uint32_t kWaitPage = 3;
constexpr Place kSwitchRecord = {kProgressBlock, 4};
constexpr Place kErrorCount = {kSystemBlock, 0};
constexpr Place kBootBackupVersion = {kSystemBlock, 1};
constexpr Place kBackupVersion = {kSystemBlock, 2};
constexpr uint32_t kCrcBytes = 8;

// Progress marks by page, in the plain scheme and in the one that marks single partitions.
constexpr uint8_t kIdle = 0xFF;
constexpr uint8_t kStarted = 0x55;     // page 0
constexpr uint8_t kMainDone = 0xAA;    // page 1
constexpr uint8_t kBackupDone = 0x5A;  // page 2, by the boot side
constexpr uint8_t kWaitBackup = 0x6A;  // page 3
constexpr uint8_t kFirstPart = 0x75;   // page 0
constexpr uint8_t kSystemPart = 0x77;  // page 1
constexpr uint8_t kOtherParts = 0x7A;  // page 2

struct SwitchRecord {
    uint32_t switch_copy;  // 1: the system does not run from the backup copy
    uint32_t target;
};
static_assert(sizeof(SwitchRecord) == 8);

constexpr int kKindRunning = 1;
constexpr int kKindNoBackup = 2;  // needs no backup bookkeeping

constexpr int kSchemePages = 2;
constexpr int kSchemeParts = 4;

constexpr uint32_t kTypesTakingPart[] = {0x1001, 0x11001, 0x21001, 0x101001};

constexpr const char *kWriter = "Flash_writePartition";
constexpr Operation kWriterOperation = {kWriter};

// Under the flash lock.
struct State {
    bool known = false;        // gBackupState has been compared with the flash since the session began
    bool in_progress = false;  // from here on for the life of the process
    bool start_marked = false;
    int kind = 0;  // of the upgrade, at its last check
    int scheme = kSchemePages;
    bool first_marked = false;  // of kSchemeParts
    bool kernel_marked = false;
    bool root_marked = false;
    bool others_marked = false;
};
constinit State state;

int write_mark(const Operation &operation, uint32_t page, uint8_t mark) {
    if (flag_pages::write_byte(operation, {kProgressBlock, page}, 0, mark) != 0) return OSA_EFAIL;
    gBackupState = mark;
    return 0;
}

// Erases a block; the cached state goes with any of them.
int clear_block(const Operation &operation, uint32_t block) {
    if (!flash::has_flag_partition()) return 0;
    const flash::Lock lock;
    if (!lock.held() || flag_pages::erase(operation, block) != 0) return OSA_EFAIL;
    gBackupState = kIdle;
    return 0;
}

// ---- the files under /tmp ----

// The upgrade kind, or -1.
int upgrade_kind(const char *function) {
    uint32_t kind = 0;
    switch (upgrade_files::read(Word::kUpgradeKind, &kind)) {
        case Found::kNoFile:
            return 0;
        case Found::kError:
            return OSA_EFAIL;
        case Found::kValue:
            break;
    }
    if (kind <= uint32_t{kKindNoBackup}) return static_cast<int>(kind);
    QEL_WARN_AS(function, "upgrade flag is unknown\n");
    return 0;
}

int backup_version(uint8_t *out) {
    uint32_t version = 0;
    if (upgrade_files::read(Word::kBackupVersion, &version) != Found::kValue) return OSA_EFAIL;
    *out = static_cast<uint8_t>(version);
    return 0;
}

// ---- the update state ----

struct Pattern {
    uint8_t pages;
    uint8_t marks[4];
};
constexpr Pattern kPlainPattern = {3, {kStarted, kMainDone, kBackupDone}};

const Pattern &expected_pattern() {
    static constexpr Pattern kWithWait = {4, {kStarted, kMainDone, kBackupDone, kWaitBackup}};
    static constexpr Pattern kParts = {3, {kFirstPart, kSystemPart, kOtherParts}};
    uint8_t version = 0;
    if (backup_version(&version) != 0) return kPlainPattern;
    if (version == kSchemePages) return kWithWait;
    return version == kSchemeParts ? kParts : kPlainPattern;
}

int update_state(const Operation &operation) {
    if (!flash::has_flag_partition()) return 0;
    const flash::Lock lock;
    if (!lock.held()) return OSA_EFAIL;
    const Pattern &pattern = expected_pattern();
    int result = kIdle;
    for (uint32_t page = 0; page < pattern.pages; ++page) {
        uint8_t mark = kIdle;
        if (flag_pages::read_byte(operation, {kProgressBlock, page}, 0, &mark) != 0) return OSA_EFAIL;
        if (mark == pattern.marks[page]) result = mark;
    }
    return result;
}

// ---- steps of an upgrade ----

// Another process, or this device before its last start, may have asked to wait: looked up once per
// session. Which scheme the marks follow is the system's choice, told by the backup version.
int learn_state() {
    if (state.known || !flash::has_flag_partition()) return 0;
    uint8_t wait = kIdle;
    if (flag_pages::read_byte(kWriterOperation, {kProgressBlock, kWaitPage}, 0, &wait) != 0) return OSA_EFAIL;
    if (wait == kWaitBackup) {
        gBackupState = kWaitBackup;
    } else if (gBackupState == kWaitBackup) {
        gBackupState = kIdle;
    }
    uint8_t version = 0;
    const bool by_parts = backup_version(&version) == 0 && version == kSchemeParts;
    if (!state.in_progress) state.scheme = by_parts ? kSchemeParts : kSchemePages;
    state.known = true;
    return 0;
}

int refuse_without_start_mark() {
    QEL_ERROR_AS(kWriter, "write backup startflag failed!!\n");
    return OSA_EFAIL;
}

int write_switch_record() {
    const flash::BackupSigns signs = flash::backup_signs();
    if (signs.can_switch == 0) return 0;
    const SwitchRecord record = {signs.boot_from_backup == 0 ? 1u : 0u, flash::switch_target()};
    return flag_pages::write_start({kWriter, Kind::kPage}, kSwitchRecord, &record, sizeof record);
}

// The plain scheme: one start mark before the first write into a partition that has a backup copy.
int mark_start(const FlashPartition &entry) {
    if (state.start_marked || !flash::has_backup(entry)) return 0;
    QEL_INFO("write update Flag \n");
    if (clear_block(kWriterOperation, kProgressBlock) != 0 || write_switch_record() != 0 ||
        write_mark(kWriterOperation, 0, kStarted) != 0) {
        return refuse_without_start_mark();
    }
    state.start_marked = true;
    state.in_progress = true;
    return 0;
}

bool takes_part(const FlashPartition &entry, int index) {
    if (strncmp(entry.name, "web", 3) == 0) return true;
    const uint32_t type = flash::partition_type(index);
    for (const uint32_t taking_part : kTypesTakingPart) {
        if (type == taking_part) return true;
    }
    return false;
}

int mark_once(bool *marked, uint32_t page, uint8_t mark) {
    if (*marked) return 0;
    if (write_mark(kWriterOperation, page, mark) != 0) return refuse_without_start_mark();
    *marked = true;
    return 0;
}

// The scheme that marks the first partition, the system's two and the others behind them.
int mark_part(const FlashPartition &entry, int index) {
    if (!state.in_progress) {
        QEL_INFO("set write update Flag \n");
        if (clear_block(kWriterOperation, kProgressBlock) != 0) return refuse_without_start_mark();
        state.in_progress = true;
    }
    const bool is_kernel = strcmp(entry.name, "Kernel") == 0;
    const bool is_root = strcmp(entry.name, "romfs") == 0;
    const bool part = takes_part(entry, index);
    if (part && mark_once(&state.first_marked, 0, kFirstPart) != 0) return OSA_EFAIL;
    if (is_kernel || is_root) {
        if (!state.first_marked) {
            QEL_INFO("%s:%s failed isBackUp=%d-%d\n", kWriter, entry.name, state.kernel_marked,
                     state.root_marked);
            return 0;
        }
        return mark_once(is_kernel ? &state.kernel_marked : &state.root_marked, 1, kSystemPart);
    }
    if (!part || !state.kernel_marked || !state.root_marked) return 0;
    return mark_once(&state.others_marked, 2, kOtherParts);
}

}  // namespace

int check_upgrade_allowed() {
    const flash::Lock lock;
    if (!lock.held()) return OSA_EFAIL;
    const int kind = upgrade_kind("QEL_checkUpgradeMap");
    state.kind = kind;
    if (kind == -1) {
        QEL_WARN_SHORT("Check upgrade failed!!!   %d\n", kind);
        return OSA_EFAIL;
    }
    if (kind == kKindNoBackup) return 0;
    if (learn_state() != 0) return OSA_EFAIL;
    if (gBackupState == kWaitBackup) {
        QEL_WARN_SHORT("Should wait backup, can't upgrade now!!!\n");
        return OSA_EFAIL;
    }
    if (kind == kKindRunning) return 0;
    return upgrade_files::write(Word::kUpgradeKind, kKindRunning, kWriter);
}

int mark_write(int partition, uint32_t length) {
    if (!flash::has_flag_partition()) return 0;
    const flash::Lock lock;
    if (!lock.held()) return OSA_EFAIL;
    FlashPartition entry;
    if (!flash::partition(partition, &entry)) {
        QEL_ERROR_AS(kWriter, "%s:%s[id]=%d\n", kWriter, "partition", partition);
        return OSA_EFAIL;
    }
    if (state.kind == kKindNoBackup) return 0;
    if (state.scheme == kSchemePages) return mark_start(entry);
    return length != 0 ? mark_part(entry, partition) : 0;
}

void complete() {
    const flash::Lock lock;
    if (!lock.held() || !state.in_progress || state.kind == kKindNoBackup) return;
    if (state.scheme == kSchemeParts) {
        if (gBackupState == kWaitBackup || clear_block({"Flash_release"}, kProgressBlock) != 0) return;
    } else if (gBackupState != kStarted || write_mark({"Flash_release"}, 1, kMainDone) != 0) {
        return;
    }
    QEL_recordCompleteUpdate();
}

void end_session() {
    const flash::Lock lock;
    if (!lock.held()) return;
    state.known = false;
    upgrade_files::write(Word::kUpgradeKind, 0, "Flash_release");
}

int serve_write_flag(void *payload, uint32_t length) {
    WriteFlagPayload request;
    if (length < sizeof request) return OSA_EFAIL;
    memcpy(&request, payload, sizeof request);
    request.status = OSA_EFAIL;
    if (flash::is_emmc(flash::info())) {
        request.status = flag_pages::write_byte({"QEL_slvEmmcWriteBackUpFlag"}, {request.block, request.page},
                                                request.byte, static_cast<uint8_t>(request.value));
    }
    memcpy(payload, &request, sizeof request);
    return 0;
}

namespace {

constexpr uint32_t kSlaveChip = 1;
constexpr int kSlaveTimeoutMs = 5000;

// The master asks chip 1; a slave chip is meant itself.
int write_flag_on_slave(WriteFlagPayload request) {
    hwid::ChipInfo chip{};
    if (product::chip_info(&chip) != 0) return OSA_EFAIL;
    if (chip.chip_idx != 0) {
        return serve_write_flag(&request, sizeof request) == 0 ? request.status : OSA_EFAIL;
    }
    struct {
        AdapterMsg head;
        WriteFlagPayload payload;
    } message = {};
    message.head.chip = kSlaveChip;
    message.head.timeout = kSlaveTimeoutMs;
    message.head.needReply = 1;
    message.head.module = QEL_MODULE_FLASH;
    message.head.cmd = kWriteFlagCommand;
    message.head.length = sizeof message.payload;
    message.payload = request;
    if (QEL_adapterMasterProc(&message.head) != 0) {
        QEL_ERROR_AS("QEL_slvEmmcWriteBackUpFlag", "chip %u does not answer\n", kSlaveChip);
        return OSA_EFAIL;
    }
    return message.payload.status == 0 ? 0 : OSA_EFAIL;
}

bool is_missing(const char *function, const void *argument) {
    if (argument != nullptr) return false;
    QEL_ERROR_AS(function, "bad argument\n");
    return true;
}

}  // namespace

}  // namespace qel::upgrade_state

using namespace qel;
using namespace qel::upgrade_state;

extern "C" {

int QEL_flashReadBackUpFlag(uint32_t block, uint32_t page, uint32_t byte, uint8_t *out) {
    if (is_missing(__func__, out)) return OSA_EFAIL;
    return flag_pages::read_byte({__func__}, {block, page}, byte, out);
}

int QEL_flashWriteBackUpFlag(uint32_t block, uint32_t page, uint32_t byte, uint8_t value) {
    return flag_pages::write_byte({__func__}, {block, page}, byte, value);
}

int QEL_slvEmmcWriteBackUpFlag(uint32_t block, uint32_t page, uint32_t byte, uint8_t value) {
    return write_flag_on_slave({0, block, page, byte, value});
}

int Flash_flashWriteFlagPage(uint32_t block, uint32_t page, const void *buffer, uint32_t length) {
    if (buffer == nullptr) {
        QEL_ERROR("pBuf is null\n");
        return OSA_EFAIL;
    }
    return flag_pages::write_start({__func__, Kind::kPage}, {block, page}, buffer, length);
}

int QEL_flashClearBackUpFlag(uint32_t block) { return clear_block({__func__}, block); }

int QEL_gotoStateInit(void) { return clear_block({__func__}, kProgressBlock); }

int QEL_gotoStateWaitbackup(void) {
    if (!flash::has_flag_partition()) return 0;
    const flash::Lock lock;
    return lock.held() ? write_mark({__func__}, kWaitPage, kWaitBackup) : OSA_EFAIL;
}

int QEL_readSysState(void) {
    uint8_t errors = 0;
    if (flag_pages::read_byte({__func__}, kErrorCount, 0, &errors) != 0) return OSA_EFAIL;
    return errors == 0 ? 0 : OSA_EFAIL;
}

int QEL_readErrCount(uint8_t *count) {
    if (is_missing(__func__, count)) return OSA_EFAIL;
    if (flag_pages::read_byte({__func__}, kErrorCount, 0, count) == 0) return 0;
    QEL_INFO("read errCount fail !!!\n");
    return OSA_EFAIL;
}

int QEL_readBootBackupVerFromFlash(uint8_t *version) {
    if (is_missing(__func__, version)) return OSA_EFAIL;
    return flag_pages::read_byte({__func__}, kBootBackupVersion, 0, version);
}

int QEL_readBootBackupVer(uint8_t *version) {
    if (is_missing(__func__, version)) return OSA_EFAIL;
    *version = static_cast<uint8_t>(flash::backup_signs().boot_version);
    return 0;
}

int QEL_bootFromBackupPart(uint8_t *flag) {
    if (is_missing(__func__, flag)) return OSA_EFAIL;
    *flag = static_cast<uint8_t>(flash::backup_signs().boot_from_backup);
    return 0;
}

int QEL_clearResetCount(void) {
    if (!flash::has_flag_partition()) return 0;
    const flash::Lock lock;
    const Operation operation = {__func__};
    uint8_t version = 0;
    if (lock.held() && clear_block(operation, kSystemBlock) == 0 &&
        (backup_version(&version) != 0 ||
         flag_pages::write_byte(operation, kBackupVersion, 0, version) == 0) &&
        flag_pages::write_byte(operation, kErrorCount, 0, 0) == 0) {
        return 0;
    }
    QEL_ERROR("Fail to clear reset count flag\n");
    return OSA_EFAIL;
}

int QEL_getUpdateState(void) { return update_state({__func__}); }

int QEL_flashWriteCrc(const void *records, uint32_t count) {
    if (is_missing(__func__, records)) return OSA_EFAIL;
    const uint32_t bytes = count <= UINT32_MAX / kCrcBytes ? count * kCrcBytes : UINT32_MAX;
    return flag_pages::write_start({__func__, Kind::kCrc}, {kCrcBlock, 0}, records, bytes);
}

int QEL_flashClearCrc(void) { return clear_block({__func__}, kCrcBlock); }

int QEL_flashWriteCryptoUpFlag(const uint8_t *bytes, uint32_t length) {
    if (bytes == nullptr) {
        QEL_ERROR("Crypto UpFlag is NULL!\n");
        return OSA_EFAIL;
    }
    return flag_pages::write_start({__func__, Kind::kCryptoUpgrade}, {kCryptoBlock, 0}, bytes, length);
}

int QEL_flashReadCryptoUpFlag(uint8_t *bytes, uint32_t length) {
    if (bytes == nullptr) {
        QEL_ERROR("Crypto UpFlag is NULL!\n");
        return OSA_EFAIL;
    }
    return flag_pages::read_start({__func__, Kind::kCryptoUpgrade, "flash Read Crypto UpFlag, "},
                                  {kCryptoBlock, 0}, bytes, length);
}

int Flash_writeUpgradeFlag(uint32_t kind) { return upgrade_files::write(Word::kUpgradeKind, kind, __func__); }

int QEL_checkUpgradeMap(void) { return upgrade_kind(__func__); }

int QEL_writeBackupVer(uint32_t version) {
    return upgrade_files::write(Word::kBackupVersion, version, __func__);
}

int QEL_readBackupVer(uint8_t *version) {
    if (is_missing(__func__, version)) return OSA_EFAIL;
    return backup_version(version);
}

// The record of the update is this line; the module that keeps records over a restart will add its own.
int QEL_recordCompleteUpdate(void) {
    QEL_INFO("update complete\n");
    return 0;
}

}  // extern "C"
