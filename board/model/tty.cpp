// tty.cpp - "/dev/ttyS0" and the like: a serial line behind a pseudo-terminal of the host, which the
// processes read and write themselves. What that cannot hold (data bits, parity) or answer (line status, an
// honest drain) is kept and answered here.
//
// The test's face is the line's. One whose plug is pulled is not there: readers get the end of file, opening
// it fails.
#include <termios.h>
#include <unistd.h>
#include <chrono>
#include <cstring>
#include <map>
#include <optional>

#include "board/core/report.h"
#include "board/model/port_map.h"
#include "board/model/serial_line.h"
#include "board/model/serial_pty.h"

namespace qel::board {

namespace {

constexpr uint32_t kTransmitterEmpty = 1;  // TIOCSER_TEMT
constexpr size_t kChunkBytes = 4096;
using Clock = std::chrono::steady_clock;  // the host's
// What a process wrote comes out at our end within this time of the host's clock; what does not was discarded
// by somebody's flush.
constexpr auto kLongestWay = std::chrono::milliseconds(300);
constexpr int64_t kLookEvery_ms = 10;

SerialFormat format_of(const TermSettings &settings, const SerialFormat &before) {
    SerialFormat format;
    const uint32_t baud = baud_of_code(settings.output_speed);
    format.baud = baud != 0 ? baud : before.baud;
    const uint32_t flags = settings.control_flags;
    format.data_bits = static_cast<uint8_t>(5 + ((flags & CSIZE) == CS6) + 2 * ((flags & CSIZE) == CS7) +
                                            3 * ((flags & CSIZE) == CS8));
    if ((flags & PARENB) != 0)
        format.parity = (flags & PARODD) != 0 ? SerialParity::kOdd : SerialParity::kEven;
    format.stop_bits = (flags & CSTOPB) != 0 ? 2 : 1;
    return format;
}

class Tty final : public Device, public HostEnd, public LineOwner {
public:
    Tty(Chip &chip, const Description &table) : Device(chip), line_(chip, *this, table) {}

    int open(Handle &handle) override;
    void close(Handle &handle) override;
    std::string tty_path() const override { return pty_ != nullptr ? pty_->path() : ""; }
    Answer term(Handle &handle, TermOp op, Bytes in) override;
    void power_on() override;
    void show(Report &report) const override;
    Answer poke(const std::vector<std::string> &words) override { return line_.poke(words); }

    SerialLine &line() override { return line_; }
    size_t deliver(Bytes bytes) override {
        return pty_ != nullptr ? pty_->write(bytes.data(), bytes.size()) : 0;
    }
    void collect() override;
    void wait(RunnerWaits &waits) override;
    void hang_up() override;
    const Device &device() const override { return *this; }

private:
    bool make_pty();
    void set(const TermSettings &settings);
    void flush(uint32_t queue);
    void note_written(const Handle &handle, Bytes in);
    bool is_sent();
    void forget_counts();

    SerialLine line_;
    std::unique_ptr<Pty> pty_;  // made when first opened
    pid_t owner_ = -1;          // whose it is: a child after fork() makes its own
    bool is_set_ = false;
    TermSettings settings_{};

    // Of the bytes that processes wrote: what they told, and what came out here.
    std::map<uint32_t, int64_t> told_;  // by open handle
    int64_t told_before_ = 0;           // by those closed
    int64_t collected_ = 0;
    std::optional<Clock::time_point> missing_since_;
    bool draining_ = false;
};

bool Tty::make_pty() {
    if (pty_ != nullptr && owner_ == ::getpid()) return true;
    pty_ = Pty::make(Pty::Held::kOpen, false);
    owner_ = ::getpid();
    forget_counts();
    return pty_ != nullptr;
}

int Tty::open(Handle &handle) {
    if (!line_.is_plugged()) return -ENODEV;
    if (!make_pty()) return -ENOSPC;
    if (told_.empty()) pty_->forget_unread();  // what was on its way when the last one closed it
    told_[handle.id] = 0;
    line_.set_open(true);
    return 0;
}

void Tty::close(Handle &handle) {
    const auto told = told_.find(handle.id);
    if (told == told_.end()) return;
    collect();
    told_before_ += told->second;
    told_.erase(told);
    if (!told_.empty()) return;
    told_before_ = std::max(told_before_, collected_);
    line_.set_open(false);
    if (pty_ != nullptr) pty_->forget_unread();
}

void Tty::collect() {
    if (pty_ == nullptr) return;
    uint8_t chunk[kChunkBytes];
    while (pty_ != nullptr && line_.takes_more_from_host()) {  // a fault may hang up on the way
        const size_t got = pty_->read(chunk, sizeof(chunk));
        if (got == 0) break;
        // Programs of the host may have set it behind our back.
        SerialFormat format = line_.format();
        if (const uint32_t baud = pty_->baud(); baud != 0) format.baud = baud;
        line_.set_format(format);
        collected_ += static_cast<int64_t>(got);
        missing_since_.reset();
        line_.transmit(Bytes(chunk, got));
    }
    if (draining_ && is_sent()) {
        draining_ = false;  // those who still wait say so again
        chip().changed();
    }
}

void Tty::wait(RunnerWaits &waits) {
    if (pty_ == nullptr) return;
    const int events = (line_.takes_more_from_host() ? POLLIN : 0) | (line_.has_undelivered() ? POLLOUT : 0);
    if (events != 0) waits.watch(pty_->fd(), static_cast<short>(events));
    if (draining_ && missing_since_) waits.wake_at(chip().in_host_ms(kLookEvery_ms));
}

void Tty::note_written(const Handle &handle, Bytes in) {
    TermAction action{};
    if (in.size() != sizeof(action)) return;
    memcpy(&action, in.data(), sizeof(action));
    const auto told = told_.find(handle.id);
    const auto written = static_cast<int64_t>(uint64_t{action.written_high} << 32 | action.written_low);
    if (told != told_.end()) told->second = std::max(told->second, written);
}

// Whether all that the processes told of has left the line.
bool Tty::is_sent() {
    int64_t told = told_before_;
    for (const auto &[handle, count] : told_) told += count;
    if (collected_ < told) {
        if (!missing_since_) missing_since_ = Clock::now();
        if (Clock::now() - *missing_since_ < kLongestWay || pty_->has_input()) return false;
        collected_ = told;
    }
    missing_since_.reset();
    return line_.transmitter_empty();
}

void Tty::forget_counts() {
    told_.clear();
    told_before_ = collected_ = 0;
    missing_since_.reset();
    draining_ = false;
}

void Tty::set(const TermSettings &settings) {
    settings_ = settings;
    is_set_ = true;
    line_.set_format(format_of(settings, line_.format()));
}

void Tty::flush(uint32_t queue) {
    if (queue != TCOFLUSH) line_.discard_received();
    if (queue == TCIFLUSH) return;
    line_.discard_unsent();
    // What was discarded on the way will never come.
    told_before_ = collected_;
    for (const auto &[handle, count] : told_) told_before_ -= count;
}

Answer Tty::term(Handle &handle, TermOp op, Bytes in) {
    if (told_.count(handle.id) == 0) return Answer::fail(EIO);  // the plug was pulled since
    collect();
    switch (op) {
        case TermOp::kSet: {
            TermSettings settings{};
            if (in.size() != sizeof(settings)) return Answer::fail(EINVAL);
            memcpy(&settings, in.data(), sizeof(settings));
            set(settings);
            return Answer::ok();
        }
        case TermOp::kGet: {
            if (!is_set_) return Answer::fail(ENODATA);
            const auto *first = reinterpret_cast<const uint8_t *>(&settings_);
            return Answer::ok(0, Buffer(first, first + sizeof(settings_)));
        }
        case TermOp::kFlush: {
            note_written(handle, in);
            TermAction action{};
            if (in.size() == sizeof(action)) memcpy(&action, in.data(), sizeof(action));
            flush(action.value);
            return Answer::ok();
        }
        case TermOp::kDrain:
            note_written(handle, in);
            if (is_sent()) return Answer::ok();
            draining_ = true;
            chip().wake_runners();
            return Answer::ask_again();
        case TermOp::kLineStatus: {
            note_written(handle, in);
            const bool sent = is_sent();
            if (!sent) chip().wake_runners();
            return Answer::ok(0, {static_cast<uint8_t>(sent ? kTransmitterEmpty : 0), 0, 0, 0});
        }
        default:
            return Answer::ok();
    }
}

void Tty::hang_up() {
    pty_.reset();  // whoever reads it gets the end of file
    forget_counts();
    line_.set_open(false);
}

void Tty::power_on() {
    pty_.reset();
    forget_counts();
    is_set_ = false;
    line_.power_on();
}

void Tty::show(Report &report) const {
    report.value("terminal", pty_ != nullptr ? pty_->path() : std::string("not open"));
    line_.show(report);
}

void build(Chip &chip, const Description &table) {
    const std::string node = table.required_text("node");
    try {
        chip.add(node, std::make_unique<Tty>(chip, table));
    } catch (const std::invalid_argument &error) {
        table.fail("node", error.what());
    }
}

}  // namespace

extern const DeviceClass kTtyClass = {"tty", "serial line", {}, build};

}  // namespace qel::board
