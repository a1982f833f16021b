// unit.h - what the library knows of the unit, as plain values, for tables and for JSON.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "qel/product.h"
#include "tools/qelctl/library.h"

namespace qelctl {

// A numbered board property. What most of them mean is the product driver's own business: those have
// no label and are shown by their number.
struct Property {
    int id;
    const char *label;  // or nullptr
};

constexpr Property kProperties[] = {
    {QEL_PROPERTY_CHANNELS, "channels"},
    {3, nullptr},
    {4, nullptr},
    {QEL_PROPERTY_BOARD_TYPE, "board type"},
    {6, nullptr},
    {8, nullptr},
    {9, nullptr},
    {11, nullptr},
    {12, nullptr},
    {13, nullptr},
    {14, nullptr},
    {15, nullptr},
    {16, nullptr},
    {18, nullptr},
    {QEL_PROPERTY_CATEGORY, "product category"},
    {20, nullptr},
    {21, nullptr},
    {22, nullptr},
    {23, nullptr},
    {24, nullptr},
    {25, nullptr},
    {26, nullptr},
    {27, nullptr},
    {28, nullptr},
    {29, nullptr},
};

struct ChipFacts {
    unsigned chip;
    std::vector<int> properties;  // in the order of kProperties; empty: the chip did not answer
};

struct Channel {
    unsigned logical;   // number in the unit
    unsigned chip;      // that owns it
    unsigned physical;  // number on that chip
    unsigned board_type;
    unsigned category;
};

struct ChannelMap {
    int total;  // as the board counts them
    int local;  // of chip 0
    std::vector<Channel> channels;
};

struct Unit {
    std::string product;
    unsigned chip_count;
    unsigned own_chip;  // 0 = master
    unsigned master_slave_mark;
    std::vector<ChipFacts> chips;  // those this process may know of
    ChannelMap map;
    std::optional<std::vector<unsigned>> extended_id;  // 16 bytes
    std::string information;                           // 44 bytes in hexadecimal
    std::string base_configuration;                    // 32 bytes in hexadecimal
};

// "vesta", "VideoDaemon" or "systools": the part of the unit's software that the library takes this
// process for; empty for any other, which the library keeps off the channels to the other chips.
std::string identity(const Library &library);

// The readers throw Failure(kFailed) when the library did not get the board's identity at its start:
// its getters must not be called then.
Unit read_unit(const Library &library);
// Chips whose record this process may know of: one, or all of them on the master of a unit.
std::vector<ChipFacts> read_chips(const Library &library);
ChannelMap read_channel_map(const Library &library);
std::vector<int> read_properties_of_channel(const Library &library, unsigned logical_channel);

}  // namespace qelctl
