// records.h - little-endian fields of packed records.
#pragma once

#include <cstdint>

#include "board/core/device.h"

namespace qel::board {

// The caller has checked that the bytes are there.
inline uint16_t get_u16(Bytes bytes, size_t at) {
    return static_cast<uint16_t>(bytes[at] | bytes[at + 1] << 8);
}
inline uint32_t get_u32(Bytes bytes, size_t at) {
    return get_u16(bytes, at) | uint32_t{get_u16(bytes, at + 2)} << 16;
}

inline void put_u16(Buffer &out, size_t at, uint32_t value) {
    out[at] = static_cast<uint8_t>(value);
    out[at + 1] = static_cast<uint8_t>(value >> 8);
}
inline void put_u32(Buffer &out, size_t at, uint32_t value) {
    put_u16(out, at, value);
    put_u16(out, at + 2, value >> 16);
}
inline void put_u64(Buffer &out, size_t at, uint64_t value) {
    put_u32(out, at, static_cast<uint32_t>(value));
    put_u32(out, at + 4, static_cast<uint32_t>(value >> 32));
}

inline Buffer u32_record(uint32_t value) {
    Buffer record(4);
    put_u32(record, 0, value);
    return record;
}

}  // namespace qel::board
