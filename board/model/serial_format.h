// serial_format.h - how bytes stand on a serial line, and what another receiver makes of them.
#pragma once

#include <cstdint>
#include <string>

#include "board/core/device.h"

namespace qel::board {

enum class SerialParity : uint8_t { kNone, kOdd, kEven };  // numbered as in the attributes of a port

struct SerialFormat {
    uint32_t baud = 9600;
    uint8_t data_bits = 8;
    SerialParity parity = SerialParity::kNone;
    uint8_t stop_bits = 1;

    bool operator==(const SerialFormat &) const = default;
    unsigned bits_per_byte() const {
        return 1u + data_bits + (parity != SerialParity::kNone ? 1u : 0u) + stop_bits;
    }
    // What one byte takes on the line.
    int64_t byte_ns() const { return int64_t{1000000000} * bits_per_byte() / (baud > 0 ? baud : 1); }
    std::string text() const;  // "9600 8N1"
};

constexpr size_t kAttributeBytes = 8;
// The eight bytes that drivers take as a port's attributes: baud rate, data bits, parity, stop bits (0 or 2)
// and flow control, which is not looked at. False: no line can be set like that.
bool parse_attributes(Bytes record, SerialFormat &format);

// Termios speed codes (B9600) and their numbers; 0 = no such speed.
uint32_t baud_of_code(uint32_t code);
uint32_t code_of_baud(uint32_t baud);

// What a receiver set to `to` reads when a sender set to `from` sends `bytes` without a pause. The same where
// the formats are (within the 2 % that every receiver takes); otherwise the levels on the wire are sampled
// as a UART does it, from the edge of the start bit on. A stop bit that is low makes the byte a 0, as the
// kernel delivers a framing error; a wrong parity bit goes unnoticed, as it does without INPCK.
Buffer received_as(Bytes bytes, const SerialFormat &from, const SerialFormat &to);

}  // namespace qel::board
