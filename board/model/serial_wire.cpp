#include "board/model/serial_wire.h"

#include <algorithm>

namespace qel::board {

void SerialWire::send(Bytes bytes, const SerialFormat &from, const SerialFormat &to, int64_t now_us,
                      int64_t extra_us) {
    if (bytes.empty()) return;
    if (now_us > busy_until_us_) {
        busy_until_us_ = now_us;
        busy_until_ns_ = 0;
    }
    const int64_t start_us = busy_until_us_;
    const int64_t takes_ns = timed_ ? from.byte_ns() * static_cast<int64_t>(bytes.size()) : 0;
    const Buffer read = received_as(bytes, from, to);
    const int64_t end_ns = busy_until_ns_ + takes_ns;  // from start_us on
    busy_until_us_ += end_ns / 1000;
    busy_until_ns_ = end_ns % 1000;
    const auto count = static_cast<int64_t>(read.size());
    for (size_t i = 0; i < read.size(); ++i) {
        // The last one arrives when the line falls silent, the others evenly before.
        const int64_t before_ns = takes_ns / count * (count - 1 - static_cast<int64_t>(i));
        const int64_t arrives_us = start_us + (end_ns - before_ns + 999) / 1000 + extra_us;
        // An extra delay of an earlier byte holds up the later ones.
        bytes_.push_back({std::max(arrives_us, last_arrival_us()), read[i]});
    }
}

Buffer SerialWire::arrived(int64_t now_us) {
    Buffer out;
    while (!bytes_.empty() && bytes_.front().arrives_us <= now_us) {
        out.push_back(bytes_.front().byte);
        bytes_.pop_front();
    }
    return out;
}

void SerialWire::garble(int64_t now_us) {
    for (Travelling &travelling : bytes_) {
        if (travelling.arrives_us <= now_us || travelling.garbled) continue;
        travelling.byte = static_cast<uint8_t>(~travelling.byte);
        travelling.garbled = true;
    }
}

void SerialWire::take_back(int64_t now_us) {
    while (!bytes_.empty() && bytes_.back().arrives_us > now_us) bytes_.pop_back();
    if (is_silent(now_us)) return;
    busy_until_us_ = now_us;
    busy_until_ns_ = 0;
}

void SerialWire::clear() {
    bytes_.clear();
    busy_until_us_ = busy_until_ns_ = 0;
}

}  // namespace qel::board
