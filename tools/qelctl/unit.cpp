#include "tools/qelctl/unit.h"

#include <algorithm>
#include <cstring>

#include "tools/qelctl/byte_text.h"
#include "tools/qelctl/exit_code.h"

namespace qelctl {

namespace {

constexpr unsigned kLogicalNumbers = 256;  // the map keeps a channel's logical number in one byte

// The getters of the product module never return where it did not start, so this comes first.
int known_chips(const Library &library) {
    const int count = CALL(library, QEL_productGetCfgNum)();
    if (count > 0) return count;
    throw Failure(ExitCode::kFailed,
                  "the library could not read the hardware id of this board (/dev/qecHwid); its log says "
                  "why.\nTo talk to a virtual board, start qelctl with qelboard run.");
}

std::vector<int> read_properties(const Library &library, unsigned record) {
    std::vector<int> values;
    for (const Property &property : kProperties) {
        values.push_back(CALL(library, QEL_productGetHwidInfoByChip)(record, property.id));
    }
    return values;
}

// The record of a chip that was never fetched is all zeros.
bool is_blank(const std::vector<int> &values) {
    return std::all_of(values.begin(), values.end(), [](int value) { return value == 0; });
}

std::string read_name(const Library &library) {
    const char *name = nullptr;
    if (CALL(library, QEL_productGetName)(&name) != 0 || name == nullptr) return {};
    return {name, strnlen(name, QEL_PRODUCT_NAME_BYTES)};
}

std::optional<std::vector<unsigned>> read_extended_id(const Library &library) {
    std::vector<unsigned> bytes;
    for (unsigned i = 0; i < QEL_HWID_EX_BYTES; ++i) {
        unsigned char value = 0;
        if (CALL(library, QEL_getHwidExInfo)(i, &value) != 0) return std::nullopt;
        bytes.push_back(value);
    }
    return bytes;
}

}  // namespace

std::string identity(const Library &library) {
    switch (CALL(library, QEL_adapterGetProcessID)()) {
        case 1:
            return "VideoDaemon";
        case 2:
            return "vesta";
        case 4:
            return "systools";
        default:
            return {};
    }
}

std::vector<ChipFacts> read_chips(const Library &library) {
    const int count = known_chips(library);
    unsigned char info[2] = {};
    if (CALL(library, QEL_getChipInfo)(info) != 0) {
        throw Failure(ExitCode::kFailed, "the library does not tell which chip this is; its log says why.");
    }
    std::vector<ChipFacts> chips;
    for (int record = 0; record < count; ++record) {
        // A process that knows one chip only knows its own, as record 0.
        const unsigned chip = count == 1 ? info[1] : static_cast<unsigned>(record);
        chips.push_back({chip, read_properties(library, static_cast<unsigned>(record))});
        if (record > 0 && is_blank(chips.back().properties)) chips.back().properties.clear();
    }
    // A master that should reach the others but found no way to them when it started.
    const bool is_master = info[1] == 0 && !identity(library).empty();
    for (unsigned chip = chips.size(); is_master && chip < info[0]; ++chip) chips.push_back({chip, {}});
    return chips;
}

ChannelMap read_channel_map(const Library &library) {
    known_chips(library);  // the map is empty where the library does not know the board
    ChannelMap map{CALL(library, QEL_chnMapGetTotalNum)(), CALL(library, QEL_chnMapGetLocalNum)(), {}};
    if (map.total < 0 || map.local < 0) {
        throw Failure(ExitCode::kFailed,
                      "the library has no channel map: its start-up failed there, and its log says why.");
    }
    for (unsigned logical = 0; logical < kLogicalNumbers; ++logical) {
        unsigned char info[QEL_CHANNEL_INFO_BYTES] = {};
        if (CALL(library, QEL_chnMapGetInfo)(logical, info) != 0) continue;
        map.channels.push_back({logical, info[0], info[2], info[1], info[3]});
    }
    return map;
}

std::vector<int> read_properties_of_channel(const Library &library, unsigned logical_channel) {
    known_chips(library);
    unsigned char info[QEL_CHANNEL_INFO_BYTES] = {};
    if (CALL(library, QEL_chnMapGetInfo)(logical_channel, info) != 0) {
        throw Failure(ExitCode::kFailed,
                      "channel " + std::to_string(logical_channel) +
                          " is not in the channel map; `qelctl channels` lists those that are.");
    }
    std::vector<int> values;
    for (const Property &property : kProperties) {
        values.push_back(CALL(library, QEL_productGetHwidInfoByChn)(logical_channel, property.id));
    }
    return values;
}

Unit read_unit(const Library &library) {
    Unit unit{};
    unit.chips = read_chips(library);
    unsigned char info[2] = {};
    unsigned char mark = 0;
    unsigned char information[QEL_PRODUCT_INFO_BYTES] = {};
    unsigned char base[QEL_BASE_CFG_BYTES] = {};
    CALL(library, QEL_getChipInfo)(info);
    CALL(library, QEL_getMasterSlaveMark)(&mark);
    CALL(library, QEL_productGetInfo)(information);
    CALL(library, QEL_productGetBaseCfg)(base);
    unit.product = read_name(library);
    unit.chip_count = info[0];
    unit.own_chip = info[1];
    unit.master_slave_mark = mark;
    unit.map = read_channel_map(library);
    unit.extended_id = read_extended_id(library);
    unit.information = hex_text(information, sizeof information);
    unit.base_configuration = hex_text(base, sizeof base);
    return unit;
}

}  // namespace qelctl
