#include "tests/storage/flash_double.h"

#include <algorithm>
#include <cstring>
#include <set>

#include "board/core/chip.h"
#include "board/core/device.h"
#include "board/model/records.h"

namespace qel::test {

namespace {

using namespace qel::board;

constexpr uint32_t kGetPartitions32 = 0xC0045800;
constexpr uint32_t kGetFpgaStart = 0xC0045801;
constexpr uint32_t kGetTotal = 0xC0045802;
constexpr uint32_t kGetCanSwitch = 0xC0045805;
constexpr uint32_t kGetPartitions64 = 0xC0045806;
constexpr uint32_t kGetInfo = 0x80204D01;
constexpr uint32_t kErase = 0x40084D02;
constexpr uint32_t kGetBadBlock = 0x40084D0B;
constexpr int kNor = 3, kEmmc = 5;

struct PartitionArgument {
    uint32_t count;
    void *records;
};

bool pack_partitions(const void *argument, Buffer &in) {
    PartitionArgument record;
    memcpy(&record, argument, sizeof record);
    in.assign(1, record.records != nullptr ? 1 : 0);
    return true;
}

bool unpack_partitions(void *argument, Bytes out) {
    PartitionArgument record;
    memcpy(&record, argument, sizeof record);
    record.count = get_u32(out, 0);
    if (record.records != nullptr) memcpy(record.records, out.data() + 4, out.size() - 4);
    memcpy(argument, &record, sizeof record);
    return true;
}

constexpr RequestSpec kRequests[] = {
    {kGetPartitions32, "GET_PARTITIONS32", 0, 0, pack_partitions, unpack_partitions},
    {kGetPartitions64, "GET_PARTITIONS64", 0, 0, pack_partitions, unpack_partitions},
    {kGetFpgaStart, "GET_FPGA_START", 0, 4},
    {kGetTotal, "GET_TOTAL", 0, 8},
    {kGetCanSwitch, "GET_CAN_SWITCH", 0, 4},
    {kGetInfo, "MEMGETINFO", 0, 32},
    {kErase, "MEMERASE", 8, 0},
    {kGetBadBlock, "MEMGETBADBLOCK", 8, 0},
};

struct Partition {
    std::string name;
    uint64_t size, offset, backup;
    uint32_t type;
    std::set<uint64_t> bad;
};

struct Flash {
    int type;
    uint32_t erase, page;
    bool know64;
    int64_t can_switch, fpga_start, claims;
    std::vector<Partition> partitions;
};

class PartitionDriver final : public Device {
public:
    PartitionDriver(Chip &chip, Flash flash) : Device(chip), flash_(std::move(flash)) {}

    Answer ioctl(Handle &, uint32_t request, Bytes in) override {
        switch (request) {
            case kGetPartitions32:
                return partitions(in, 48);
            case kGetPartitions64:
                return flash_.know64 ? partitions(in, 56) : Answer::fail(ENOTTY);
            case kGetFpgaStart:
                return number(flash_.fpga_start);
            case kGetTotal:
                return Answer::ok(0, Buffer(8, 1));
            case kGetCanSwitch:
                return number(flash_.can_switch);
            default:
                return Answer::fail(ENOTTY);
        }
    }

private:
    static Answer number(int64_t value) {
        return value < 0 ? Answer::fail(EIO) : Answer::ok(0, u32_record(static_cast<uint32_t>(value)));
    }

    Answer partitions(Bytes in, size_t record_bytes) {
        Buffer out = u32_record(static_cast<uint32_t>(flash_.claims));
        if (in[0] == 0) return Answer::ok(0, out);
        for (const Partition &partition : flash_.partitions) {
            Buffer record(record_bytes);
            memcpy(record.data(), partition.name.data(), std::min<size_t>(16, partition.name.size()));
            if (record_bytes == 48) {
                put_u32(record, 16, static_cast<uint32_t>(partition.size));
                put_u32(record, 20, static_cast<uint32_t>(partition.offset));
                put_u32(record, 24, partition.type);
                put_u32(record, 28, static_cast<uint32_t>(partition.backup));
            } else {
                put_u64(record, 16, partition.size);
                put_u64(record, 24, partition.offset);
                put_u64(record, 32, partition.type);
                put_u64(record, 40, partition.backup);
            }
            out.insert(out.end(), record.begin(), record.end());
        }
        return Answer::ok(0, out);
    }

    Flash flash_;
};

class Medium final : public Device {
public:
    Medium(Chip &chip, const Flash &flash, const Partition &partition)
        : Device(chip), flash_(flash), partition_(partition), bytes_(partition.size, 0xFF) {}

    Answer seek(Handle &handle, int64_t offset, int whence) override {
        if (whence == SEEK_END) offset += static_cast<int64_t>(bytes_.size());
        if (offset < 0 || whence == SEEK_CUR) return Answer::fail(EINVAL);
        handle.position = offset;
        return Answer::ok(offset);
    }

    Answer read(Handle &handle, uint32_t wanted) override {
        const auto at = std::min<uint64_t>(static_cast<uint64_t>(handle.position), bytes_.size());
        const uint64_t count = std::min<uint64_t>(wanted, bytes_.size() - at);
        handle.position += static_cast<int64_t>(count);
        return Answer::ok(static_cast<int64_t>(count),
                          Buffer(bytes_.begin() + static_cast<ptrdiff_t>(at),
                                 bytes_.begin() + static_cast<ptrdiff_t>(at + count)));
    }

    Answer write(Handle &handle, Bytes data) override {
        const auto at = static_cast<uint64_t>(handle.position);
        if (at + data.size() > bytes_.size()) return Answer::fail(ENOSPC);
        const bool pages = flash_.type != kNor && flash_.type != kEmmc;
        if (pages && (at % flash_.page != 0 || data.size() % flash_.page != 0)) return Answer::fail(EINVAL);
        if (partition_.bad.contains(at / flash_.erase)) chip().report_misuse(*this, "write into a bad block");
        for (size_t i = 0; i < data.size(); ++i) {
            uint8_t &byte = bytes_[at + i];
            if (pages && byte != 0xFF) chip().report_misuse(*this, "write into a written page");
            byte = flash_.type == kEmmc ? data[i] : byte & data[i];
        }
        handle.position += static_cast<int64_t>(data.size());
        return Answer::ok(static_cast<int64_t>(data.size()));
    }

    Answer ioctl(Handle &, uint32_t request, Bytes in) override {
        if (flash_.type == kEmmc) return Answer::fail(ENOTTY);
        if (request == kGetInfo) return Answer::ok(0, info());
        if (request == kErase) return erase(get_u32(in, 0), get_u32(in, 4));
        if (request != kGetBadBlock || flash_.type == kNor) return Answer::fail(ENOTTY);
        return Answer::ok(partition_.bad.contains(get_u32(in, 0) / flash_.erase) ? 1 : 0);
    }

    Answer poke(const std::vector<std::string> &words) override {
        const auto at = std::stoull(words.at(1), nullptr, 0);
        if (words[0] == "set") bytes_.at(at) = static_cast<uint8_t>(std::stoul(words.at(2), nullptr, 0));
        return Answer::ok(bytes_.at(at));
    }

private:
    Buffer info() const {
        Buffer out(32);
        out[0] = static_cast<uint8_t>(flash_.type);
        put_u32(out, 8, static_cast<uint32_t>(bytes_.size()));
        put_u32(out, 12, flash_.erase);
        put_u32(out, 16, flash_.page);
        return out;
    }

    Answer erase(uint64_t start, uint64_t length) {
        if (start % flash_.erase != 0 || length % flash_.erase != 0 || start + length > bytes_.size()) {
            return Answer::fail(EINVAL);
        }
        if (partition_.bad.contains(start / flash_.erase)) return Answer::fail(EIO);
        std::fill_n(bytes_.begin() + static_cast<ptrdiff_t>(start), length, uint8_t{0xFF});
        return Answer::ok();
    }

    Flash flash_;
    Partition partition_;
    Buffer bytes_;
};

Partition read_partition(const Description &table, uint64_t next_offset) {
    Partition partition;
    partition.name = table.required_text("name");
    partition.size = static_cast<uint64_t>(table.number("size", 0, INT64_MAX, 0x10000));
    partition.offset =
        static_cast<uint64_t>(table.number("offset", 0, INT64_MAX, static_cast<int64_t>(next_offset)));
    partition.backup = static_cast<uint64_t>(table.number("backup", 0, INT64_MAX, -1));
    partition.type = static_cast<uint32_t>(table.number("type", 0, UINT32_MAX, 0));
    for (const int64_t block : table.numbers("bad", 0, INT64_MAX))
        partition.bad.insert(static_cast<uint64_t>(block));
    return partition;
}

void build(Chip &chip, const Description &table) {
    Flash flash;
    flash.type = static_cast<int>(table.number("type", 0, 255, 4));
    flash.erase = static_cast<uint32_t>(table.number("erase", 0, UINT32_MAX, 0x4000));
    flash.page = static_cast<uint32_t>(table.number("page", 0, UINT32_MAX, 0x200));
    flash.know64 = table.flag("know64", true);
    flash.can_switch = table.number("can_switch", -1, UINT32_MAX, 0);
    flash.fpga_start = table.number("fpga_start", -1, UINT32_MAX, 0x3000000);
    uint64_t next = 0;
    for (const Description &partition : table.tables("partition")) {
        flash.partitions.push_back(read_partition(partition, next));
        next = flash.partitions.back().offset + flash.partitions.back().size;
    }
    flash.claims = table.number("claims", 0, UINT32_MAX, static_cast<int64_t>(flash.partitions.size()));
    for (size_t i = 0; i < flash.partitions.size(); ++i) {
        const std::string node =
            flash.type == kEmmc ? "/dev/mmcblk0p" + std::to_string(i + 1) : "/dev/mtd/" + std::to_string(i);
        chip.add(node, std::make_unique<Medium>(chip, flash, flash.partitions[i]));
    }
    chip.add("/dev/qecPartion", std::make_unique<PartitionDriver>(chip, flash));
}

constexpr DeviceClass kClass = {"test_flash", "flash of the tests", kRequests, build};

}  // namespace

void add_flash_double() { add_device_class(kClass); }

}  // namespace qel::test
