#include "board/model/serial_wire.h"

#include <algorithm>

namespace qel::board {

void SerialWire::send(Bytes bytes, const SerialFormat &from, const SerialFormat &to, int64_t now_us,
                      int64_t extra_us) {
    if (bytes.empty()) return;
    const int64_t start_ns = std::max(busy_until_ns_, now_us * 1000);
    const int64_t takes_ns = timed_ ? from.byte_ns() * static_cast<int64_t>(bytes.size()) : 0;
    const Buffer read = received_as(bytes, from, to);
    busy_until_ns_ = start_ns + takes_ns;
    for (size_t i = 0; i < read.size(); ++i) {
        const int64_t part_ns = takes_ns * static_cast<int64_t>(i + 1) / static_cast<int64_t>(read.size());
        const int64_t arrives_us = (start_ns + part_ns + 999) / 1000 + extra_us;
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

size_t SerialWire::garble(int64_t now_us) {
    size_t count = 0;
    for (Travelling &travelling : bytes_) {
        if (travelling.arrives_us <= now_us) continue;
        travelling.byte = static_cast<uint8_t>(~travelling.byte);
        ++count;
    }
    return count;
}

void SerialWire::take_back(int64_t now_us) {
    while (!bytes_.empty() && bytes_.back().arrives_us > now_us) bytes_.pop_back();
    busy_until_ns_ = std::min(busy_until_ns_, now_us * 1000);
}

void SerialWire::clear() {
    bytes_.clear();
    busy_until_ns_ = 0;
}

}  // namespace qel::board
