// hwid.cpp - "/dev/qecHwid": the hardware-id record of a chip and the table of its sensor drivers.
#include "board/model/hwid.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <utility>

#include "board/core/description.h"
#include "board/core/errors.h"
#include "board/core/report.h"
#include "board/model/records.h"

namespace qel::board {

namespace {

constexpr const char *kNode = "/dev/qecHwid";
constexpr uint32_t kGetRecord = 0xC0044800;
constexpr uint32_t kGetSensors = 0xC0044806;

constexpr size_t kRecordBytes = 456;
constexpr size_t kMarkAt = 36;
constexpr size_t kChipsAt = 37;
constexpr size_t kChipIndexAt = 38;
constexpr size_t kInfoAt = 68, kInfoBytes = 44;
constexpr size_t kNameAt = 112, kNameBytes = 32;
constexpr size_t kBaseConfigAt = 328, kBaseConfigBytes = 32;

constexpr size_t kSensorBytes = 64;
constexpr size_t kMostSensors = 64;

// Where the numbered properties stand in the record.
struct Property {
    uint8_t number;
    uint16_t offset;
};
constexpr std::array<Property, 25> kProperties = {{
    {1, 156},  {3, 184},  {4, 150},  {5, 152},  {6, 158},  {8, 154},  {9, 164},  {11, 186}, {12, 188},
    {13, 196}, {14, 190}, {15, 192}, {16, 194}, {18, 144}, {19, 146}, {20, 148}, {21, 160}, {22, 162},
    {23, 166}, {24, 198}, {25, 168}, {26, 0},   {27, 2},   {28, 200}, {29, 202},
}};

const Property *find_property(unsigned number) {
    const auto *found = std::find_if(kProperties.begin(), kProperties.end(),
                                     [=](const Property &p) { return p.number == number; });
    return found != kProperties.end() ? found : nullptr;
}

// The driver's argument of kGetSensors: the count alone while `entries` is NULL, then the entries.
struct SensorArgument {
    uint32_t count;
    uint32_t word;
    void *entries;
};
static_assert(sizeof(void *) != 4 || sizeof(SensorArgument) == 12);

// Over: whether entries are wanted. Back: the count, then the entries.
bool pack_sensors(const void *argument, Buffer &in) {
    if (argument == nullptr) return false;
    in.push_back(static_cast<const SensorArgument *>(argument)->entries != nullptr ? 1 : 0);
    return true;
}

bool unpack_sensors(void *argument, Bytes out) {
    auto *record = static_cast<SensorArgument *>(argument);
    if (out.size() < 4) return true;
    const Bytes entries = out.subspan(4);
    const size_t room = std::min<size_t>(record->count, kMostSensors) * kSensorBytes;
    if (record->entries != nullptr && !entries.empty())
        memcpy(record->entries, entries.data(), std::min(room, entries.size()));
    record->count = get_u32(out, 0);
    return true;
}

constexpr RequestSpec kRequests[] = {
    {kGetRecord, "GET_RECORD", 0, kRecordBytes},
    {kGetSensors, "GET_SENSORS", 0, 0, pack_sensors, unpack_sensors},
};

class Hwid final : public Device {
public:
    Hwid(Chip &chip, const Description &description);
    Answer ioctl(Handle &handle, uint32_t request, Bytes in) override;
    void show(Report &report) const override;
    uint16_t property(unsigned number) const {
        const Property *found = find_property(number);
        return found != nullptr ? get_u16(record_, found->offset) : uint16_t{0};
    }

private:
    void put(const Description &description, const char *key, size_t at, size_t most);
    void read_properties(const Description &properties);
    void read_sensors(const Description &description);
    void read_other(const Description &other);
    std::string name() const {
        const auto *first = reinterpret_cast<const char *>(&record_[kNameAt]);
        return {first, strnlen(first, kNameBytes)};
    }

    Buffer record_;
    Buffer sensors_;
};

// A record byte by its number, for what no key names.
size_t parse_offset(const Description &table, const std::string &key) {
    size_t offset = 0;
    const auto [rest, error] = std::from_chars(key.data(), key.data() + key.size(), offset);
    if (error != std::errc() || *rest != '\0' || offset >= kRecordBytes)
        table.fail(key, "is not the offset of a byte, 0 to 455");
    return offset;
}

Hwid::Hwid(Chip &chip, const Description &description) : Device(chip), record_(kRecordBytes) {
    // What no key names first, so that the named fields win.
    for (const Description &other : description.tables("bytes")) read_other(other);
    const std::string name = description.required_text("name");
    if (name.empty() || name.size() >= kNameBytes) description.fail("name", "must be 1 to 31 bytes");
    memcpy(&record_[kNameAt], name.data(), name.size());
    record_[kMarkAt] = static_cast<uint8_t>(description.number("master_slave_mark", 0, 255, 0));
    put(description, "info", kInfoAt, kInfoBytes);
    put(description, "base_config", kBaseConfigAt, kBaseConfigBytes);
    for (const Description &properties : description.tables("properties")) read_properties(properties);
    read_sensors(description);
    // -1 = as the board is; other values are for boards that say something wrong of themselves.
    const auto chips = static_cast<int>(description.number("chips", 0, 255, -1));
    const auto index = static_cast<int>(description.number("chip_index", 0, 255, -1));
    record_[kChipsAt] = static_cast<uint8_t>(chips >= 0 ? chips : static_cast<int>(chip.chip_count()));
    record_[kChipIndexAt] = static_cast<uint8_t>(index >= 0 ? index : static_cast<int>(chip.number()));
}

void Hwid::put(const Description &description, const char *key, size_t at, size_t most) {
    const Buffer bytes = description.bytes(key, most);
    std::copy(bytes.begin(), bytes.end(), record_.begin() + static_cast<ptrdiff_t>(at));
}

void Hwid::read_properties(const Description &properties) {
    for (const std::string &key : properties.keys()) {
        unsigned number = 0;
        const auto [rest, error] = std::from_chars(key.data(), key.data() + key.size(), number);
        const Property *property = error == std::errc() && *rest == '\0' ? find_property(number) : nullptr;
        if (property == nullptr) properties.fail(key, "is not the number of a board property");
        put_u16(record_, property->offset, static_cast<uint32_t>(properties.number(key, 0, 0xFFFF, 0)));
    }
}

void Hwid::read_sensors(const Description &description) {
    const auto tables = description.tables("sensor");
    if (tables.size() > kMostSensors) description.fail("sensor", "there are more than 64");
    for (const Description &table : tables) {
        Buffer entry = table.bytes("entry", kSensorBytes);
        entry.resize(kSensorBytes);
        sensors_.insert(sensors_.end(), entry.begin(), entry.end());
    }
}

void Hwid::read_other(const Description &other) {
    for (const std::string &key : other.keys()) {
        const size_t offset = parse_offset(other, key);
        put(other, key.c_str(), offset, kRecordBytes - offset);
    }
}

Answer Hwid::ioctl(Handle &, uint32_t request, Bytes in) {
    switch (request) {
        case kGetRecord:
            return Answer::ok(0, record_);
        case kGetSensors: {
            Buffer out = u32_record(static_cast<uint32_t>(sensors_.size() / kSensorBytes));
            if (!in.empty() && in[0] != 0) out.insert(out.end(), sensors_.begin(), sensors_.end());
            return Answer::ok(0, std::move(out));
        }
        default:
            return Answer::fail(ENOTTY);
    }
}

void Hwid::show(Report &report) const {
    report.value("product name", name());
    report.value("chips", int64_t{record_[kChipsAt]});
    report.value("chip index", int64_t{record_[kChipIndexAt]});
    report.value("master/slave mark", int64_t{record_[kMarkAt]});
    report.value("sensors", static_cast<int64_t>(sensors_.size() / kSensorBytes));
    report.value("info", to_hex(&record_[kInfoAt], kInfoBytes));
    report.value("base config", to_hex(&record_[kBaseConfigAt], kBaseConfigBytes));
    report.table("properties that are not 0", {"property", "value"});
    for (const Property &property : kProperties) {
        if (get_u16(record_, property.offset) == 0) continue;
        report.row({int64_t{property.number}, int64_t{get_u16(record_, property.offset)}});
    }
}

void build(Chip &chip, const Description &description) {
    chip.add(kNode, std::make_unique<Hwid>(chip, description));
}

}  // namespace

extern const DeviceClass kHwidClass = {"hwid", "hardware id", kRequests, build};

uint16_t board_property(const Chip *chip, unsigned property) {
    const auto *hwid = chip != nullptr ? dynamic_cast<const Hwid *>(chip->find(kNode)) : nullptr;
    return hwid != nullptr ? hwid->property(property) : uint16_t{0};
}

}  // namespace qel::board
