// rawflash.cpp - the raw flash object over the flash of every chip of the unit.
#include <cstring>

#include "frame/log.h"
#include "os/os.h"
#include "product/hwid_store.h"
#include "qel/storage.h"
#include "storage/flash_description.h"
#include "storage/rawflash_object.h"

namespace qel::rawflash {

namespace {

// File systems on the partitions that an upgrade writes.
constexpr const char *kMountDirectories[] = {"/mnt/firmware", "/mnt/data", "/mnt/web"};
constexpr size_t kMaxMountsBytes = 16384;
constexpr uint32_t kMaxMembers = 256;  // the number of a chip is a byte

struct Composite;

// A chip's flash, and how its progress becomes that of the whole.
struct Member {
    RawFlash *flash;
    Composite *whole;
    uint32_t number;
};

struct Composite : Object {
    uint32_t count;
    Member members[kMaxMembers];
};

Composite *composite_of(RawFlash *thiz, const char *function) {
    return static_cast<Composite *>(object_of(thiz, Flash_addref, function));
}

// Every member has an equal share of the work.
void tell_of_member(void *context, uint64_t done, uint64_t total) {
    const Member &member = *static_cast<const Member *>(context);
    const RawFlashInfo &info = member.whole->info;
    if (info.progress == nullptr) return;
    info.progress(info.progressContext, member.number * total + done, member.whole->count * total);
}

// Calls the slot of every member in turn, up to the first that fails or that `goes_on` forbids.
template <auto Slot, typename GoesOn, typename... Arguments>
int call_members(Composite &whole, const char *function, const char *word, GoesOn goes_on,
                 Arguments... arguments) {
    for (uint32_t i = 0; i < whole.count; ++i) {
        if (!goes_on()) return OSA_EFAIL;
        RawFlash *const member = whole.members[i].flash;
        const auto operation = member->*Slot;
        if (operation == nullptr) {
            QEL_WARN_AS(function, "%s[%d] is null!\n", word, static_cast<int>(i));
            continue;
        }
        const int status = operation(member, arguments...);
        if (status < 0) {
            QEL_ERROR_AS(function, "%s[%d] err!\n", word, static_cast<int>(i));
            return status;
        }
    }
    return 0;
}

template <auto Slot, typename... Arguments>
int on_members(RawFlash *thiz, const char *function, const char *word, Arguments... arguments) {
    Composite *const whole = composite_of(thiz, function);
    if (whole == nullptr) return OSA_EFAIL;
    return call_members<Slot>(
        *whole, function, word, [] { return true; }, arguments...);
}

// The same for a request that may be aborted, also between two members.
template <auto Slot, typename... Arguments>
int run_on_members(RawFlash *thiz, const char *function, const char *word, Arguments... arguments) {
    Composite *const whole = composite_of(thiz, function);
    if (whole == nullptr) return OSA_EFAIL;
    const Running running(*whole);
    const auto goes_on = [whole, function] {
        if (!whole->requests.is_aborted()) return true;
        QEL_WARN_AS(function, "aborted\n");
        return false;
    };
    return call_members<Slot>(*whole, function, word, goes_on, arguments...);
}

// The mount point of a line of /proc/mounts, cut off in place; nullptr where there is none.
char *mount_point(char *line) {
    char *const start = strchr(line, ' ');
    char *const end = start != nullptr ? strchr(start + 1, ' ') : nullptr;
    if (end == nullptr) return nullptr;
    *end = '\0';
    return start + 1;
}

bool is_of_flash(const char *directory) {
    for (const char *candidate : kMountDirectories) {
        if (strcmp(candidate, directory) == 0) return true;
    }
    return false;
}

void unmount(const char *directory) {
    if (os::unmount(directory) == 0) {
        QEL_INFO("umount %s success!\n", directory);
    } else {
        QEL_ERROR_AS("createRawFlash", "umount %s fail!\n", directory);
    }
}

}  // namespace

void unmount_flash() {
    auto *const text = static_cast<char *>(OSA_memCalloc(kMaxMountsBytes));
    if (text == nullptr) return;
    const os::Fd file(os::open("/proc/mounts", 0));
    // The last byte stays zero.
    if (file.is_open()) os::read_full(file.get(), text, kMaxMountsBytes - 1);
    for (char *line = text; *line != '\0';) {
        char *const end = strchr(line, '\n');
        if (end != nullptr) *end = '\0';
        const char *const directory = mount_point(line);
        if (directory != nullptr && is_of_flash(directory)) unmount(directory);
        if (end == nullptr) break;
        line = end + 1;
    }
    OSA_memFree(text);
}

namespace {

constexpr RawFlash kOperations = {
    nullptr,      Flash_addref,  Flash_release, Flash_getcaps,         Flash_read,
    Flash_write,  Flash_erase,   Flash_abort,   Flash_setPartitionMap, Flash_getPartitionMapedAddr,
    Flash_read64, Flash_write64, Flash_erase64, Flash_writePartition};

void add_member(Composite &whole, RawFlash *flash) {
    Member &member = whole.members[whole.count];
    member = {flash, &whole, whole.count};
    flash->info->progress = tell_of_member;
    flash->info->progressContext = &member;
    whole.info.chips = ++whole.count;
}

void release_members(Composite &whole) {
    while (whole.count > 0) {
        RawFlash *const flash = whole.members[--whole.count].flash;
        flash->release(flash);
    }
}

// This chip's flash and that of the `slaves` chips that this process reaches.
int add_members(Composite &whole, uint32_t slaves) {
    RawFlash *flash = nullptr;
    if (createRawFlashLocal(&flash) != 0) return OSA_EFAIL;
    add_member(whole, flash);
    for (uint32_t chip = 1; chip <= slaves && whole.count < kMaxMembers; ++chip) {
        if (createRawFlashAdapter(chip, &flash) != 0) return OSA_EFAIL;
        add_member(whole, flash);
    }
    return 0;
}

}  // namespace

}  // namespace qel::rawflash

using namespace qel;
using namespace qel::rawflash;

extern "C" {

int createRawFlash(RawFlash **out) {
    if (is_missing(__func__, out)) return OSA_EFAIL;
    *out = nullptr;
    auto *const whole = allocate<Composite>(__func__, kOperations);
    if (whole == nullptr) return OSA_EFAIL;
    const unsigned reached = QEL_adapterGetChipNum();
    const uint32_t slaves = reached > 0 ? reached - 1 : 0;
    hwid::ChipInfo chip{1, 0};
    product::chip_info(&chip);
    QEL_INFO("flashChnNum = %d, nFlashNum = %d, dspSums = %d\n", static_cast<int>(slaves),
             static_cast<int>(slaves + 1), static_cast<int>(chip.dsp_sums));
    unmount_flash();
    if (add_members(*whole, slaves) != 0) {
        release_members(*whole);
        OSA_memFree(whole);
        return OSA_EFAIL;
    }
    *out = &whole->face;
    QEL_INFO("createRawFlash OK! \n");
    return 0;
}

int Flash_addref(RawFlash *thiz) {
    const int status = on_members<&RawFlash::addRef>(thiz, __func__, "addref");
    return status == 0 ? add_reference(*composite_of(thiz, __func__)) : status;
}

int Flash_release(RawFlash *thiz) {
    Composite *const whole = composite_of(thiz, __func__);
    if (whole == nullptr) return OSA_EFAIL;
    const int status = on_members<&RawFlash::release>(thiz, __func__, "release");
    if (drop_reference(*whole) == 0) OSA_memFree(whole);
    return status;
}

int Flash_getcaps(RawFlash *thiz, RawFlashCaps *out) {
    return on_members<&RawFlash::getCaps>(thiz, __func__, "getcaps", out);
}

int Flash_read(RawFlash *thiz, uint32_t address, void *buffer, uint32_t bytes) {
    return run_on_members<&RawFlash::read>(thiz, __func__, "read", address, buffer, bytes);
}

int Flash_write(RawFlash *thiz, uint32_t address, const void *data, uint32_t bytes) {
    return run_on_members<&RawFlash::write>(thiz, __func__, "write", address, data, bytes);
}

int Flash_erase(RawFlash *thiz, uint32_t address, uint32_t bytes) {
    return run_on_members<&RawFlash::erase>(thiz, __func__, "erase", address, bytes);
}

int Flash_abort(RawFlash *thiz) {
    Composite *const whole = composite_of(thiz, __func__);
    if (whole == nullptr) return OSA_EFAIL;
    whole->requests.abort();
    return on_members<&RawFlash::abort>(thiz, __func__, "abort");
}

int Flash_setPartitionMap(RawFlash *thiz, const RawFlashMap *map, uint32_t entries) {
    return on_members<&RawFlash::setPartitionMap>(thiz, __func__, "setPartitionMap", map, entries);
}

int Flash_getPartitionMapedAddr(RawFlash *thiz, uint64_t address, uint64_t *out) {
    return on_members<&RawFlash::getPartitionMapedAddr>(thiz, __func__, "getPartitionMapedAddr", address,
                                                        out);
}

int Flash_read64(RawFlash *thiz, uint64_t address, void *buffer, uint32_t bytes) {
    return run_on_members<&RawFlash::read64>(thiz, __func__, "read64", address, buffer, bytes);
}

int Flash_write64(RawFlash *thiz, uint64_t address, const void *data, uint32_t bytes) {
    return run_on_members<&RawFlash::write64>(thiz, __func__, "write64", address, data, bytes);
}

int Flash_erase64(RawFlash *thiz, uint64_t address, uint64_t bytes) {
    return run_on_members<&RawFlash::erase64>(thiz, __func__, "erase64", address, bytes);
}

int Flash_writePartition(RawFlash *thiz, const char *name, const void *data, uint32_t bytes) {
    return run_on_members<&RawFlash::writePartition>(thiz, __func__, "writePartition", name, data, bytes);
}

}  // extern "C"

namespace qel::flash {

int write_through(RawFlash *flash, uint64_t address, const void *data, uint32_t bytes) {
    if (is_missing("Flash_flushPart", flash)) return OSA_EFAIL;
    return flash->write64(flash, address, data, bytes);
}

}  // namespace qel::flash
