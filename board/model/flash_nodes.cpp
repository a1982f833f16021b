// flash_nodes.cpp - "/dev/mtd/0", "1" ... of raw flash, "/dev/mmcblk0p1", "2" ... of an eMMC: one node per
// partition, with the kernel's answers.
//
// The test's face of a partition, without any driver and its rules: "read OFFSET BYTES" answers the
// bytes, "write OFFSET HEX" puts some, "bad BLOCK", "failing BLOCK" (the next erase or write of it
// fails) and "good BLOCK" say how a block fares, "erases BLOCK" answers how often it was erased.
// Offsets and blocks count from the start of the partition.
#include "board/model/flash_nodes.h"

#include <fcntl.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>

#include "board/core/errors.h"
#include "board/model/records.h"
#include "board/model/words.h"

namespace qel::board {

namespace {

constexpr uint32_t kMemGetInfo = 0x80204D01;
constexpr uint32_t kMemErase = 0x40084D02;
constexpr uint32_t kMemGetBadBlock = 0x40084D0B;
constexpr uint32_t kMemSetBadBlock = 0x40084D0C;

// Of mtd_info.
constexpr size_t kInfoBytes = 32;
constexpr uint32_t kWriteable = 0x400;
constexpr uint32_t kBitWriteable = 0x800;

constexpr uint32_t kMostPokedBytes = 1 << 20;

bool may_read(const Handle &handle) { return (handle.flags & O_ACCMODE) != O_WRONLY; }
bool may_write(const Handle &handle) { return (handle.flags & O_ACCMODE) != O_RDONLY; }

// What partitions of every medium have in common.
class PartitionNode : public Device {
public:
    PartitionNode(Chip &chip, std::shared_ptr<Flash> flash, size_t index)
        : Device(chip), flash_(std::move(flash)), partition_(flash_->partitions()[index]) {}
    Answer read(Handle &handle, uint32_t bytes) override;
    Answer write(Handle &handle, Bytes bytes) override;
    Answer seek(Handle &handle, int64_t offset, int whence) override;
    Answer poke(const std::vector<std::string> &words) override;

protected:
    Flash &flash() { return *flash_; }
    const Flash &flash() const { return *flash_; }
    const FlashPartition &partition() const { return partition_; }
    bool holds(uint64_t offset, uint64_t bytes) const {
        return offset <= partition_.size && bytes <= partition_.size - offset;
    }
    // Whether a write of so many bytes may start there.
    virtual bool fits_pages(uint64_t /*offset*/, size_t /*bytes*/) const { return true; }

private:
    Answer content(uint64_t offset, uint32_t bytes) const;
    Answer poke_block(const std::string &verb, uint64_t block);

    std::shared_ptr<Flash> flash_;
    const FlashPartition &partition_;
};

Answer PartitionNode::content(uint64_t offset, uint32_t bytes) const {
    Buffer out(bytes);
    const int result = flash_->read(partition_.offset + offset, out);
    return result == 0 ? Answer::ok(int64_t{bytes}, std::move(out)) : Answer::fail(-result);
}

Answer PartitionNode::read(Handle &handle, uint32_t bytes) {
    if (!may_read(handle)) return Answer::fail(EBADF);
    const auto offset = static_cast<uint64_t>(handle.position);
    const auto count = static_cast<uint32_t>(std::min<uint64_t>(bytes, partition_.size - offset));
    Answer answer = content(offset, count);
    if (answer.value > 0) handle.position += answer.value;
    return answer;
}

Answer PartitionNode::write(Handle &handle, Bytes bytes) {
    if (!may_write(handle)) return Answer::fail(EBADF);
    const auto offset = static_cast<uint64_t>(handle.position);
    if (bytes.empty()) return Answer::ok();
    if (offset == partition_.size) return Answer::fail(ENOSPC);
    bytes = bytes.first(static_cast<size_t>(std::min<uint64_t>(bytes.size(), partition_.size - offset)));
    if (!fits_pages(offset, bytes.size())) return Answer::fail(EINVAL);
    const int result = flash_->write(*this, partition_.offset + offset, bytes);
    if (result != 0) return Answer::fail(-result);
    handle.position += static_cast<int64_t>(bytes.size());
    return Answer::ok(static_cast<int64_t>(bytes.size()));
}

Answer PartitionNode::seek(Handle &handle, int64_t offset, int whence) {
    const auto size = static_cast<int64_t>(partition_.size);
    const int64_t base = whence == SEEK_END ? size : whence == SEEK_CUR ? handle.position : 0;
    if (whence != SEEK_SET && whence != SEEK_CUR && whence != SEEK_END) return Answer::fail(EINVAL);
    if (offset < -base || offset > size - base) return Answer::fail(EINVAL);
    handle.position = base + offset;
    return Answer::ok(handle.position);
}

// ---- raw flash ----

class Mtd final : public PartitionNode {
public:
    using PartitionNode::PartitionNode;
    Answer ioctl(Handle &handle, uint32_t request, Bytes in) override;

private:
    bool fits_pages(uint64_t offset, size_t bytes) const override {
        const uint32_t page = flash().geometry().page_bytes;
        return !flash().is_nand() || (offset % page == 0 && bytes % page == 0);
    }
    Answer info() const;
    Answer erase(uint64_t start, uint64_t bytes);
    Answer bad_block(uint32_t request, uint64_t offset);
};

Answer Mtd::ioctl(Handle &handle, uint32_t request, Bytes in) {
    switch (request) {
        case kMemGetInfo:
            return info();
        case kMemErase:
            return may_write(handle) ? erase(get_u32(in, 0), get_u32(in, 4)) : Answer::fail(EPERM);
        case kMemSetBadBlock:
            if (!may_write(handle)) return Answer::fail(EPERM);
            [[fallthrough]];
        case kMemGetBadBlock:
            return bad_block(request, get_u32(in, 0) | uint64_t{get_u32(in, 4)} << 32);
        default:
            return Answer::fail(ENOTTY);
    }
}

Answer Mtd::info() const {
    const Flash::Geometry &geometry = flash().geometry();
    Buffer out(kInfoBytes);
    out[0] = static_cast<uint8_t>(geometry.kind);
    put_u32(out, 4, flash().is_nand() ? kWriteable : kWriteable | kBitWriteable);
    put_u32(out, 8, static_cast<uint32_t>(partition().size));
    put_u32(out, 12, geometry.erase_bytes);
    put_u32(out, 16, flash().is_nand() ? geometry.page_bytes : 1);
    put_u32(out, 20, geometry.oob_bytes);
    return Answer::ok(0, std::move(out));
}

Answer Mtd::erase(uint64_t start, uint64_t bytes) {
    const uint32_t block = flash().geometry().erase_bytes;
    if (start >= partition().size || !holds(start, bytes)) return Answer::fail(EINVAL);
    if (start % block != 0 || bytes % block != 0) return Answer::fail(EINVAL);
    const int result = flash().erase(*this, partition().offset + start, bytes);
    return result == 0 ? Answer::ok() : Answer::fail(-result);
}

Answer Mtd::bad_block(uint32_t request, uint64_t offset) {
    if (offset >= partition().size) return Answer::fail(EINVAL);  // a negative one too
    const bool marks = request == kMemSetBadBlock;
    if (!flash().is_nand()) return marks ? Answer::fail(EOPNOTSUPP) : Answer::ok();
    if (!marks) return Answer::ok(flash().is_bad(partition().offset + offset) ? 1 : 0);
    const int result = flash().mark_bad(*this, partition().offset + offset);
    return result == 0 ? Answer::ok() : Answer::fail(-result);
}

// ---- eMMC: a block device with nothing of its own ----

class Emmc final : public PartitionNode {
public:
    using PartitionNode::PartitionNode;
};

// ---- for tests ----

Answer PartitionNode::poke_block(const std::string &verb, uint64_t block) {
    const uint64_t erase_bytes = flash_->geometry().erase_bytes;
    if (flash_->is_emmc() || block >= partition_.size / erase_bytes) return Answer::fail(EINVAL);
    const uint64_t at = partition_.offset + block * erase_bytes;
    if (verb == "erases") return Answer::ok(flash_->erases(flash_->block_of(at)));
    if (verb != "bad" && verb != "failing" && verb != "good") return Answer::fail(EINVAL);
    flash_->set_mark(at, Flash::kBad, verb == "bad");
    flash_->set_mark(at, Flash::kFailing, verb == "failing");
    return Answer::ok();
}

Answer PartitionNode::poke(const std::vector<std::string> &words) {
    uint64_t number = 0;
    uint32_t bytes = 0;
    if (words.size() < 2 || !parse_number(words[1], number)) return Answer::fail(EINVAL);
    if (words.size() == 2) return poke_block(words[0], number);
    if (words.size() != 3) return Answer::fail(EINVAL);
    if (words[0] == "read" && parse_number(words[2], bytes) && bytes <= kMostPokedBytes &&
        holds(number, bytes))
        return content(number, bytes);
    Buffer data;
    if (words[0] != "write" || !parse_hex(words[2], data) || !holds(number, data.size()))
        return Answer::fail(EINVAL);
    const int result = flash_->put(partition_.offset + number, data);
    return result == 0 ? Answer::ok() : Answer::fail(-result);
}

}  // namespace

std::unique_ptr<Device> make_mtd(Chip &chip, std::shared_ptr<Flash> flash, size_t index) {
    return std::make_unique<Mtd>(chip, std::move(flash), index);
}

std::unique_ptr<Device> make_emmc(Chip &chip, std::shared_ptr<Flash> flash, size_t index) {
    return std::make_unique<Emmc>(chip, std::move(flash), index);
}

}  // namespace qel::board
