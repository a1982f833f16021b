#include "board/model/eeprom_map.h"

#include <algorithm>
#include <cstdio>

#include "board/model/records.h"

namespace qel::board {

namespace {

constexpr uint32_t kMagic = 0xDEEF5123;
constexpr uint32_t kHeadBytes = 120;
constexpr uint32_t kEntriesAt = 24;
constexpr uint32_t kEntryBytes = 12;
constexpr uint32_t kMostFiles = 8;
constexpr uint32_t kHeaderBytes = 56;
constexpr uint32_t kNameAt = 16;
constexpr uint32_t kNameBytes = 40;

constexpr size_t kMarksPerLine = 64;
constexpr size_t kMostLines = 16;

bool is_head(Bytes chip, size_t at) {
    return at + kHeadBytes <= chip.size() && get_u32(chip, at + 4) == kMagic && get_u32(chip, at + 8) == 1 &&
           get_u32(chip, at + 20) <= kMostFiles;
}

std::string name_at(Bytes chip, size_t at) {
    const Bytes name = chip.subspan(at, kNameBytes);
    return {name.begin(), std::find(name.begin(), name.end(), uint8_t{0})};
}

EepromFile file_of(Bytes chip, size_t head, size_t entry) {
    const uint64_t header = head + uint64_t{get_u32(chip, entry + 4)};
    EepromFile file{};
    file.room_bytes = get_u32(chip, entry + 8);
    file.header_address = static_cast<uint32_t>(header);
    file.on_chip = header + kHeaderBytes <= chip.size();
    if (!file.on_chip) return file;
    const auto at = static_cast<size_t>(header);
    file.in_use = get_u32(chip, at + 4) != 0;
    file.bytes = get_u32(chip, at + 8);
    file.changed_s = get_u32(chip, at + 12);
    file.name = name_at(chip, at + kNameAt);
    return file;
}

// One mark per byte: who owns it.
std::string marks_of(Bytes chip, const EepromFiles &files) {
    std::string marks(chip.size(), '.');
    const auto mark = [&](uint64_t from, uint64_t bytes, char as) {
        for (uint64_t at = from; at < std::min<uint64_t>(from + bytes, marks.size()); ++at) marks[at] = as;
    };
    for (size_t at = 0; at < chip.size(); ++at) {
        if (chip[at] != 0 && chip[at] != 0xFF) marks[at] = '#';
    }
    if (!files.found) return marks;
    mark(files.free_address, files.free_bytes, '-');
    mark(files.head_address, kHeadBytes, 'H');
    for (size_t i = 0; i < files.files.size(); ++i) {
        const EepromFile &file = files.files[i];
        if (!file.on_chip) continue;
        mark(file.header_address + uint64_t{kHeaderBytes}, file.room_bytes, static_cast<char>('a' + i));
        mark(file.header_address, kHeaderBytes, static_cast<char>('A' + i));
    }
    return marks;
}

// What stands for several bytes: the file that begins there, else whoever comes first.
char mark_of(const std::string &marks, size_t from, size_t bytes) {
    const std::string part = marks.substr(from, bytes);
    const size_t header = part.find_first_of("HABCDEFGI");
    return header != std::string::npos ? part[header] : part.front();
}

// Colours that everyone can tell apart; nine, as many as files have marks.
constexpr const char *kHeadColour = "#000000";
constexpr const char *kFileColours[] = {"#0072B2", "#009E73", "#CC79A7", "#56B4E9", "#F0E442",
                                        "#117733", "#882255", "#332288", "#AA4499"};
constexpr const char *kUsedColour = "#999999";
constexpr const char *kFreeColour = "#DDEEDD";
constexpr const char *kErasedColour = "#EEEEEE";

std::vector<CellMap::Kind> kinds_of(const EepromFiles &files) {
    std::vector<CellMap::Kind> kinds;
    if (files.found) kinds.push_back({'H', "head", kHeadColour});
    for (size_t i = 0; i < std::min(files.files.size(), std::size(kFileColours)); ++i) {
        const EepromFile &file = files.files[i];
        if (!file.on_chip) continue;
        const std::string name = file.name.empty() ? "no name" : file.name;
        kinds.push_back({static_cast<char>('A' + i), name + ": header", "#555555"});
        kinds.push_back({static_cast<char>('a' + i), name, kFileColours[i]});
    }
    if (files.found) kinds.push_back({'-', "free", kFreeColour});
    kinds.push_back({'#', "nobody's", kUsedColour});
    kinds.push_back({'.', "empty", kErasedColour});
    return kinds;
}

}  // namespace

EepromFiles read_eeprom_files(Bytes chip, uint32_t page_bytes) {
    const size_t page = std::max(page_bytes, 1u);
    EepromFiles files;
    size_t head = 0;
    if (!is_head(chip, head)) head = (kHeadBytes + page - 1) / page * page;
    if (!is_head(chip, head)) return files;
    files.found = true;
    files.head_address = static_cast<uint32_t>(head);
    files.free_address = files.head_address + get_u32(chip, head + 12);
    files.free_bytes = get_u32(chip, head + 16);
    for (uint32_t i = 0; i < get_u32(chip, head + 20); ++i)
        files.files.push_back(file_of(chip, head, head + kEntriesAt + size_t{kEntryBytes} * i));
    return files;
}

CellMap eeprom_map(Bytes chip, const EepromFiles &files) {
    const std::string marks = marks_of(chip, files);
    size_t per_mark = 1;
    while (marks.size() > per_mark * kMarksPerLine * kMostLines) per_mark *= 2;
    CellMap map{.scale = "one mark: " + std::to_string(per_mark) + (per_mark == 1 ? " byte" : " bytes"),
                .kinds = kinds_of(files),
                .rows = {}};
    for (size_t at = 0; at < marks.size();) {
        char address[24];
        snprintf(address, sizeof(address), "%06zx", at);
        CellMap::Row row{address, ""};
        for (size_t i = 0; i < kMarksPerLine && at < marks.size(); ++i, at += per_mark)
            row.marks += mark_of(marks, at, per_mark);
        map.rows.push_back(std::move(row));
    }
    return map;
}

}  // namespace qel::board
