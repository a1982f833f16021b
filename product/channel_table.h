// channel_table.h - the table that says which chip and channel a logical channel is.
#pragma once

#include <cstdint>
#include <span>

namespace qel::product {

// As the channel-map driver fills it.
struct ChannelEntry {
    uint8_t logical;
    uint8_t chip;
    uint8_t board_type;  // of the chip
    uint8_t channel;     // on the chip
    uint8_t category;    // of the chip
    uint8_t reserved[11];
};
static_assert(sizeof(ChannelEntry) == 16);

// All channels on this chip, one after another.
constexpr void fill_local(std::span<ChannelEntry> table, uint8_t board_type, uint8_t category) {
    for (size_t i = 0; i < table.size(); ++i) {
        const auto channel = static_cast<uint8_t>(i);
        table[i] = {channel, 0, board_type, channel, category, {}};
    }
}

// The first entry of the channel, or nullptr.
constexpr const ChannelEntry *find_channel(std::span<const ChannelEntry> table, unsigned logical) {
    for (const ChannelEntry &entry : table) {
        if (entry.logical == logical) return &entry;
    }
    return nullptr;
}

constexpr unsigned count_on_chip(std::span<const ChannelEntry> table, unsigned chip) {
    unsigned count = 0;
    for (const ChannelEntry &entry : table) count += entry.chip == chip ? 1 : 0;
    return count;
}

}  // namespace qel::product
