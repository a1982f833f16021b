// uart.cpp - "/dev/qecUart0" and the like: serial lines behind the configuration driver, driven by requests
// alone. A line that nobody has started since it was opened answers EIO to those that move bytes.
#include <algorithm>
#include <cstring>
#include <set>

#include "board/core/report.h"
#include "board/model/port_map.h"
#include "board/model/records.h"
#include "board/model/serial_fifo.h"

namespace qel::board {

namespace {

constexpr uint32_t kGetAttributes = 0xC0044D01;
constexpr uint32_t kSetAttributes = 0xC0044D02;
constexpr uint32_t kDrain = 0xC0044D05;
constexpr uint32_t kRead = 0xC0044D70;
constexpr uint32_t kWrite = 0xC0044D71;
constexpr uint32_t kStart = 0xC0044D72;
constexpr uint32_t kDiscardInput = 0xC0044D74;
constexpr uint32_t kDiscardOutput = 0xC0044D75;
constexpr uint32_t kSuspendOutput = 0xC0044D76;
constexpr uint32_t kSendStop = 0xC0044D78;
constexpr uint32_t kWaitReadable = 0xC0044D80;

constexpr size_t kTransferBytes = 8;  // packed: u32 length, i32 milliseconds; a write's data follow
constexpr uint32_t kMostBytes = 1 << 20;
constexpr uint8_t kStopCharacter = 0x13;

// The driver's record of a transfer.
struct Transfer {
    void *buffer;
    uint32_t length;
    int32_t timeout_ms;
};
static_assert(sizeof(Transfer) == (sizeof(void *) == 4 ? 12 : 16));

bool pack_transfer(const void *argument, Buffer &in) {
    const auto *transfer = static_cast<const Transfer *>(argument);
    if (transfer == nullptr || transfer->buffer == nullptr) return false;
    in.resize(kTransferBytes);
    put_u32(in, 0, std::min(transfer->length, kMostBytes));
    put_u32(in, 4, static_cast<uint32_t>(transfer->timeout_ms));
    return true;
}

bool pack_write(const void *argument, Buffer &in) {
    if (!pack_transfer(argument, in)) return false;
    const auto *first = static_cast<const uint8_t *>(static_cast<const Transfer *>(argument)->buffer);
    in.insert(in.end(), first, first + get_u32(in, 0));
    return true;
}

bool unpack_read(void *argument, Bytes out) {
    auto *transfer = static_cast<Transfer *>(argument);
    transfer->length = static_cast<uint32_t>(std::min<size_t>(out.size(), transfer->length));
    std::copy_n(out.begin(), transfer->length, static_cast<uint8_t *>(transfer->buffer));
    return true;
}

constexpr RequestSpec kRequests[] = {
    {kGetAttributes, "GET_ATTRIBUTES", 0, kAttributeBytes},
    {kSetAttributes, "SET_ATTRIBUTES", kAttributeBytes, 0},
    {kDrain, "DRAIN"},
    {.code = kRead, .name = "READ", .pack = pack_transfer, .unpack = unpack_read},
    {.code = kWrite, .name = "WRITE", .pack = pack_write},
    {kStart, "START"},
    {kDiscardInput, "DISCARD_INPUT"},
    {kDiscardOutput, "DISCARD_OUTPUT"},
    {kSuspendOutput, "SUSPEND_OUTPUT"},
    {kSendStop, "SEND_STOP"},
    {.code = kWaitReadable, .name = "WAIT_READABLE", .pack = pack_transfer},
};

class Uart final : public Device, public LineOwner {
public:
    Uart(Chip &chip, const Description &table) : Device(chip), fifo_(*this), line_(chip, fifo_, table) {}

    int open(Handle &handle) override {
        handles_.insert(handle.id);
        line_.set_open(true);
        return 0;
    }
    void close(Handle &handle) override;
    Answer ioctl(Handle &handle, uint32_t request, Bytes in) override;
    bool readable(const Handle &) const override { return !fifo_.empty(); }
    void power_on() override;
    void show(Report &report) const override;
    Answer poke(const std::vector<std::string> &words) override { return line_.poke(words); }
    SerialLine &line() override { return line_; }

private:
    Answer set_attributes(Bytes in);
    Answer move(Handle &handle, uint32_t request, Bytes in);
    Answer take(const Handle &handle, Bytes in);
    Answer wait(const Handle &handle, Bytes in) const;
    static Answer wait_at_most(const Handle &handle, int32_t timeout_ms);
    Answer act(uint32_t request);

    SerialFifo fifo_;
    SerialLine line_;
    std::set<uint32_t> handles_;
    uint8_t flow_control_ = 0;
    bool started_ = false;
    bool suspended_ = false;
};

void Uart::close(Handle &handle) {
    handles_.erase(handle.id);
    if (!handles_.empty()) return;
    started_ = suspended_ = false;
    fifo_.clear();
    line_.set_open(false);
}

Answer Uart::set_attributes(Bytes in) {
    SerialFormat format;
    if (!parse_attributes(in, format)) return Answer::fail(EINVAL);
    line_.set_format(format);
    flow_control_ = in[7];
    return Answer::ok();
}

Answer Uart::wait_at_most(const Handle &handle, int32_t timeout_ms) {
    if (handle.expired || timeout_ms == 0) return Answer::ok(0);
    return Answer::ask_again(timeout_ms < 0 ? -1 : handle.started_ms + timeout_ms);
}

// How many bytes wait; 0 when the time is over.
Answer Uart::wait(const Handle &handle, Bytes in) const {
    if (!fifo_.empty()) return Answer::ok(static_cast<int64_t>(fifo_.size()));
    return wait_at_most(handle, static_cast<int32_t>(get_u32(in, 4)));
}

Answer Uart::take(const Handle &handle, Bytes in) {
    if (suspended_ || !line_.takes_more_from_host())
        return wait_at_most(handle, static_cast<int32_t>(get_u32(in, 4)));
    line_.transmit(in.subspan(kTransferBytes));
    return Answer::ok(static_cast<int64_t>(in.size() - kTransferBytes));
}

Answer Uart::move(Handle &handle, uint32_t request, Bytes in) {
    if (!started_) return Answer::fail(EIO);
    if (in.size() < kTransferBytes || in.size() - kTransferBytes > kMostBytes) return Answer::fail(EINVAL);
    if (request == kWaitReadable) return wait(handle, in);
    if (request == kWrite) return take(handle, in);
    Buffer out = fifo_.take(get_u32(in, 0));
    const auto count = static_cast<int64_t>(out.size());
    return Answer::ok(count, std::move(out));
}

Answer Uart::act(uint32_t request) {
    switch (request) {
        case kStart:
            started_ = true;
            suspended_ = false;
            chip().changed();  // writes may wait for it
            return Answer::ok();
        case kDrain:
            return line_.transmitter_empty() ? Answer::ok() : Answer::ask_again();
        case kSuspendOutput:
            suspended_ = true;
            return Answer::ok();
        case kSendStop:
            if (!line_.takes_more_from_host()) return Answer::fail(EAGAIN);
            line_.transmit(Bytes(&kStopCharacter, 1));
            return Answer::ok();
        case kDiscardOutput:
            line_.discard_unsent();
            return Answer::ok();
        case kDiscardInput:
            line_.discard_received();
            fifo_.clear();
            return Answer::ok();
        default:
            return Answer::fail(ENOTTY);
    }
}

Answer Uart::ioctl(Handle &handle, uint32_t request, Bytes in) {
    switch (request) {
        case kGetAttributes: {
            const SerialFormat &format = line_.format();
            Buffer out(kAttributeBytes);
            put_u32(out, 0, format.baud);
            out[4] = format.data_bits;
            out[5] = static_cast<uint8_t>(format.parity);
            out[6] = format.stop_bits == 2 ? 2 : 0;
            out[7] = flow_control_;
            return Answer::ok(0, std::move(out));
        }
        case kSetAttributes:
            return set_attributes(in);
        case kRead:
        case kWrite:
        case kWaitReadable:
            return move(handle, request, in);
        default:
            return act(request);
    }
}

void Uart::power_on() {
    started_ = suspended_ = false;
    flow_control_ = 0;
    fifo_.clear();
    line_.power_on();
}

void Uart::show(Report &report) const {
    report.value("started", started_);
    if (suspended_) report.value("output", std::string("suspended"));
    report.value("bytes waiting", static_cast<int64_t>(fifo_.size()));
    line_.show(report);
}

void build(Chip &chip, const Description &table) {
    if (!table.has("number")) table.fail("number", "is missing");
    const std::string node = "/dev/qecUart" + std::to_string(table.number("number", 0, kLastPort, 0));
    try {
        chip.add(node, std::make_unique<Uart>(chip, table));
    } catch (const std::invalid_argument &error) {
        table.fail("number", error.what());
    }
}

}  // namespace

extern const DeviceClass kUartClass = {"uart", "serial line of the configuration driver", kRequests, build};

}  // namespace qel::board
