#include "board/model/serial_line.h"

#include <algorithm>

#include "board/core/errors.h"
#include "board/core/report.h"
#include "board/model/port_map.h"

namespace qel::board {

namespace {

constexpr size_t kMostWaiting = 65536;   // bytes on their way before the sender is held up
constexpr size_t kMostUnread = 1 << 20;  // towards a host that does not read; of more the newest are lost
constexpr size_t kMostMessages = 65536;  // of a peer whose moment has not come; of more the newest are lost
constexpr size_t kFramesKept = 8;
constexpr int64_t kMostBaud = 4'000'000;
// A timed line is not served for every single byte.
constexpr int64_t kServeEvery_ms = 2;  // of the host's clock

void append(Buffer &to, Bytes bytes) { to.insert(to.end(), bytes.begin(), bytes.end()); }

int64_t since(int64_t from_us, int64_t to_us) { return from_us >= 0 && to_us >= 0 ? to_us - from_us : -1; }

}  // namespace

SerialLine::SerialLine(Chip &chip, HostEnd &host, const Description &table)
    : chip_(chip), host_(host), port_(table.number("port", 0, kLastPort, -1)) {
    const bool timed = table.flag("timed", false);
    to_peer_.set_timed(timed);
    to_host_.set_timed(timed);
    const std::vector<Description> peers = table.tables("peer");
    if (peers.size() > 1) table.fail("peer", "a line has one peer");
    peer_baud_ = 0;
    polite_ = true;
    if (peers.empty()) {
        peer_ = make_pty_peer(*this);
    } else {
        peer_baud_ = static_cast<uint32_t>(peers[0].number("baud", 0, kMostBaud, 0));
        polite_ = peers[0].flag("polite", true);
        peer_ = make_peer(*this, peers[0]);
    }
    chip_.add_runner(*this);
}

void SerialLine::set_open(bool open) {
    if (open == open_) return;
    open_ = open;
    if (open) {
        unheard_bytes_ += forget_messages();
        peer_->line_opened();
        chip_.wake_runners();
        return;
    }
    to_host_.clear();
    undelivered_.clear();
}

// What the peer was still to say to nobody.
int64_t SerialLine::forget_messages() {
    int64_t bytes = 0;
    for (const Message &message : messages_) bytes += static_cast<int64_t>(message.bytes.size());
    messages_.clear();
    return bytes;
}

void SerialLine::set_format(const SerialFormat &format) {
    if (format == format_) return;
    format_ = format;
    peer_->line_set(format);
}

void SerialLine::discard_unsent() {
    to_peer_.take_back(now_us());
    chip_.wake_runners();
}

void SerialLine::discard_received() {
    hand_over();
    undelivered_.clear();
}

SerialFormat SerialLine::peer_format() const {
    if (peer_baud_ != 0) {
        SerialFormat own = format_;
        own.baud = peer_baud_;
        return own;
    }
    const SerialFormat *own = peer_->own_format();
    return own != nullptr ? *own : format_;
}

// ---- the host talks ----

void SerialLine::transmit(Bytes bytes) {
    if (bytes.empty()) return;
    const auto count = static_cast<int64_t>(bytes.size());
    sent_bytes_ += count;
    if (!running_) chip_.wake_runners();
    if (!plugged_) {
        unheard_bytes_ += count;
        return;
    }
    if (controls_direction() && !transmitting_) {
        undriven_bytes_ += count;
        chip_.report_misuse(host_.device(),
                            std::to_string(count) + " bytes written while the RS-485 driver was off");
        return;
    }
    if (driver_on()) {
        if (frame_.first_us < 0) frame_.first_us = now_us();
        frame_.bytes += count;
    }
    chip_.trace_line(host_.name(), false, bytes);
    const bool collides = rs485_ && !to_host_.is_silent(now_us());
    send_with_faults(to_peer_, bytes, false);
    was_busy_ = true;
    was_full_ = was_full_ || !takes_more_from_host();
    if (!collides) return;
    ++collisions_;
    to_peer_.garble(now_us());
    to_host_.garble(now_us());
}

bool SerialLine::takes_more_from_host() const { return unread_.size() + to_peer_.waiting() < kMostWaiting; }

// ---- the peer talks ----

void SerialLine::send(Bytes bytes, int64_t after_us) {
    if (messages_.size() == kMostMessages) {
        unheard_bytes_ += static_cast<int64_t>(bytes.size());
        return;
    }
    const int64_t at_us = now_us() + after_us;
    const auto later = [](int64_t moment, const Message &message) { return moment < message.at_us; };
    messages_.insert(std::upper_bound(messages_.begin(), messages_.end(), at_us, later),
                     {at_us, Buffer(bytes.begin(), bytes.end())});
    if (!running_) chip_.wake_runners();
}

bool SerialLine::takes_more() const {
    return undelivered_.size() + to_host_.waiting() < kMostWaiting && messages_.size() < kMostWaiting / 64;
}

void SerialLine::send_due_messages() {
    while (!messages_.empty() && messages_.front().at_us <= now_us()) {
        if (polite_ && driver_on()) return;
        const Buffer bytes = std::move(messages_.front().bytes);
        messages_.pop_front();
        put_on_wire(bytes);
    }
}

void SerialLine::put_on_wire(Bytes bytes) {
    const bool overrun = undelivered_.size() + to_host_.waiting() + bytes.size() > kMostUnread;
    if (!open_ || !plugged_ || overrun || driver_on()) {
        unheard_bytes_ += static_cast<int64_t>(bytes.size());
        if (!plugged_ || !driver_on() || to_peer_.is_silent(now_us())) return;
        ++collisions_;
        to_peer_.garble(now_us());
        return;
    }
    send_with_faults(to_host_, bytes, true);
}

// ---- the wire ----

void SerialLine::send_with_faults(SerialWire &wire, Bytes bytes, bool to_host) {
    const SerialFormat from = to_host ? peer_format() : format_;
    const SerialFormat to = to_host ? format_ : peer_format();
    if (!chip_.has_faults()) {
        wire.send(bytes, from, to, now_us());
        return;
    }
    const std::string name = host_.name();
    Buffer run;  // bytes without a delay of their own
    for (const uint8_t byte : bytes) {
        const LineFault fault = chip_.line_fault(name, to_host);
        if (fault.hangs_up) {
            wire.send(run, from, to, now_us());
            pull_plug();
            return;
        }
        if (fault.lost) continue;
        if (fault.delay_ms > 0) {
            wire.send(run, from, to, now_us());
            run.clear();
        }
        run.insert(run.end(), fault.twice ? 2 : 1, static_cast<uint8_t>(byte ^ fault.flips));
        if (fault.delay_ms == 0) continue;
        wire.send(run, from, to, now_us(), fault.delay_ms * 1000);
        run.clear();
    }
    wire.send(run, from, to, now_us());
}

void SerialLine::pull_plug() {
    hand_over();  // what has arrived, has arrived
    to_peer_.take_back(now_us());
    to_host_.clear();
    plugged_ = false;
    host_.hang_up();
    chip_.changed();
    chip_.wake_runners();
}

// True when the peer got something.
bool SerialLine::hand_over() {
    const Buffer in = to_host_.arrived(now_us());
    received_bytes_ += static_cast<int64_t>(in.size());
    chip_.trace_line(host_.name(), true, in);
    append(undelivered_, in);
    if (!undelivered_.empty()) {
        const auto taken = static_cast<ptrdiff_t>(host_.deliver(undelivered_));
        undelivered_.erase(undelivered_.begin(), undelivered_.begin() + taken);
    }
    append(unread_, to_peer_.arrived(now_us()));
    if (unread_.empty() || !peer_->takes_more()) return false;
    const Buffer out = std::move(unread_);
    unread_.clear();
    peer_->receive(out);
    return true;
}

void SerialLine::run(RunnerWaits &waits) {
    running_ = true;
    host_.collect();
    hand_over();
    send_due_messages();
    hand_over();
    peer_->run(waits);
    send_due_messages();
    if (hand_over()) waits.wake_at(now_us());  // the peer may want something else now
    const bool busy = !transmitter_empty();
    if (was_busy_ && !busy) chip_.changed();
    was_busy_ = busy;
    const bool full = !takes_more_from_host();
    if (was_full_ && !full) chip_.changed();
    was_full_ = full;
    host_.wait(waits);
    wait(waits);
    running_ = false;
}

void SerialLine::wait(RunnerWaits &waits) const {
    for (const SerialWire *wire : {&to_peer_, &to_host_}) {
        if (!wire->is_empty())
            waits.wake_at(std::clamp(chip_.in_host_ms(kServeEvery_ms), wire->next_arrival_us(),
                                     wire->last_arrival_us()));
    }
    if (was_busy_) waits.wake_at(to_peer_.silent_us());
    if (!messages_.empty() && !(polite_ && driver_on())) waits.wake_at(messages_.front().at_us);
}

// ---- the port's wiring ----

void SerialLine::set_wiring(const PortWiring &wiring) {
    wiring_ = wiring;
    rs485_ = wiring.starts_rs485;
}

int SerialLine::set_direction(bool transmit) {
    if (!wiring_.has_direction) return -EINVAL;
    host_.collect();
    if (transmit == transmitting_) return 0;
    if (transmit) {
        hand_over();
        if (controls_direction() && !to_host_.is_empty()) {
            ++collisions_;
            unheard_bytes_ += static_cast<int64_t>(to_host_.waiting());
            to_host_.lose();
        }
        frame_ = {.on_us = now_us()};
        transmitting_ = true;
        return 0;
    }
    if (frame_.bytes > 0) frame_.empty_us = std::max(frame_.first_us, to_peer_.silent_us());
    frame_.off_us = now_us();
    if (controls_direction() && !transmitter_empty()) {
        chip_.report_misuse(host_.device(), "the RS-485 driver was turned off before the last byte had left");
        to_peer_.take_back(now_us());
    }
    transmitting_ = false;
    frames_.push_back(frame_);
    if (frames_.size() > kFramesKept) frames_.pop_front();
    chip_.wake_runners();
    return 0;
}

int SerialLine::set_rs485(bool rs485) {
    if (rs485 != rs485_ && !wiring_.can_switch) return -EINVAL;
    rs485_ = rs485;
    return 0;
}

void SerialLine::power_on() {
    to_peer_.clear();
    to_host_.clear();
    undelivered_.clear();
    unread_.clear();
    messages_.clear();
    frames_.clear();
    rs485_ = wiring_.starts_rs485;
    transmitting_ = open_ = was_busy_ = was_full_ = false;
    plugged_ = true;
    format_ = {};
    peer_->power_on();
    peer_->line_set(format_);
}

// ---- for people ----

void SerialLine::show(Report &report) const {
    if (const std::string far = peer_->far_path(); !far.empty()) {
        report.value("far end", far);
        chip_.wake_runners();  // a program may come there now
    }
    if (port_ >= 0) report.value("port", port_);
    if (!plugged_) report.value("plug", std::string("pulled"));
    report.value("settings", format_.text());
    if (!(peer_format() == format_)) report.value("settings of the far end", peer_format().text());
    report.value("mode", std::string(rs485_ ? "RS-485" : "RS-232"));
    if (wiring_.has_direction) report.value("direction", std::string(transmitting_ ? "transmit" : "receive"));
    report.value("timed", to_peer_.is_timed());
    report.value("bytes sent", sent_bytes_);
    report.value("bytes received", received_bytes_);
    if (unheard_bytes_ > 0) report.value("bytes nobody heard", unheard_bytes_);
    if (undriven_bytes_ > 0) report.value("bytes sent without driver", undriven_bytes_);
    if (collisions_ > 0) report.value("collisions", collisions_);
    peer_->show(report);
    if (frames_.empty()) return;
    report.table("last frames", {"bytes", "on to first us", "first to empty us", "empty to off us"});
    for (const Frame &frame : frames_) {
        report.row({frame.bytes, since(frame.on_us, frame.first_us), since(frame.first_us, frame.empty_us),
                    since(frame.empty_us, frame.off_us)});
    }
}

Answer SerialLine::poke(const std::vector<std::string> &words) {
    if (words.size() == 2 && words[0] == "send") {
        std::vector<uint8_t> bytes;
        if (!parse_hex(words[1], bytes)) return Answer::fail(EINVAL);
        send(bytes, 0);
    } else if (words.size() == 2 && words[0] == "timed" && (words[1] == "0" || words[1] == "1")) {
        to_peer_.set_timed(words[1] == "1");
        to_host_.set_timed(words[1] == "1");
    } else if (words.size() == 1 && words[0] == "hang-up") {
        pull_plug();
    } else if (words.size() == 1 && words[0] == "plug") {
        plugged_ = true;
    } else {
        Answer answer = peer_->poke(words);
        chip_.wake_runners();
        return answer;
    }
    chip_.wake_runners();
    return Answer::ok();
}

}  // namespace qel::board
