// flash_blocks.cpp - what the process keeps per partition while it works on it: the table of good
// blocks of raw NAND and the descriptor of the raw flash object.
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "frame/log.h"
#include "frame/mutex.h"
#include "frame/unload.h"
#include "os/mtd.h"
#include "os/os.h"
#include "storage/flash.h"

namespace qel::flash {

namespace {

constexpr const char *kNoTable = "fpga";  // never rewritten block by block
constexpr const char *kBuilder = "Flash_createPartionTab";
constexpr const char *kLookUp = "Flash_LookupTab";

struct Access {
    uint64_t *good = nullptr;  // offsets of the good blocks in order, kNoBlock behind the last
    uint32_t blocks = 0;       // entries of `good`
    uint32_t good_count = 0;
    bool kept = false;  // asked for from outside the raw flash object: stays when that goes
    int fd = -1;
};

struct State {
    Mutex mutex;
    Access partitions[QEL_MAX_PARTITIONS] QEL_GUARDED_BY(mutex);
};
constinit State state;

void free_blocks(Access &access) {
    if (access.good != nullptr) OSA_memFree(access.good);
    access.good = nullptr;
    access.blocks = 0;
    access.good_count = 0;
    access.kept = false;
}

bool is_bad(int fd, uint64_t offset, uint64_t partition_offset) {
    auto argument = static_cast<int64_t>(offset);
    const int answer = os::ioctl(fd, os::kMtdGetBadBlock, &argument);
    if (answer == 0) return false;
    const unsigned long long address = partition_offset + offset;
    QEL_WARN_SHORT("MEMGETBADBLOCK error,fd = %d, ret = %d addr = %llx! \n", fd, answer, address);
    QEL_WARN_SHORT("find badblock:fd = %d,addr = %llx\n", fd, address);
    return true;
}

// Asks the driver for every block of the partition.
int build(int fd, const FlashPartition &entry, uint32_t erase_bytes, Access &access) {
    const uint64_t blocks = erase_bytes != 0 ? entry.size / erase_bytes : 0;
    if (blocks == 0 || blocks > SIZE_MAX / sizeof(uint64_t) || blocks > UINT32_MAX) {
        QEL_ERROR_AS(kBuilder, "%s has no erase blocks\n", entry.name);
        return OSA_EFAIL;
    }
    const size_t bytes = static_cast<size_t>(blocks) * sizeof(uint64_t);
    auto *const good = static_cast<uint64_t *>(OSA_memAlloc(bytes));
    if (good == nullptr) {
        QEL_ERROR_AS(kBuilder, "OSA_memCalloc failed !\n");
        return OSA_EFAIL;
    }
    std::fill_n(good, blocks, kNoBlock);
    uint32_t good_count = 0;
    for (uint64_t block = 0; block < blocks; ++block) {
        const uint64_t offset = block * erase_bytes;
        if (!is_bad(fd, offset, entry.offset)) good[good_count++] = offset;
    }
    const bool kept = access.kept;
    free_blocks(access);
    access.good = good;
    access.blocks = static_cast<uint32_t>(blocks);
    access.good_count = good_count;
    access.kept = kept;
    return 0;
}

enum class Build { kFirst, kAgain };
int create(int fd, int index, Build when, bool keep) {
    FlashPartition entry;
    if (!partition(index, &entry)) {
        QEL_ERROR_AS(kBuilder, "no partition %d\n", index);
        return OSA_EFAIL;
    }
    const FlashInfo flash = info();
    if (!is_raw_nand(flash) || strcmp(entry.name, kNoTable) == 0) return 0;
    const MutexLock lock(state.mutex);
    Access &access = state.partitions[index];
    if (access.good == nullptr || when == Build::kAgain) {
        if (access.good == nullptr) QEL_INFO("CreatePartionTab:%s fd=%d\n", entry.name, fd);
        if (build(fd, entry, flash.eraseBytes, access) != 0) return OSA_EFAIL;
    }
    if (keep) access.kept = true;
    return 0;
}

// Unloading the library takes the tables along. They outlive QEL_flashDeinit, which may be called
// while somebody still works with them.
QEL_AT_UNLOAD void free_at_unload() {
    for (Access &access : state.partitions) free_blocks(access);
}

}  // namespace

int start_blocks() {
    state.mutex.destroy();
    if (state.mutex.create() != 0) return OSA_EFAIL;
    const MutexLock lock(state.mutex);
    for (Access &access : state.partitions) free_blocks(access);  // of a table that was read before
    return 0;
}

void stop_blocks() { state.mutex.destroy(); }

int create_good_blocks(int fd, int index) { return create(fd, index, Build::kFirst, false); }
int rebuild_good_blocks(int fd, int index) { return create(fd, index, Build::kAgain, false); }

int look_up(uint64_t offset, uint64_t *out, int index) {
    const FlashInfo flash = info();
    if (!is_raw_nand(flash)) {
        *out = offset;
        return 0;
    }
    const auto shown = static_cast<unsigned long long>(offset);
    if (flash.eraseBytes == 0 || offset % flash.eraseBytes != 0) {
        QEL_ERROR_AS(kLookUp, "offset doesn't  align 0x%llx", shown);
        return OSA_EFAIL;
    }
    if (index == -1) index = current_partition();
    if (index == -1) {
        QEL_ERROR_AS(kLookUp, "id=-1\n");
        return OSA_EFAIL;
    }
    const MutexLock lock(state.mutex);
    if (index < 0 || static_cast<uint32_t>(index) >= partition_count() ||
        state.partitions[index].good == nullptr) {
        QEL_ERROR_AS(kLookUp, "part[%d]'s pGoodBlkTab doesn't create\n", index);
        return OSA_EFAIL;
    }
    const Access &access = state.partitions[index];
    const uint64_t block = offset / flash.eraseBytes;
    const uint64_t place = block < access.blocks ? access.good[block] : kNoBlock;
    if (place == kNoBlock) {
        QEL_ERROR_AS(kLookUp, "Flash_LookupTab[%d] offset=0x%llx 0x%llx\n", index, shown,
                     static_cast<unsigned long long>(place));
        return OSA_EFAIL;
    }
    *out = place;
    return 0;
}

uint32_t good_block_count(int index) {
    const MutexLock lock(state.mutex);
    if (index < 0 || static_cast<uint32_t>(index) >= QEL_MAX_PARTITIONS) return 0;
    return state.partitions[index].good_count;
}

int shared_descriptor(int index) {
    FlashPartition entry;
    if (!partition(index, &entry)) return -ENODEV;
    const MutexLock lock(state.mutex);
    int &fd = state.partitions[index].fd;
    if (fd >= 0) return fd;
    const int opened = open_partition(index);
    if (opened >= 0) fd = opened;
    return opened;
}

void release_partitions() {
    const MutexLock lock(state.mutex);
    for (Access &access : state.partitions) {
        if (access.fd >= 0) os::close(access.fd);
        access.fd = -1;
        if (!access.kept) free_blocks(access);
    }
}

}  // namespace qel::flash

using namespace qel;
using namespace qel::flash;

extern "C" {

int Flash_createPartionTab(int fd, int index) { return create(fd, index, Build::kFirst, true); }

int Flash_LookupTab(uint64_t offset, uint64_t *out, int index) {
    if (out == nullptr) {
        QEL_ERROR("bad argument\n");
        return OSA_EFAIL;
    }
    return look_up(offset, out, index);
}

}  // extern "C"
