// serial_wire.h - one direction of a serial line: bytes enter at one end and leave, later and perhaps
// changed, at the other.
#pragma once

#include <cstdint>
#include <deque>

#include "board/model/serial_format.h"

namespace qel::board {

class SerialWire {
public:
    // Bytes take their time at the sender's rate; otherwise none.
    void set_timed(bool timed) { timed_ = timed; }
    bool is_timed() const { return timed_; }

    // The sender puts bytes on the wire behind those that are still leaving.
    void send(Bytes bytes, const SerialFormat &from, const SerialFormat &to, int64_t now_us,
              int64_t extra_us = 0);
    // What has arrived by now.
    Buffer arrived(int64_t now_us);
    // Two ends talk at once: what has not arrived yet arrives wrong.
    void garble(int64_t now_us);
    // Nobody hears what has not arrived yet. The sender goes on all the same.
    void lose() { bytes_.clear(); }
    // Takes back what has not left the sender yet.
    void take_back(int64_t now_us);

    // Whether the last bit has left the sender.
    bool is_silent(int64_t now_us) const { return now_us >= silent_us(); }
    int64_t silent_us() const { return busy_until_us_ + (busy_until_ns_ > 0 ? 1 : 0); }
    bool is_empty() const { return bytes_.empty(); }
    size_t waiting() const { return bytes_.size(); }
    int64_t last_arrival_us() const { return bytes_.empty() ? -1 : bytes_.back().arrives_us; }
    int64_t next_arrival_us() const { return bytes_.empty() ? -1 : bytes_.front().arrives_us; }
    void clear();

private:
    struct Travelling {
        int64_t arrives_us;
        uint8_t byte;
        bool garbled = false;
    };
    bool timed_ = false;
    int64_t busy_until_us_ = 0;
    int64_t busy_until_ns_ =
        0;  // and so much more, 0 to 999: fast boards count too far for nanoseconds alone
    std::deque<Travelling> bytes_;
};

}  // namespace qel::board
