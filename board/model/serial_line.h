// serial_line.h - one serial line of a chip: between the end that its processes hold (a tty, a driver's UART)
// and the peer at the other. Here live the port's direction line, its 485/232 switch and the wire's faults.
#pragma once

#include <array>
#include <deque>
#include <memory>

#include "board/core/chip.h"
#include "board/core/description.h"
#include "board/model/serial_wire.h"
#include "board/peer/peer.h"

namespace qel::board {

// The host's end, as the line sees it.
class HostEnd {
public:
    virtual ~HostEnd() = default;
    // Bytes that arrived; how many found room. The line offers the rest again.
    virtual size_t deliver(Bytes bytes) = 0;
    // Puts what the host has written on the line with SerialLine::transmit.
    virtual void collect() = 0;
    // What it watches for the line (runner.h).
    virtual void wait(RunnerWaits &) {}
    // The plug was pulled. Called from within collect() too.
    virtual void hang_up() {}
    virtual const Device &device() const = 0;
    // What faults and the trace call the line.
    virtual std::string name() const { return device().node(); }
};

// How a port of the board is wired; of the port map.
struct PortWiring {
    bool has_direction = false;    // a line that turns the RS-485 driver round
    bool turns_by_itself = false;  // the driver needs no such line: the software does not use it
    bool can_switch = false;       // between RS-485 and RS-232
    bool starts_rs485 = false;
};

class SerialLine final : public PeerPort, public Runner {
public:
    // Reads the keys that all lines have: port, timed, peer and those of the peer's format.
    SerialLine(Chip &chip, HostEnd &host, const Description &table);

    // ---- the host's side ----
    void set_open(bool open);
    void set_format(const SerialFormat &format);
    const SerialFormat &format() const { return format_; }
    void transmit(Bytes bytes);
    // Whether the line can take more from the host at once.
    bool takes_more_from_host() const;
    bool transmitter_empty() const { return to_peer_.is_silent(now_us()); }
    void discard_unsent();
    void discard_received();
    // Bytes wait for room at the host's end.
    bool has_undelivered() const { return !undelivered_.empty(); }
    bool is_plugged() const { return plugged_; }

    // ---- the port's wiring; 0 or -errno ----
    int64_t port() const { return port_; }  // -1: none
    void set_wiring(const PortWiring &wiring);
    int set_direction(bool transmit);
    int set_rs485(bool rs485);
    bool is_rs485() const { return rs485_; }

    // ---- PeerPort ----
    void send(Bytes bytes, int64_t after_us) override;
    bool takes_more() const override;
    int64_t now_us() const override { return chip_.now_us(); }
    int64_t in_host_ms(int64_t ms) const override { return chip_.in_host_ms(ms); }

    // ---- Runner ----
    void run(RunnerWaits &waits) override;

    void power_on();
    void show(Report &report) const;
    // "send HEX": the far end says it; "timed 0" or "timed 1"; "hang-up" pulls the plug, "plug" puts it in
    // again; anything else is for the peer.
    Answer poke(const std::vector<std::string> &words);

private:
    // What one spell of the driver being on did. Moments of the board's clock, -1 = has not been.
    struct Frame {
        int64_t on_us = -1;
        int64_t first_us = -1;  // the first byte began
        int64_t empty_us = -1;  // the last bit had left
        int64_t off_us = -1;
        int64_t bytes = 0;
    };
    struct Message {
        int64_t at_us;
        Buffer bytes;
    };
    bool controls_direction() const { return rs485_ && wiring_.has_direction && !wiring_.turns_by_itself; }
    bool driver_on() const { return controls_direction() && transmitting_; }
    SerialFormat peer_format() const;
    int64_t forget_messages();
    void send_due_messages();
    void put_on_wire(Bytes bytes);
    void pull_plug();
    void send_with_faults(SerialWire &wire, Bytes bytes, bool to_host);
    bool hand_over();
    void wait(RunnerWaits &waits) const;

    Chip &chip_;
    HostEnd &host_;
    int64_t port_;
    PortWiring wiring_;
    SerialFormat format_;
    uint32_t peer_baud_;  // 0: as the host
    bool polite_;
    std::unique_ptr<Peer> peer_;

    bool open_ = false;
    bool plugged_ = true;
    bool rs485_ = false;
    bool transmitting_ = false;
    SerialWire to_peer_;
    SerialWire to_host_;
    Buffer undelivered_;  // arrived at the host's end, which has no room yet
    Buffer unread_;       // arrived at a peer that takes no more
    std::deque<Message> messages_;
    // At any time since it last ran: somebody may wait for the end of it.
    bool was_busy_ = false;
    bool was_full_ = false;
    bool running_ = false;  // in run(), which hands over what is sent meanwhile

    Frame frame_;
    std::deque<Frame> frames_;  // the last ones
    int64_t sent_bytes_ = 0, received_bytes_ = 0;
    int64_t unheard_bytes_ = 0;   // the driver was on when the peer talked, or nobody was there
    int64_t undriven_bytes_ = 0;  // the host talked with its driver off
    int64_t collisions_ = 0;
};

}  // namespace qel::board
