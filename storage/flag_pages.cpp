// flag_pages.cpp - one page at a time: on raw flash a page is written whole and once per erase, on
// eMMC it is overwritten in place.
#include "storage/flag_pages.h"

#include <fcntl.h>
#include <unistd.h>
#include <algorithm>
#include <cstring>

#include "frame/log.h"
#include "os/mtd.h"
#include "os/os.h"
#include "storage/flash.h"

namespace qel::flag_pages {

namespace {

constexpr uint32_t kNorPageBytes = 64;

// A page or a block in memory; empty without memory.
class Buffer {
public:
    explicit Buffer(size_t bytes) : data_(static_cast<uint8_t *>(OSA_memCalloc(bytes))), bytes_(bytes) {}
    ~Buffer() {
        if (data_ != nullptr) OSA_memFree(data_);
    }
    Buffer(const Buffer &) = delete;
    Buffer &operator=(const Buffer &) = delete;
    uint8_t *data() { return data_; }
    size_t size() const { return bytes_; }
    bool is_erased() const {
        return std::all_of(data_, data_ + bytes_, [](uint8_t byte) { return byte == flash::kErasedByte; });
    }

private:
    uint8_t *data_;
    size_t bytes_;
};

// The open partition, for the length of one operation.
class Partition {
public:
    explicit Partition(const Operation &operation) : operation_(operation), info_(flash::info()) {}

    int open();
    bool is_raw() const { return !flash::is_emmc(info_); }
    // Where a block or a page starts inside the partition.
    int locate(uint32_t block, uint64_t *address);
    int locate(Place place, uint64_t *address);
    int read(uint64_t address, Buffer &page);
    // The bytes written, or -1.
    ssize_t write(uint64_t address, Buffer &data);
    int erase(uint32_t block);

private:
    int seek(uint64_t address);
    int fill_with_erased(uint64_t address);

    const Operation &operation_;
    const FlashInfo info_;
    FlashPartition entry_{};
    os::Fd fd_;
    int index_ = -1;
};

int Partition::open() {
    int fd = -1;
    if (QEL_flashOpenPartion(flash::kFlagPartition, &fd, &index_) != 0) return OSA_EFAIL;
    fd_.reset(fd);
    return flash::partition(index_, &entry_) ? 0 : OSA_EFAIL;
}

int Partition::locate(uint32_t block, uint64_t *address) {
    const uint64_t logical = uint64_t{block} * info_.eraseBytes;
    const bool inside = info_.eraseBytes != 0 && logical + info_.eraseBytes <= entry_.size;
    if (!is_raw() && inside) {
        *address = logical;
        return 0;
    }
    if (inside && Flash_createPartionTab(fd_.get(), index_) == 0 &&
        flash::look_up(logical, address, index_) == 0) {
        return 0;
    }
    QEL_ERROR_AS(operation_.function, "%screatePartionTab or LookupTab failed! \n", operation_.prefix);
    return OSA_EFAIL;
}

int Partition::locate(Place place, uint64_t *address) {
    const uint64_t in_block = uint64_t{place.page} * page_bytes();
    if (page_bytes() == 0 || in_block + page_bytes() > info_.eraseBytes) {
        QEL_ERROR_AS(operation_.function, "%sno page %u in a block\n", operation_.prefix, place.page);
        return OSA_EFAIL;
    }
    if (locate(place.block, address) != 0) return OSA_EFAIL;
    *address += in_block;
    return 0;
}

int Partition::seek(uint64_t address) {
    const auto wanted = static_cast<int64_t>(address);
    if (os::seek(fd_.get(), wanted, SEEK_SET) == wanted) return 0;
    QEL_ERROR_AS(operation_.function, "%sFail to lseek !\n", operation_.prefix);
    return OSA_EFAIL;
}

int Partition::read(uint64_t address, Buffer &page) {
    if (page.data() == nullptr) {
        QEL_ERROR_AS(operation_.function, "%s OSA_memCalloc buf error!!\n", operation_.prefix);
        return OSA_EFAIL;
    }
    if (seek(address) != 0) return OSA_EFAIL;
    if (os::read_full(fd_.get(), page.data(), page.size()) == static_cast<ssize_t>(page.size())) return 0;
    QEL_ERROR_AS(operation_.function, "%sred data failed\n", operation_.prefix);
    return OSA_EFAIL;
}

ssize_t Partition::write(uint64_t address, Buffer &data) {
    if (seek(address) != 0) return OSA_EFAIL;
    return os::write_full(fd_.get(), data.data(), data.size());
}

// What an erase leaves, on a medium that knows no erase.
int Partition::fill_with_erased(uint64_t address) {
    Buffer block(info_.eraseBytes);
    if (block.data() == nullptr) {
        QEL_ERROR_AS(operation_.function, "%s OSA_memCalloc buf error!!\n", operation_.prefix);
        return OSA_EFAIL;
    }
    memset(block.data(), flash::kErasedByte, block.size());
    if (write(address, block) == static_cast<ssize_t>(block.size())) return 0;
    QEL_ERROR_AS(operation_.function, "%s write backUpFLag: %d !!\n", operation_.prefix, flash::kErasedByte);
    return OSA_EFAIL;
}

int Partition::erase(uint32_t block) {
    uint64_t address = 0;
    if (locate(block, &address) != 0) return OSA_EFAIL;
    if (!is_raw()) return fill_with_erased(address);
    os::MtdErase area{static_cast<uint32_t>(address), info_.eraseBytes};
    if (address <= UINT32_MAX && os::ioctl(fd_.get(), os::kMtdErase, &area) >= 0) return 0;
    QEL_ERROR_AS(operation_.function, "%s Flash erase error!, erase_info.start = %x\n", operation_.prefix,
                 area.start);
    return OSA_EFAIL;
}

void log_short_write(const Operation &operation, uint32_t value) {
    if (operation.kind == Kind::kCrc) {
        QEL_ERROR_AS(operation.function, "%s write crc\n", operation.prefix);
    } else {
        QEL_ERROR_AS(operation.function, "%s write backUpFLag: %d !!\n", operation.prefix,
                     static_cast<int>(value));
    }
}

int check_length(const Operation &operation, uint32_t length) {
    if (length <= page_bytes()) return 0;
    if (operation.kind == Kind::kPage) {
        QEL_ERROR_AS(operation.function, "%swrite size %d is to long\n", operation.prefix,
                     static_cast<int>(length));
    } else {
        QEL_ERROR_AS(operation.function, "%ssize=0x%x, rwsize=0x%x\n", operation.prefix, length,
                     page_bytes());
    }
    return OSA_EFAIL;
}

// Opens the partition and reads a page of it.
int load(Place place, Partition &partition, Buffer &page, uint64_t *address) {
    if (partition.open() != 0 || partition.locate(place, address) != 0) return OSA_EFAIL;
    return partition.read(*address, page);
}

int check_erased(const Operation &operation, const Partition &partition, const Buffer &page) {
    if (!partition.is_raw() || page.is_erased()) return 0;
    QEL_ERROR_AS(operation.function, "%s This page cannot be written!\n", operation.prefix);
    return OSA_EFAIL;
}

int store(const Operation &operation, Partition &partition, uint64_t address, Buffer &page, uint32_t shown) {
    if (partition.write(address, page) == static_cast<ssize_t>(page.size())) return 0;
    log_short_write(operation, shown);
    return OSA_EFAIL;
}

int check_byte(const Operation &operation, uint32_t byte) {
    if (byte < page_bytes()) return 0;
    QEL_ERROR_AS(operation.function, "%sno byte %u in a page of %u\n", operation.prefix, byte, page_bytes());
    return OSA_EFAIL;
}

}  // namespace

uint32_t page_bytes() {
    const FlashInfo info = flash::info();
    switch (info.type) {
        case QEL_FLASH_NAND:
        case QEL_FLASH_MLC_NAND:
        case QEL_FLASH_EMMC:
            return info.pageBytes;
        case QEL_FLASH_NOR:
            return kNorPageBytes;
        default:
            return 0;
    }
}

int read_byte(const Operation &operation, Place place, uint32_t byte, uint8_t *out) {
    if (!flash::has_flag_partition()) return 0;
    const flash::Lock lock;
    if (!lock.held() || check_byte(operation, byte) != 0) return OSA_EFAIL;
    Partition partition(operation);
    Buffer page(page_bytes());
    uint64_t address = 0;
    if (load(place, partition, page, &address) != 0) return OSA_EFAIL;
    *out = page.data()[byte];
    QEL_INFO("Read: blkIndex: %x,pageIndex: %x,byteIndex: %x ,fLag: %x\n", place.block, place.page, byte,
             *out);
    return 0;
}

int write_byte(const Operation &operation, Place place, uint32_t byte, uint8_t value) {
    if (!flash::has_flag_partition()) return 0;
    const flash::Lock lock;
    if (!lock.held() || check_byte(operation, byte) != 0) return OSA_EFAIL;
    Partition partition(operation);
    Buffer page(page_bytes());
    uint64_t address = 0;
    if (load(place, partition, page, &address) != 0) return OSA_EFAIL;
    if (page.data()[byte] == value) {
        QEL_INFO("same, backUpFLag=%d\n", value);
        return 0;
    }
    if (check_erased(operation, partition, page) != 0) return OSA_EFAIL;
    page.data()[byte] = value;
    if (store(operation, partition, address, page, value) != 0) return OSA_EFAIL;
    if (partition.read(address, page) != 0) return OSA_EFAIL;
    const uint8_t stored = page.data()[byte];
    QEL_INFO("Write: blkIndex: %x,pageIndex: %x,byteIndex: %x ,fLag: %x\n", place.block, place.page, byte,
             stored);
    return stored == value ? 0 : OSA_EFAIL;
}

int read_start(const Operation &operation, Place place, void *out, uint32_t length) {
    if (!flash::has_flag_partition()) return 0;
    const flash::Lock lock;
    if (!lock.held() || check_length(operation, length) != 0) return OSA_EFAIL;
    Partition partition(operation);
    Buffer page(page_bytes());
    uint64_t address = 0;
    if (load(place, partition, page, &address) != 0) return OSA_EFAIL;
    memcpy(out, page.data(), length);
    return 0;
}

int write_start(const Operation &operation, Place place, const void *bytes, uint32_t length) {
    if (!flash::has_flag_partition()) return 0;
    const flash::Lock lock;
    if (!lock.held() || check_length(operation, length) != 0) return OSA_EFAIL;
    Partition partition(operation);
    Buffer page(page_bytes());
    uint64_t address = 0;
    if (load(place, partition, page, &address) != 0) return OSA_EFAIL;
    if (operation.kind == Kind::kPage && memcmp(page.data(), bytes, length) == 0) {
        QEL_INFO("The same content \n");
        return 0;
    }
    if (check_erased(operation, partition, page) != 0) return OSA_EFAIL;
    memcpy(page.data(), bytes, length);
    return store(operation, partition, address, page, length);
}

int erase(const Operation &operation, uint32_t block) {
    if (!flash::has_flag_partition()) return 0;
    const flash::Lock lock;
    if (!lock.held()) return OSA_EFAIL;
    Partition partition(operation);
    if (partition.open() != 0) return OSA_EFAIL;
    return partition.erase(block);
}

}  // namespace qel::flag_pages
