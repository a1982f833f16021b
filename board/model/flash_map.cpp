#include "board/model/flash_map.h"

#include <algorithm>
#include <cstdio>

namespace qel::board {

namespace {

constexpr size_t kMarksPerRow = 64;
constexpr uint64_t kMostMarks = 1024;

// The worst that a cell holds stands for all of it, the first of these.
struct CellKind {
    char mark;
    const char *meaning;
    const char *colour;
};
enum : size_t { kBad, kFailing, kWritten, kPartly, kErased, kKinds };
constexpr CellKind kCells[kKinds] = {
    {'X', "bad", "#D55E00"},     {'!', "failing", "#F0B000"},
    {'#', "written", "#0072B2"}, {'+', "partly written", "#56B4E9"},
    {'.', "erased", "#E4E4E4"},
};

std::string hex(uint64_t number) {
    char text[24];
    snprintf(text, sizeof(text), "0x%llx", static_cast<unsigned long long>(number));
    return text;
}

std::string amount(uint64_t bytes) {
    const char *const units[] = {" bytes", " KiB", " MiB", " GiB"};
    size_t unit = 0;
    for (; bytes != 0 && unit + 1 < std::size(units) && bytes % 1024 == 0; ++unit) bytes /= 1024;
    return std::to_string(bytes) + units[unit];
}

struct Area {
    uint64_t offset;
    uint64_t bytes;
};

struct Count {
    int64_t bad = 0;
    int64_t failing = 0;
    int64_t written_pages = 0;
    int64_t most_erases = 0;
};

Count count(const Flash &flash, Area area) {
    Count found;
    found.written_pages = static_cast<int64_t>(flash.written_pages(area.offset, area.bytes));
    if (flash.blocks() == 0) return found;
    const uint32_t end = flash.block_of(area.offset + area.bytes);
    for (uint32_t block = flash.block_of(area.offset); block < end; ++block) {
        found.bad += flash.has_mark(block, Flash::kBad) ? 1 : 0;
        found.failing += flash.has_mark(block, Flash::kFailing) ? 1 : 0;
        found.most_erases = std::max(found.most_erases, int64_t{flash.erases(block)});
    }
    return found;
}

char mark_of(const Flash &flash, Area cell) {
    const Count found = count(flash, cell);
    size_t kind = kErased;
    const bool is_full = flash.is_emmc() || static_cast<uint64_t>(found.written_pages) ==
                                                cell.bytes / flash.geometry().page_bytes;
    if (found.written_pages != 0) kind = is_full ? kWritten : kPartly;
    if (found.failing != 0) kind = kFailing;
    if (found.bad != 0) kind = kBad;
    return kCells[kind].mark;
}

void add_rows(const Flash &flash, const std::string &label, Area area, uint64_t cell_bytes, CellMap &map) {
    CellMap::Row row{label, ""};
    for (uint64_t at = 0; at < area.bytes; at += cell_bytes) {
        if (row.marks.size() == kMarksPerRow) {
            map.rows.push_back(row);
            row = {};
        }
        row.marks += mark_of(flash, {area.offset + at, std::min(cell_bytes, area.bytes - at)});
    }
    map.rows.push_back(row);
}

// Partitions in the order of their places, and what lies between them.
CellMap map_of(const Flash &flash) {
    uint64_t cell_bytes = flash.geometry().erase_bytes;
    while (flash.geometry().total_bytes / cell_bytes > kMostMarks) cell_bytes *= 2;
    CellMap map;
    map.scale = "one mark: " + amount(cell_bytes);
    for (const CellKind &kind : kCells) map.kinds.push_back({kind.mark, kind.meaning, kind.colour});
    std::vector<const FlashPartition *> in_place;
    for (const FlashPartition &partition : flash.partitions()) in_place.push_back(&partition);
    std::stable_sort(in_place.begin(), in_place.end(),
                     [](const auto *a, const auto *b) { return a->offset < b->offset; });
    uint64_t at = 0;
    for (const FlashPartition *partition : in_place) {
        if (partition->offset > at)
            add_rows(flash, "(no partition)", {at, partition->offset - at}, cell_bytes, map);
        add_rows(flash, partition->name, {partition->offset, partition->size}, cell_bytes, map);
        at = std::max(at, partition->offset + partition->size);
    }
    const uint64_t end = flash.geometry().total_bytes;
    if (end > at) add_rows(flash, "(no partition)", {at, end - at}, cell_bytes, map);
    return map;
}

const char *kind_name(FlashKind kind) {
    switch (kind) {
        case FlashKind::kNor:
            return "NOR";
        case FlashKind::kNand:
            return "NAND";
        case FlashKind::kMlcNand:
            return "MLC NAND";
        default:
            return "eMMC";
    }
}

}  // namespace

void show_flash(const Flash &flash, Report &report) {
    const Flash::Geometry &geometry = flash.geometry();
    report.value("kind", std::string(kind_name(geometry.kind)));
    report.value("total", amount(geometry.total_bytes));
    if (!flash.is_emmc()) report.value("erase block", amount(geometry.erase_bytes));
    report.value("page", amount(geometry.page_bytes));
    report.value("page writes", static_cast<int64_t>(flash.page_writes()));
    report.table("partitions",
                 {"name", "node", "offset", "size", "backup", "bad", "failing", "written", "most erases"});
    for (const FlashPartition &partition : flash.partitions()) {
        const Count found = count(flash, {partition.offset, partition.size});
        const bool has_backup = partition.backup_offset != UINT64_MAX;
        const std::string unknown = "-";
        const auto of_raw = [&](Cell cell) { return flash.is_emmc() ? Cell(unknown) : std::move(cell); };
        report.row({partition.name, partition.node, hex(partition.offset), amount(partition.size),
                    has_backup ? hex(partition.backup_offset) : unknown, of_raw(found.bad),
                    of_raw(found.failing),
                    of_raw(amount(static_cast<uint64_t>(found.written_pages) * geometry.page_bytes)),
                    of_raw(found.most_erases)});
    }
    report.map("map", map_of(flash));
}

}  // namespace qel::board
