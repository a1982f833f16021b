#include "storage/partition_writer.h"

#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <span>

#include "frame/log.h"
#include "os/mtd.h"
#include "os/os.h"
#include "storage/flash.h"
#include "storage/upgrade_state.h"

namespace qel::flash {

namespace {

constexpr const char *kFpga = "fpga";
constexpr uint64_t kMaxReadBytes = 1 << 20;    // at once, so that an abort is seen
constexpr uint32_t kEmmcPieceBytes = 1 << 20;  // likewise for writes to a medium without blocks
constexpr uint32_t kEmmcPageBytes = 512;       // its writes start and end there
constexpr unsigned kMaxNewBadBlocks = 8;       // of one request: more are no fault of the blocks

unsigned long long shown(uint64_t number) { return number; }

uint64_t round_up(uint64_t bytes, uint32_t unit) { return (bytes + unit - 1) / unit * unit; }

class Buffer {
public:
    explicit Buffer(uint32_t bytes) : data_(static_cast<uint8_t *>(OSA_memAlloc(bytes))) {}
    ~Buffer() {
        if (data_ != nullptr) OSA_memFree(data_);
    }
    Buffer(const Buffer &) = delete;
    Buffer &operator=(const Buffer &) = delete;
    uint8_t *data() const { return data_; }

private:
    uint8_t *data_;
};

// What came of one piece of a request.
enum class Outcome {
    kDone,
    kBadBlock,  // the block is to blame
    kFailed,
};

// The partition of one request, open for as long as the flash lock is held.
class Partition {
public:
    Partition(const Job &job, int index) : job_(job), index_(index), info_(info()) {}

    int open();
    bool is_emmc() const { return flash::is_emmc(info_); }
    uint32_t erase_bytes() const { return info_.eraseBytes; }
    // Where writes may start and end; NOR is written byte by byte.
    uint32_t write_start_bytes() const { return is_emmc() ? kEmmcPageBytes : info_.eraseBytes; }
    uint32_t write_end_bytes() const;
    // What a write works on at a time.
    uint32_t piece_bytes() const { return is_emmc() ? kEmmcPieceBytes : info_.eraseBytes; }
    uint64_t size() const { return entry_.size; }
    // What the good blocks hold.
    uint64_t capacity() const;
    bool fits(uint64_t offset, uint64_t bytes) const { return is_within(offset, bytes, capacity()); }
    bool is_inside(uint64_t offset, uint64_t bytes) const { return is_within(offset, bytes, size()); }
    bool starts_right(uint64_t offset, uint32_t unit) const;

    int read(uint64_t offset, uint8_t *buffer, uint64_t bytes);
    Outcome erase(uint64_t offset);
    // `scratch`: room for a piece and a page.
    Outcome write(uint64_t offset, std::span<const uint8_t> data, uint8_t *scratch);
    Outcome fill_with_erased(uint64_t offset, const uint8_t *erased, uint32_t bytes);
    // Marks the block at `offset` bad: the next good one, if there is one, stands there then. 0 or -1.
    int condemn(uint64_t offset);

private:
    bool is_within(uint64_t offset, uint64_t bytes, uint64_t room) const;
    int locate(uint64_t offset, uint64_t *physical);
    // How many bytes from `offset` on lie side by side on the medium, at most `bytes`.
    uint64_t run_bytes(uint64_t offset, uint64_t physical, uint64_t bytes);
    int seek(uint64_t physical);
    Outcome failed(const char *what, uint64_t physical, ssize_t status);
    Outcome erase_block(uint64_t physical);
    Outcome verify(uint64_t physical, std::span<const uint8_t> whole, std::span<const uint8_t> tail,
                   uint8_t *scratch);

    const Job &job_;
    const int index_;
    const FlashInfo info_;
    FlashPartition entry_{};
    int fd_ = -1;
    bool maps_blocks_ = false;
    unsigned new_bad_blocks_ = 0;
};

int Partition::open() {
    if (!partition(index_, &entry_)) {
        QEL_ERROR_AS(job_.function, "no partition %d\n", index_);
        return OSA_EFAIL;
    }
    const uint32_t unit = write_end_bytes();
    if (info_.eraseBytes == 0 || unit == 0 || info_.eraseBytes % unit != 0) {
        QEL_ERROR_AS(job_.function, "no flash to work on\n");
        return OSA_EFAIL;
    }
    fd_ = shared_descriptor(index_);
    if (fd_ < 0) {
        char path[kDevicePathBytes];
        device_path(info_, index_, path);
        QEL_ERROR_AS(job_.function, "open %s\n", path);
        return OSA_EFAIL;
    }
    maps_blocks_ = is_raw_nand(info_) && strcmp(entry_.name, kFpga) != 0;
    return maps_blocks_ ? create_good_blocks(fd_, index_) : 0;
}

uint32_t Partition::write_end_bytes() const {
    if (is_emmc()) return kEmmcPageBytes;
    return info_.type == QEL_FLASH_NOR ? 1 : info_.pageBytes;
}

uint64_t Partition::capacity() const {
    if (maps_blocks_) return uint64_t{good_block_count(index_)} * info_.eraseBytes;
    return is_emmc() ? entry_.size : entry_.size - entry_.size % info_.eraseBytes;
}

bool Partition::is_within(uint64_t offset, uint64_t bytes, uint64_t room) const {
    if (bytes <= room && offset <= room - bytes) return true;
    QEL_ERROR_AS(job_.function, "0x%llx bytes at 0x%llx do not fit into %s, which holds 0x%llx\n",
                 shown(bytes), shown(offset), entry_.name, shown(room));
    return false;
}

bool Partition::starts_right(uint64_t offset, uint32_t unit) const {
    if (offset % unit == 0) return true;
    QEL_ERROR_AS(job_.function, "0x%llx in %s is no multiple of 0x%x\n", shown(offset), entry_.name, unit);
    return false;
}

int Partition::locate(uint64_t offset, uint64_t *physical) {
    const uint64_t in_block = maps_blocks_ ? offset % info_.eraseBytes : 0;
    if (!maps_blocks_) {
        *physical = offset;
        return 0;
    }
    if (look_up(offset - in_block, physical, index_) != 0) return OSA_EFAIL;
    *physical += in_block;
    return 0;
}

uint64_t Partition::run_bytes(uint64_t offset, uint64_t physical, uint64_t bytes) {
    if (!maps_blocks_) return bytes;
    uint64_t run = info_.eraseBytes - offset % info_.eraseBytes;
    uint64_t next = 0;
    while (run < bytes && locate(offset + run, &next) == 0 && next == physical + run) run += info_.eraseBytes;
    return std::min(run, bytes);
}

int Partition::seek(uint64_t physical) {
    const auto wanted = static_cast<int64_t>(physical);
    if (os::seek(fd_, wanted, SEEK_SET) == wanted) return 0;
    QEL_ERROR_AS(job_.function, "Fail to lseek !\n");
    return OSA_EFAIL;
}

int Partition::read(uint64_t offset, uint8_t *buffer, uint64_t bytes) {
    while (bytes > 0) {
        uint64_t physical = 0;
        if (locate(offset, &physical) != 0 || seek(physical) != 0) return OSA_EFAIL;
        const auto run = static_cast<size_t>(run_bytes(offset, physical, bytes));
        const ssize_t got = os::read_full(fd_, buffer, run);
        if (got != static_cast<ssize_t>(run)) {
            failed("read", physical, got);
            return OSA_EFAIL;
        }
        offset += run;
        buffer += run;
        bytes -= run;
    }
    return 0;
}

// A block is to blame for what the medium answers itself, not for a driver that refuses.
Outcome Partition::failed(const char *what, uint64_t physical, ssize_t status) {
    QEL_ERROR_AS(job_.function, "%s of %s at 0x%llx failed: %d\n", what, entry_.name, shown(physical),
                 static_cast<int>(status));
    return maps_blocks_ && (status == -EIO || status == -EBADMSG) ? Outcome::kBadBlock : Outcome::kFailed;
}

Outcome Partition::erase_block(uint64_t physical) {
    os::MtdErase area{static_cast<uint32_t>(physical), info_.eraseBytes};
    const int status = physical <= UINT32_MAX ? os::ioctl(fd_, os::kMtdErase, &area) : -EFBIG;
    return status >= 0 ? Outcome::kDone : failed("erase", physical, status);
}

Outcome Partition::erase(uint64_t offset) {
    uint64_t physical = 0;
    return locate(offset, &physical) == 0 ? erase_block(physical) : Outcome::kFailed;
}

Outcome Partition::fill_with_erased(uint64_t offset, const uint8_t *erased, uint32_t bytes) {
    if (seek(offset) != 0) return Outcome::kFailed;
    const ssize_t status = os::write_full(fd_, erased, bytes);
    return status == static_cast<ssize_t>(bytes) ? Outcome::kDone : failed("write", offset, status);
}

Outcome Partition::verify(uint64_t physical, std::span<const uint8_t> whole, std::span<const uint8_t> tail,
                          uint8_t *scratch) {
    const size_t bytes = whole.size() + tail.size();
    if (seek(physical) != 0) return Outcome::kFailed;
    const ssize_t got = os::read_full(fd_, scratch, bytes);
    if (got < 0) return failed("read", physical, got);
    if (got == static_cast<ssize_t>(bytes) && std::ranges::equal(whole, std::span(scratch, whole.size())) &&
        std::ranges::equal(tail, std::span(scratch + whole.size(), tail.size()))) {
        return Outcome::kDone;
    }
    return failed("verification", physical, -EIO);
}

// Whole pages go straight from the caller's memory, the last one is filled up with erased bytes.
Outcome Partition::write(uint64_t offset, std::span<const uint8_t> data, uint8_t *scratch) {
    uint64_t physical = 0;
    if (locate(offset, &physical) != 0) return Outcome::kFailed;
    if (!is_emmc()) {
        const Outcome erased = erase_block(physical);
        if (erased != Outcome::kDone) return erased;
    }
    const uint32_t page = write_end_bytes();
    const auto whole = data.first(data.size() - data.size() % page);
    const auto rest = data.subspan(whole.size());
    std::span<uint8_t> tail(scratch + piece_bytes(), rest.empty() ? 0 : page);
    std::ranges::fill(tail, kErasedByte);
    std::ranges::copy(rest, tail.begin());
    if (seek(physical) != 0) return Outcome::kFailed;
    ssize_t status = whole.empty() ? 0 : os::write_full(fd_, whole.data(), whole.size());
    if (status >= 0 && !tail.empty()) status = os::write_full(fd_, tail.data(), tail.size());
    return status < 0 ? failed("write", physical, status) : verify(physical, whole, tail, scratch);
}

int Partition::condemn(uint64_t offset) {
    uint64_t physical = 0;
    if (locate(offset, &physical) != 0) return OSA_EFAIL;
    if (++new_bad_blocks_ > kMaxNewBadBlocks) {
        QEL_ERROR_AS(job_.function, "%u blocks of %s failed, it is given up\n", new_bad_blocks_, entry_.name);
        return OSA_EFAIL;
    }
    auto argument = static_cast<int64_t>(physical);
    const int status = os::ioctl(fd_, os::kMtdSetBadBlock, &argument);
    if (status < 0) {
        QEL_ERROR_AS(job_.function, "MEMSETBADBLOCK of %s at 0x%llx failed: %d\n", entry_.name,
                     shown(physical), status);
        return OSA_EFAIL;
    }
    QEL_WARN_AS(job_.function, "block of %s at 0x%llx is marked bad, what lies behind moves by one\n",
                entry_.name, shown(physical));
    return rebuild_good_blocks(fd_, index_);
}

bool goes_on(const Job &job) {
    if (!job.requests.is_aborted()) return true;
    QEL_WARN_AS(job.function, "aborted\n");
    return false;
}

void tell(const Job &job, uint64_t done, uint64_t total) {
    if (job.info.progress != nullptr) job.info.progress(job.info.progressContext, done, total);
}

}  // namespace

int find_place(const char *function, uint64_t address, Place *out) {
    int found = -1;
    int fpga = -1;
    FlashPartition best{};
    FlashPartition entry;
    for (int index = 0; partition(index, &entry); ++index) {
        if (strcmp(entry.name, kFpga) == 0) {
            fpga = index;
            continue;
        }
        const bool holds = address >= entry.offset && address - entry.offset < entry.size;
        if (!holds || (found >= 0 && best.size <= entry.size)) continue;
        found = index;
        best = entry;
    }
    if (found >= 0) {
        *out = {found, address - best.offset};
        return 0;
    }
    if (fpga >= 0 && address >= fpga_start()) {
        *out = {fpga, address - fpga_start()};
        return 0;
    }
    QEL_ERROR_AS(function, "no partition at 0x%llx\n", shown(address));
    return OSA_EFAIL;
}

int read_flash(const Job &job, Place place, void *buffer, uint32_t bytes) {
    const Lock lock;
    Partition partition(job, place.partition);
    if (!lock.held() || partition.open() != 0 || !partition.fits(place.offset, bytes)) return OSA_EFAIL;
    auto *const out = static_cast<uint8_t *>(buffer);
    for (uint64_t done = 0; done < bytes;) {
        if (!goes_on(job)) return OSA_EFAIL;
        const uint64_t piece = std::min<uint64_t>(kMaxReadBytes, bytes - done);
        if (partition.read(place.offset + done, out + done, piece) != 0) return OSA_EFAIL;
        done += piece;
        tell(job, done, bytes);
    }
    return 0;
}

namespace {

int erase_blocks(const Job &job, Partition &partition, uint64_t start, uint64_t end) {
    const uint32_t block = partition.erase_bytes();
    for (uint64_t at = start; at < end;) {
        if (!goes_on(job)) return OSA_EFAIL;
        const Outcome outcome = partition.erase(at);
        if (outcome == Outcome::kFailed) return OSA_EFAIL;
        if (outcome == Outcome::kBadBlock) {
            if (partition.condemn(at) != 0) return OSA_EFAIL;
            end -= block;  // the blocks behind it have moved up
            continue;
        }
        at += block;
        tell(job, at - start, end - start);
    }
    return 0;
}

int overwrite_with_erased(const Job &job, Partition &partition, uint64_t start, uint64_t end) {
    const Buffer erased(kEmmcPieceBytes);
    if (erased.data() == nullptr) {
        QEL_ERROR_AS(job.function, "OSA_memAlloc failed !\n");
        return OSA_EFAIL;
    }
    memset(erased.data(), kErasedByte, kEmmcPieceBytes);
    for (uint64_t at = start; at < end;) {
        if (!goes_on(job)) return OSA_EFAIL;
        const auto piece = static_cast<uint32_t>(std::min<uint64_t>(kEmmcPieceBytes, end - at));
        if (partition.fill_with_erased(at, erased.data(), piece) != Outcome::kDone) return OSA_EFAIL;
        at += piece;
        tell(job, at - start, end - start);
    }
    return 0;
}

}  // namespace

int erase_flash(const Job &job, Place place, uint64_t bytes) {
    const Lock lock;
    Partition partition(job, place.partition);
    if (!lock.held() || partition.open() != 0) return OSA_EFAIL;
    if (!partition.is_inside(place.offset, bytes) ||
        !partition.starts_right(place.offset, partition.write_start_bytes())) {
        return OSA_EFAIL;
    }
    const uint64_t end = place.offset + bytes;
    if (partition.is_emmc()) {
        if (end != partition.size() && !partition.starts_right(end, kEmmcPageBytes)) return OSA_EFAIL;
        return overwrite_with_erased(job, partition, place.offset, end);
    }
    if (!partition.starts_right(end, partition.erase_bytes())) return OSA_EFAIL;
    return erase_blocks(job, partition, place.offset, std::min(end, partition.capacity()));
}

namespace {

int write_pieces(const Job &job, Partition &partition, uint64_t offset, std::span<const uint8_t> data,
                 uint64_t following) {
    const Buffer scratch(partition.piece_bytes() + partition.write_end_bytes());
    if (scratch.data() == nullptr) {
        QEL_ERROR_AS(job.function, "OSA_memAlloc failed !\n");
        return OSA_EFAIL;
    }
    for (size_t done = 0; done < data.size();) {
        if (!goes_on(job)) return OSA_EFAIL;
        const auto rest = data.subspan(done, std::min<size_t>(partition.piece_bytes(), data.size() - done));
        const Outcome outcome = partition.write(offset + done, rest, scratch.data());
        if (outcome == Outcome::kFailed) return OSA_EFAIL;
        if (outcome == Outcome::kBadBlock) {
            if (partition.condemn(offset + done) != 0 ||
                !partition.fits(offset + done, data.size() - done + following)) {
                return OSA_EFAIL;
            }
            continue;
        }
        done += rest.size();
        tell(job, done, data.size());
    }
    return 0;
}

}  // namespace

int write_flash(const Job &job, Place place, const void *data, uint32_t bytes, uint64_t following) {
    const Lock lock;
    Partition partition(job, place.partition);
    if (!lock.held() || partition.open() != 0) return OSA_EFAIL;
    if (!partition.starts_right(place.offset, partition.write_start_bytes())) return OSA_EFAIL;
    // On eMMC the padding has to fit as well.
    const uint64_t padded = partition.is_emmc() ? round_up(bytes, kEmmcPageBytes) : bytes;
    if (following > UINT64_MAX - padded || !partition.fits(place.offset, padded + following))
        return OSA_EFAIL;
    if (upgrade_state::check_upgrade_allowed() != 0 ||
        upgrade_state::mark_write(place.partition, bytes) != 0) {
        return OSA_EFAIL;
    }
    return write_pieces(job, partition, place.offset, {static_cast<const uint8_t *>(data), bytes}, following);
}

}  // namespace qel::flash
