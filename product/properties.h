// properties.h - where the numbered board properties stand in a hardware-id record.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>

#include "frame/hwid.h"
#include "qel/product.h"

namespace qel::product {

constexpr int16_t kNoProperty = -1;

// Byte offset of each property's 16 bits, by number.
constexpr std::array<int16_t, QEL_PROPERTY_LAST + 1> kPropertyOffsets = {
    kNoProperty,  // 0
    156,          // 1: logical channels
    kNoProperty,  // 2
    184,          // 3
    150,          // 4
    152,          // 5: board type
    158,          // 6
    kNoProperty,  // 7
    154,          // 8
    164,          // 9
    kNoProperty,  // 10
    186,          // 11
    188,          // 12
    196,          // 13
    190,          // 14
    192,          // 15
    194,          // 16
    kNoProperty,  // 17
    144,          // 18
    146,          // 19: product category
    148,          // 20
    160,          // 21
    162,          // 22
    166,          // 23
    198,          // 24
    168,          // 25
    0,            // 26
    2,            // 27
    200,          // 28
    202,          // 29
};

// The property's value, or -1 for a number that is none.
inline int property_of(const hwid::HwidRecord &record, int number) {
    if (number < 0 || number >= static_cast<int>(kPropertyOffsets.size())) return -1;
    const int16_t offset = kPropertyOffsets[static_cast<size_t>(number)];
    if (offset == kNoProperty) return -1;
    uint8_t bytes[2];
    memcpy(bytes, reinterpret_cast<const uint8_t *>(&record) + offset, sizeof(bytes));
    return bytes[0] | bytes[1] << 8;
}

}  // namespace qel::product
