#include "tools/qelctl/flash_table.h"

#include <unistd.h>
#include <cstring>

#include "tools/qelctl/exit_code.h"
#include "tools/qelctl/table.h"

namespace qelctl {

namespace {

constexpr uint64_t kNoBackup32 = UINT32_MAX;  // of a driver that knows 32 bits only

std::string partition_name(const FlashPartition &partition) {
    return {partition.name, strnlen(partition.name, sizeof partition.name)};
}

bool can_have_bad_blocks(const FlashInfo &info, const FlashPartition &partition) {
    return (info.type == QEL_FLASH_NAND || info.type == QEL_FLASH_MLC_NAND) &&
           partition_name(partition) != "fpga";
}

// An open partition, for asking its driver.
class OpenPartition {
public:
    OpenPartition(const Library &library, const std::string &name) {
        if (CALL(library, QEL_flashOpenPartion)(name.c_str(), &fd_, &index_) == 0) return;
        throw Failure(ExitCode::kFailed,
                      "cannot open the partition " + printable(name) + "; the library's log says why.");
    }
    ~OpenPartition() { close(fd_); }
    OpenPartition(const OpenPartition &) = delete;
    OpenPartition &operator=(const OpenPartition &) = delete;
    int fd() const { return fd_; }
    int index() const { return index_; }

private:
    int fd_ = -1;
    int index_ = -1;
};

}  // namespace

std::vector<FlashPartition> read_partitions(const Library &library) {
    FlashPartitionTable *table = nullptr;
    if (CALL(library, QEL_getPartionInfo64)(&table) != 0 || table == nullptr) return {};
    return {table->entries, table->entries + table->count};
}

bool has_partition(const Library &library, const std::string &name) {
    for (const FlashPartition &partition : read_partitions(library)) {
        if (partition_name(partition) == name) return true;
    }
    return false;
}

int find_partition(const std::vector<FlashPartition> &partitions, const std::string &name) {
    std::string known;
    for (size_t i = 0; i < partitions.size(); ++i) {
        if (partition_name(partitions[i]) == name) return static_cast<int>(i);
        known += (known.empty() ? "" : ", ") + printable(partition_name(partitions[i]));
    }
    throw Failure(ExitCode::kFailed,
                  known.empty() ? "the library has no table of partitions; its log says why."
                                : "there is no partition " + printable(name) + "; there are: " + known + ".");
}

bool has_backup(const FlashPartition &partition) {
    return partition.backupOffset != QEL_NO_BACKUP && partition.backupOffset != kNoBackup32;
}

FlashInfo read_flash_info(const Library &library) {
    FlashInfo info{};
    if (CALL(library, QEL_getFlashInfo)(&info) == 0 && info.eraseBytes != 0) return info;
    throw Failure(ExitCode::kFailed,
                  "the library does not know the flash of this device; its log says why.\n"
                  "To talk to a virtual board, start qelctl with qelboard run.");
}

const char *flash_type_name(uint32_t type) {
    switch (type) {
        case QEL_FLASH_NOR:
            return "NOR";
        case QEL_FLASH_NAND:
            return "NAND";
        case QEL_FLASH_EMMC:
            return "eMMC";
        case QEL_FLASH_MLC_NAND:
            return "MLC NAND";
        default:
            return "unknown";
    }
}

BlockList read_blocks(const Library &library, const FlashInfo &info, const FlashPartition &partition) {
    BlockList list;
    const uint64_t blocks = partition.size / info.eraseBytes;
    if (!can_have_bad_blocks(info, partition)) {
        for (uint64_t i = 0; i < blocks; ++i) list.good.push_back(i * info.eraseBytes);
        return list;
    }
    const std::string name = partition_name(partition);
    const OpenPartition opened(library, name);
    if (CALL(library, Flash_createPartionTab)(opened.fd(), opened.index()) != 0)
        throw Failure(ExitCode::kFailed, "cannot read which blocks of " + printable(name) + " are bad.");
    uint64_t next = 0;  // the block that is good if it is the next in the list
    while (next < blocks) {
        uint64_t offset = 0;
        const uint64_t logical = list.good.size() * uint64_t{info.eraseBytes};
        if (CALL(library, Flash_LookupTab)(logical, &offset, opened.index()) != 0) break;
        for (; next * info.eraseBytes < offset && next < blocks; ++next)
            list.bad.push_back(next * info.eraseBytes);
        list.good.push_back(offset);
        ++next;
    }
    for (; next < blocks; ++next) list.bad.push_back(next * info.eraseBytes);
    return list;
}

}  // namespace qelctl
