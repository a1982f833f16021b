// partition.cpp - "/dev/qecPartion": the partition driver of a board, and the board's whole flash.
//
// The driver knows the partitions in two record layouts; an old one knows the 32-bit layout only. Its
// argument is a count and a pointer: NULL asks for the count alone, else at most so many records are
// filled in.
#include <algorithm>
#include <cstring>

#include "board/model/flash_map.h"
#include "board/model/flash_nodes.h"
#include "board/model/records.h"

namespace qel::board {

namespace {

constexpr const char *kNode = "/dev/qecPartion";

constexpr uint32_t kGetPartitions32 = 0xC0045800;
constexpr uint32_t kGetFpgaStart = 0xC0045801;
constexpr uint32_t kGetTotalBytes = 0xC0045802;
constexpr uint32_t kGetCanSwitch = 0xC0045805;
constexpr uint32_t kGetPartitions64 = 0xC0045806;

constexpr size_t kNameBytes = 16;
constexpr size_t kRecord32Bytes = 48;
constexpr size_t kRecord64Bytes = 56;
constexpr size_t kMostPartitions = 64;

// ---- records ----

struct PartitionArgument {
    uint32_t count;
    void *records;
};
static_assert(sizeof(void *) != 4 || sizeof(PartitionArgument) == 8);

// Over: how many records the process has room for. Back: how many partitions there are, the records.
bool pack_room(const void *argument, Buffer &in) {
    if (argument == nullptr) return false;
    PartitionArgument room;
    memcpy(&room, argument, sizeof room);
    in = u32_record(room.records != nullptr ? std::min<uint32_t>(room.count, kMostPartitions) : 0);
    return true;
}

template <size_t kRecordBytes>
bool unpack_records(void *argument, Bytes out) {
    if (out.size() < 4) return true;  // cut short by a fault: the process sees what it had
    PartitionArgument room;
    memcpy(&room, argument, sizeof room);
    const Bytes records = out.subspan(4);
    if (room.records != nullptr) {
        const size_t most = std::min<size_t>(room.count, kMostPartitions) * kRecordBytes;
        memcpy(room.records, records.data(), std::min(most, records.size()));
    }
    room.count = get_u32(out, 0);
    memcpy(argument, &room, sizeof room);
    return true;
}

constexpr RequestSpec kRequests[] = {
    {.code = kGetPartitions32,
     .name = "GET_PARTITIONS32",
     .pack = pack_room,
     .unpack = unpack_records<kRecord32Bytes>},
    {.code = kGetPartitions64,
     .name = "GET_PARTITIONS64",
     .pack = pack_room,
     .unpack = unpack_records<kRecord64Bytes>},
    {kGetFpgaStart, "GET_FPGA_START", 0, 4},
    {kGetTotalBytes, "GET_TOTAL_BYTES", 0, 8},
    {kGetCanSwitch, "GET_CAN_SWITCH", 0, 4},
    {0x80204D01, "MEMGETINFO", 0, 32},
    {0x40084D02, "MEMERASE", 8, 0},
    {0x40084D0B, "MEMGETBADBLOCK", 8, 0},
    {0x40084D0C, "MEMSETBADBLOCK", 8, 0},
};

Buffer record32(const FlashPartition &partition) {
    Buffer record(kRecord32Bytes);
    std::copy(partition.name.begin(), partition.name.end(), record.begin());
    put_u32(record, 16, static_cast<uint32_t>(partition.size));
    put_u32(record, 20, static_cast<uint32_t>(partition.offset));
    put_u32(record, 24, partition.type);
    put_u32(record, 28, static_cast<uint32_t>(partition.backup_offset));
    record[32] = partition.flag;
    return record;
}

Buffer record64(const FlashPartition &partition) {
    Buffer record(kRecord64Bytes);
    std::copy(partition.name.begin(), partition.name.end(), record.begin());
    put_u64(record, 16, partition.size);
    put_u64(record, 24, partition.offset);
    put_u64(record, 32, partition.type);
    put_u64(record, 40, partition.backup_offset);
    record[48] = partition.flag;
    return record;
}

// ---- device ----

// What the driver tells beside the table.
struct PartitionDriver {
    bool knows_64_bit = true;
    int64_t fpga_start = -1;  // -1: it does not know the request
    uint32_t can_switch = 0;
};

class Driver final : public Device {
public:
    Driver(Chip &chip, std::shared_ptr<const Flash> flash, const PartitionDriver &driver)
        : Device(chip), flash_(std::move(flash)), driver_(driver) {}
    Answer ioctl(Handle &handle, uint32_t request, Bytes in) override;
    void show(Report &report) const override;

private:
    Answer partitions(uint32_t room, Buffer (*record)(const FlashPartition &)) const;

    std::shared_ptr<const Flash> flash_;
    PartitionDriver driver_;
};

Answer Driver::partitions(uint32_t room, Buffer (*record)(const FlashPartition &)) const {
    Buffer out = u32_record(static_cast<uint32_t>(flash_->partitions().size()));
    for (const FlashPartition &partition : flash_->partitions()) {
        if (room-- == 0) break;
        const Buffer one = record(partition);
        out.insert(out.end(), one.begin(), one.end());
    }
    return Answer::ok(0, std::move(out));
}

Answer Driver::ioctl(Handle &, uint32_t request, Bytes in) {
    switch (request) {
        case kGetPartitions32:
            return in.size() == 4 ? partitions(get_u32(in, 0), record32) : Answer::fail(EINVAL);
        case kGetPartitions64:
            if (!driver_.knows_64_bit) return Answer::fail(ENOTTY);
            return in.size() == 4 ? partitions(get_u32(in, 0), record64) : Answer::fail(EINVAL);
        case kGetFpgaStart:
            if (driver_.fpga_start < 0) return Answer::fail(ENOTTY);
            return Answer::ok(0, u32_record(static_cast<uint32_t>(driver_.fpga_start)));
        case kGetTotalBytes: {
            Buffer total(8);
            put_u64(total, 0, flash_->geometry().total_bytes);
            return Answer::ok(0, std::move(total));
        }
        case kGetCanSwitch:
            return Answer::ok(0, u32_record(driver_.can_switch));
        default:
            return Answer::fail(ENOTTY);
    }
}

void Driver::show(Report &report) const { show_flash(*flash_, report); }

// ---- the board's description ----

struct Kind {
    const char *name;
    FlashKind kind;
    uint32_t erase_bytes;
    uint32_t page_bytes;
    uint32_t oob_bytes;
};
// What each kind is like where the description does not say.
constexpr Kind kKinds[] = {
    {"nor", FlashKind::kNor, 0x10000, 256, 0},
    {"nand", FlashKind::kNand, 0x20000, 2048, 64},
    {"mlc-nand", FlashKind::kMlcNand, 0x80000, 4096, 224},
    {"emmc", FlashKind::kEmmc, 0x4000, 512, 0},
};

constexpr int64_t kMostRawBytes = int64_t{1} << 32;
constexpr int64_t kMostBytes = int64_t{1} << 40;

Flash::Geometry read_geometry(const Description &table) {
    const std::string name = table.required_text("kind");
    const auto *kind =
        std::find_if(std::begin(kKinds), std::end(kKinds), [&](const Kind &k) { return name == k.name; });
    if (kind == std::end(kKinds)) table.fail("kind", "must be \"nor\", \"nand\", \"mlc-nand\" or \"emmc\"");
    Flash::Geometry geometry{};
    geometry.kind = kind->kind;
    geometry.erase_bytes =
        static_cast<uint32_t>(table.number("erase_bytes", 512, 1 << 24, kind->erase_bytes));
    geometry.page_bytes = static_cast<uint32_t>(table.number("page_bytes", 1, 1 << 16, kind->page_bytes));
    geometry.oob_bytes = static_cast<uint32_t>(table.number("oob_bytes", 0, 1 << 16, kind->oob_bytes));
    geometry.endurance = static_cast<uint32_t>(table.number("endurance", 0, UINT32_MAX, 0));
    if (geometry.erase_bytes % geometry.page_bytes != 0)
        table.fail("page_bytes", "an erase block must be a number of whole pages");
    return geometry;
}

std::string node_of(FlashKind kind, size_t index) {
    return kind == FlashKind::kEmmc ? "/dev/mmcblk0p" + std::to_string(index + 1)
                                    : "/dev/mtd/" + std::to_string(index);
}

std::vector<FlashPartition> read_partitions(const Description &flash, const Flash::Geometry &geometry) {
    const bool is_raw = geometry.kind != FlashKind::kEmmc;
    const int64_t most = is_raw ? kMostRawBytes : kMostBytes;
    std::vector<FlashPartition> all;
    int64_t next = 0;
    for (const Description &table : flash.tables("partition")) {
        FlashPartition partition;
        partition.name = table.required_text("name");
        if (partition.name.empty() || partition.name.size() > kNameBytes)
            table.fail("name", "must be 1 to 16 bytes");
        partition.size = static_cast<uint64_t>(
            table.number("size", 1, std::min<int64_t>(most, is_raw ? UINT32_MAX : most), 0));
        if (partition.size == 0) table.fail("size", "is missing");
        partition.offset = static_cast<uint64_t>(table.number("offset", 0, most, next));
        partition.backup_offset = static_cast<uint64_t>(table.number("backup", 0, most, -1));
        partition.type = static_cast<uint32_t>(table.number("type", 0, UINT32_MAX, 0));
        partition.flag = static_cast<uint8_t>(table.number("flag", 0, UINT8_MAX, 0));
        partition.node = node_of(geometry.kind, all.size());
        if (is_raw &&
            (partition.size % geometry.erase_bytes != 0 || partition.offset % geometry.erase_bytes != 0))
            table.fail("size", "and offset must be whole erase blocks");
        next = static_cast<int64_t>(partition.offset + partition.size);
        all.push_back(std::move(partition));
    }
    if (all.empty()) flash.fail("partition", "is missing: a flash has at least one");
    if (all.size() > kMostPartitions) flash.fail("partition", "there are more than 64");
    return all;
}

// Where the chip ends: as stated, or behind the last partition.
void set_total(const Description &table, const std::vector<FlashPartition> &partitions,
               Flash::Geometry &geometry) {
    uint64_t end = 0;
    for (const FlashPartition &partition : partitions) end = std::max(end, partition.offset + partition.size);
    const int64_t most = geometry.kind == FlashKind::kEmmc ? kMostBytes : kMostRawBytes;
    geometry.total_bytes =
        static_cast<uint64_t>(table.number("total_bytes", 1, most, static_cast<int64_t>(end)));
    if (geometry.total_bytes < end) table.fail("total_bytes", "the partitions do not fit in");
    if (geometry.total_bytes > static_cast<uint64_t>(most))
        table.fail("partition", "there is no flash as large as that");
    if (geometry.total_bytes % geometry.erase_bytes != 0 && geometry.kind != FlashKind::kEmmc)
        table.fail("total_bytes", "must be whole erase blocks");
}

// Blocks by their number in the partition.
void read_marks(const Description &table, const FlashPartition &partition, const char *key, Flash &flash,
                Flash::Mark mark) {
    const std::vector<int64_t> blocks = table.numbers(key, 0, UINT32_MAX);
    if (!blocks.empty() && flash.is_emmc()) table.fail(key, "an eMMC hides its blocks");
    for (const int64_t block : blocks) {
        const uint64_t at = static_cast<uint64_t>(block) * flash.geometry().erase_bytes;
        if (at >= partition.size) table.fail(key, "names a block behind the end of the partition");
        if (flash.is_new()) flash.set_mark(partition.offset + at, mark, true);
    }
}

void build(Chip &chip, const Description &table) {
    Flash::Geometry geometry = read_geometry(table);
    std::vector<FlashPartition> partitions = read_partitions(table, geometry);
    set_total(table, partitions, geometry);
    const PartitionDriver driver = {
        .knows_64_bit = table.flag("knows_64_bit", true),
        .fpga_start = table.number("fpga_start", 0, UINT32_MAX, -1),
        .can_switch = static_cast<uint32_t>(table.number("can_switch", 0, UINT32_MAX, 0)),
    };
    const auto flash = std::make_shared<Flash>(chip.dir() + "/flash", geometry, std::move(partitions));
    const auto tables = table.tables("partition");
    for (size_t i = 0; i < tables.size(); ++i) {
        const FlashPartition &partition = flash->partitions()[i];
        read_marks(tables[i], partition, "bad", *flash, Flash::kBad);
        read_marks(tables[i], partition, "failing", *flash, Flash::kFailing);
        chip.add(partition.node, flash->is_emmc() ? make_emmc(chip, flash, i) : make_mtd(chip, flash, i));
    }
    write_environment(*flash, chip, table);
    flash->finish_new();
    chip.add(kNode, std::make_unique<Driver>(chip, flash, driver));
}

}  // namespace

extern const DeviceClass kFlashClass = {"flash", "flash", kRequests, build};

}  // namespace qel::board
