#include "board/model/serial_format.h"

#include <termios.h>
#include <algorithm>
#include <array>
#include <bit>

#include "board/model/records.h"

namespace qel::board {

namespace {

struct Speed {
    uint32_t code;
    uint32_t baud;
};
constexpr std::array<Speed, 30> kSpeeds = {{
    {B50, 50},           {B75, 75},           {B110, 110},         {B134, 134},         {B150, 150},
    {B200, 200},         {B300, 300},         {B600, 600},         {B1200, 1200},       {B1800, 1800},
    {B2400, 2400},       {B4800, 4800},       {B9600, 9600},       {B19200, 19200},     {B38400, 38400},
    {B57600, 57600},     {B115200, 115200},   {B230400, 230400},   {B460800, 460800},   {B500000, 500000},
    {B576000, 576000},   {B921600, 921600},   {B1000000, 1000000}, {B1152000, 1152000}, {B1500000, 1500000},
    {B2000000, 2000000}, {B2500000, 2500000}, {B3000000, 3000000}, {B3500000, 3500000}, {B4000000, 4000000},
}};

// The levels on a wire, bit after bit of the sender.
class Waveform {
public:
    Waveform(Bytes bytes, const SerialFormat &format) : bit_ns_(1e9 / format.baud) {
        levels_.reserve(bytes.size() * format.bits_per_byte());
        for (const uint8_t byte : bytes) put_byte(byte, format);
    }
    // High behind the end: the line is idle.
    bool level_at(double ns) const {
        const auto bit = static_cast<size_t>(ns / bit_ns_);
        return bit >= levels_.size() || levels_[bit];
    }
    // The first moment from `ns` on at which the line is low; negative: never again.
    double next_low(double ns) const {
        const double at = next(ns, false);
        return static_cast<size_t>(at / bit_ns_) < levels_.size() ? at : -1;
    }
    double next_high(double ns) const { return next(ns, true); }

private:
    double next(double ns, bool level) const {
        auto bit = static_cast<size_t>(ns / bit_ns_);
        if (bit >= levels_.size() || levels_[bit] == level) return ns;
        while (bit < levels_.size() && levels_[bit] != level) ++bit;
        // A little behind the edge, so that the moment is of that bit whatever was rounded.
        return (static_cast<double>(bit) + 1e-6) * bit_ns_;
    }
    void put_byte(uint8_t byte, const SerialFormat &format) {
        const unsigned data = byte & ((1u << format.data_bits) - 1);
        levels_.push_back(false);
        for (unsigned bit = 0; bit < format.data_bits; ++bit) levels_.push_back((data >> bit & 1) != 0);
        const bool odd_ones = std::popcount(data) % 2 != 0;
        if (format.parity != SerialParity::kNone)
            levels_.push_back(odd_ones == (format.parity == SerialParity::kEven));
        levels_.insert(levels_.end(), format.stop_bits, true);
    }

    double bit_ns_;
    std::vector<bool> levels_;
};

bool is_near(const SerialFormat &a, const SerialFormat &b) {
    const int64_t apart = std::abs(int64_t{a.baud} - int64_t{b.baud});
    return a.data_bits == b.data_bits && a.parity == b.parity && apart * 50 <= int64_t{a.baud};
}

}  // namespace

std::string SerialFormat::text() const {
    return std::to_string(baud) + " " + std::to_string(data_bits) + "NOE"[static_cast<size_t>(parity)] +
           std::to_string(stop_bits);
}

bool parse_attributes(Bytes record, SerialFormat &format) {
    if (record.size() < kAttributeBytes) return false;
    const uint32_t baud = get_u32(record, 0);
    const uint8_t data_bits = record[4];
    const uint8_t parity = record[5];
    const uint8_t stop_bits = record[6];
    const bool known =
        baud > 0 && data_bits >= 5 && data_bits <= 8 && parity <= 2 && (stop_bits == 0 || stop_bits == 2);
    if (known) format = {baud, data_bits, SerialParity{parity}, static_cast<uint8_t>(stop_bits == 2 ? 2 : 1)};
    return known;
}

uint32_t baud_of_code(uint32_t code) {
    for (const Speed &speed : kSpeeds) {
        if (speed.code == code) return speed.baud;
    }
    return 0;
}

uint32_t code_of_baud(uint32_t baud) {
    for (const Speed &speed : kSpeeds) {
        if (speed.baud == baud) return speed.code;
    }
    return 0;
}

Buffer received_as(Bytes bytes, const SerialFormat &from, const SerialFormat &to) {
    Buffer out;
    if (is_near(from, to)) {
        const auto mask = static_cast<uint8_t>((1u << from.data_bits) - 1);
        for (const uint8_t byte : bytes) out.push_back(byte & mask);
        return out;
    }
    const Waveform wave(bytes, from);
    const double bit_ns = 1e9 / to.baud;
    const unsigned parity_bits = to.parity != SerialParity::kNone ? 1 : 0;
    for (double start = wave.next_low(0); start >= 0;) {
        if (wave.level_at(start + bit_ns / 2)) {  // too short for a start bit
            start = wave.next_low(start + bit_ns / 2);
            continue;
        }
        unsigned value = 0;
        for (unsigned bit = 0; bit < to.data_bits; ++bit)
            value |= unsigned{wave.level_at(start + bit_ns * (1.5 + bit))} << bit;
        const double stop = start + bit_ns * (1.5 + to.data_bits + parity_bits);
        const bool framed = wave.level_at(stop);
        out.push_back(framed ? static_cast<uint8_t>(value) : 0);
        start = wave.next_low(stop);
        // A line that stays low is one broken byte, not many.
        if (!framed && start == stop) start = wave.next_low(wave.next_high(stop));
    }
    return out;
}

}  // namespace qel::board
