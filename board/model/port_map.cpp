#include "board/model/port_map.h"

#include <algorithm>
#include <set>

#include "board/core/report.h"
#include "board/model/records.h"
#include "board/model/serial_line.h"

namespace qel::board {

namespace {

constexpr size_t kItems = 10;
constexpr size_t kItemBytes = 60;
constexpr uint32_t kNoLine = 0xFFFF;
constexpr uint32_t kEndMark = 10;  // as a port's number
constexpr int64_t kLastUsage = 32;

// Offsets in an item.
constexpr size_t kDirectionAt = 16, kUsageAt = 20, kNumberAt = 24, kKindAt = 28, kStatusAt = 32;
constexpr size_t kOnlyWithStatusAt = 41, kTypeAt = 48, kTtyAt = 49, kTtyIsGivenAt = 50;

SerialLine *find_line(const Chip &chip, uint32_t port) {
    for (const auto &[path, node] : chip.nodes()) {
        auto *owner = dynamic_cast<LineOwner *>(node.device.get());
        if (owner != nullptr && owner->line().port() == int64_t{port}) return &owner->line();
    }
    return nullptr;
}

uint32_t u32(const Description &table, const char *key, int64_t most, int64_t otherwise) {
    return static_cast<uint32_t>(table.number(key, 0, most, otherwise));
}

}  // namespace

PortMap::Item PortMap::read_item(const Description &table) {
    if (!table.has("number")) table.fail("number", "is missing");
    Item item{};
    item.number = u32(table, "number", kLastPort, 0);
    item.usage = u32(table, "usage", kLastUsage, 0);
    item.kind = u32(table, "kind", UINT32_MAX, 0);
    item.direction_line = u32(table, "direction_line", kNoLine, kNoLine);
    item.status_line = u32(table, "status_line", kNoLine, kNoLine);
    item.only_with_status = table.flag("only_with_status", false);
    item.type = static_cast<uint8_t>(u32(table, "type", 255, 0));
    item.tty_is_given = table.has("tty");
    item.tty = static_cast<uint8_t>(u32(table, "tty", 255, 0));
    item.turns_by_itself = table.flag("turns_by_itself", false);
    item.rs485 = table.flag("rs485", item.direction_line != kNoLine);
    return item;
}

PortMap::PortMap(const Description &chip) {
    for (const Description &table : chip.tables("port")) {
        const Item item = read_item(table);
        if (find(item.number) != nullptr) table.fail("number", "another port has it");
        items_.push_back(item);
    }
    check_lines(chip);
}

void PortMap::check_lines(const Description &chip) const {
    std::vector<Description> lines = chip.tables("tty");
    for (const Description &uart : chip.tables("uart")) lines.push_back(uart);
    for (const Description &mcu : chip.tables("mcu")) {
        for (const Description &raw : mcu.tables("raw")) lines.push_back(raw);
    }
    std::set<int64_t> taken;
    for (const Description &line : lines) {
        const int64_t port = line.number("port", 0, kLastPort, -1);
        if (port < 0) continue;
        if (find(static_cast<uint32_t>(port)) == nullptr) line.fail("port", "is not in the port map");
        if (!taken.insert(port).second) line.fail("port", "another line has it");
    }
}

const PortMap::Item *PortMap::find(uint32_t port) const {
    const auto found =
        std::find_if(items_.begin(), items_.end(), [=](const Item &item) { return item.number == port; });
    return found != items_.end() ? &*found : nullptr;
}

Buffer PortMap::record() const {
    Buffer out(kPortMapBytes);
    for (size_t i = 0; i < items_.size(); ++i) {
        const Item &item = items_[i];
        const size_t at = i * kItemBytes;
        put_u32(out, at + kDirectionAt, item.direction_line);
        put_u32(out, at + kUsageAt, item.usage);
        put_u32(out, at + kNumberAt, item.number);
        put_u32(out, at + kKindAt, item.kind);
        put_u32(out, at + kStatusAt, item.status_line);
        out[at + kOnlyWithStatusAt] = item.only_with_status ? 1 : 0;
        out[at + kTypeAt] = item.type;
        out[at + kTtyAt] = item.tty;
        out[at + kTtyIsGivenAt] = item.tty_is_given ? 1 : 0;
    }
    if (items_.size() < kItems) put_u32(out, items_.size() * kItemBytes + kNumberAt, kEndMark);
    return out;
}

void PortMap::show(Report &report) const {
    if (items_.empty()) return;
    report.table("ports", {"port", "kind", "usage", "direction line", "status line", "type"});
    const auto line = [](uint32_t number) -> Cell {
        if (number == kNoLine) return std::string("none");
        return int64_t{number};
    };
    for (const Item &item : items_) {
        report.row({int64_t{item.number}, int64_t{item.kind}, int64_t{item.usage}, line(item.direction_line),
                    line(item.status_line), int64_t{item.type}});
    }
}

int PortMap::set_direction(const Chip &chip, uint32_t port, uint32_t state) const {
    SerialLine *line = find(port) != nullptr ? find_line(chip, port) : nullptr;
    if (line == nullptr) return -ENODEV;
    return state > 1 ? -EINVAL : line->set_direction(state == 1);
}

// The mode word: 1 = RS-232.
int PortMap::set_mode(const Chip &chip, uint32_t port, uint32_t mode) const {
    SerialLine *line = find(port) != nullptr ? find_line(chip, port) : nullptr;
    if (line == nullptr) return -ENODEV;
    return mode > 1 ? -EINVAL : line->set_rs485(mode == 0);
}

int PortMap::rs485_status(const Chip &chip, uint32_t port) const {
    const Item *item = find(port);
    if (item == nullptr || item->status_line == kNoLine) return -EINVAL;
    const SerialLine *line = find_line(chip, port);
    return line != nullptr ? line->is_rs485() : item->rs485;
}

void PortMap::wire_lines(const Chip &chip) const {
    for (const Item &item : items_) {
        SerialLine *line = find_line(chip, item.number);
        if (line == nullptr) continue;
        line->set_wiring({.has_direction = item.direction_line != kNoLine,
                          .turns_by_itself = item.turns_by_itself,
                          .can_switch = item.status_line != kNoLine,
                          .starts_rs485 = item.rs485});
    }
}

}  // namespace qel::board
