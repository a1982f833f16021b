// mcu.cpp - "/dev/qecMcu": a microcontroller with a front panel (LCD, keys), power switches, card readers,
// radar, analogue inputs and the serial lines it carries, as qel/mcu_driver.h states its driver.
//
// The test's face, what the world does to it: "press KEY", "release KEY", "card NUMBER", "rfid HEX",
// "radar LANE SPEED DISTANCE AGE", "can ID HEX", "alarm NUMBER", "panel 0|1", "net 0|1", "address-key 0|1",
// "silent 0|1" (a microcontroller that answers nothing), "channel NUMBER WORDS" and "raw WORDS" for a line.
#include "board/model/mcu.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <deque>
#include <map>

#include "board/core/errors.h"
#include "board/core/report.h"
#include "board/model/mcu_records.h"
#include "board/model/port_map.h"
#include "board/model/records.h"
#include "board/model/serial_fifo.h"
#include "board/model/words.h"

namespace qel::board {

namespace {

constexpr uint32_t kOutputs = 32;
constexpr uint32_t kKeys = 32;
constexpr uint32_t kLoops = 4;
constexpr uint32_t kModules = 4;
constexpr size_t kEventBytes = sizeof(qec_mcu_event);
constexpr size_t kRadarBytes = sizeof(qec_mcu_radar);
constexpr size_t kMostEvents = 64;    // that a descriptor keeps; of more the oldest are lost
constexpr size_t kMostRecords = 256;  // of radar and CAN
constexpr size_t kCryptBytes = 32;
constexpr uint32_t kHoldsEverything = 0xFFFFFFFF;  // of RESET_MCU: -1

struct Events final : HandleState {
    std::deque<Buffer> kept;
};

// One of the serial lines that the microcontroller carries.
struct Channel {
    Channel(Device &owner, const Description &table) : fifo(owner), line(owner.chip(), fifo, table) {}
    SerialFifo fifo;
    SerialLine line;
};

Buffer text_record(const std::string &text, size_t bytes) {
    Buffer out(text.begin(), text.begin() + static_cast<ptrdiff_t>(std::min(text.size(), bytes - 1)));
    out.resize(bytes);
    return out;
}

class Mcu final : public Device, public LineOwner {
public:
    Mcu(Chip &chip, const Description &table);

    int open(Handle &handle) override;
    void close(Handle &handle) override;
    Answer read(Handle &handle, uint32_t bytes) override;
    Answer ioctl(Handle &handle, uint32_t request, Bytes in) override;
    bool readable(const Handle &handle) const override;
    void power_on() override;
    void show(Report &report) const override;
    Answer poke(const std::vector<std::string> &words) override;
    SerialLine &line() override { return raw_.line; }
    uint32_t caps_word() const { return caps_word_; }

private:
    Answer act(uint32_t request, Bytes in);
    Answer set(uint32_t request, uint32_t value);
    Answer fetch(uint32_t request, Bytes in);
    Answer fetch_word(uint32_t request) const;
    Answer set_time(Bytes in);
    Answer switch_power(Bytes in);
    Answer power_state(Bytes in) const;
    Answer module(uint32_t request, Bytes in) const;
    Answer uart_config(Bytes in);
    Answer uart_send(Bytes in);
    Answer uart_get(const Handle &handle, Bytes in);
    Answer raw_read(Bytes in);
    Answer raw_write(Bytes in);
    Answer rfid_send(Bytes in);
    Answer radar_read(size_t room);
    Answer upgrade(uint32_t request, Bytes in);
    Channel *channel(uint32_t number);
    void tell(uint32_t type, const Buffer &data);
    void put_card(const std::string &number);
    Answer poke_words(const std::vector<std::string> &words);
    Answer poke_numbers(const std::string &what, const std::vector<uint32_t> &numbers);
    Answer poke_bytes(const std::vector<std::string> &words);

    // As described.
    std::array<std::string, kModules> versions_;
    std::array<std::string, kModules> module_texts_;
    Buffer crypt_number_;
    Buffer caps_;
    uint32_t caps_word_;
    Buffer rfid_reply_;
    std::vector<int64_t> loops_ua_;
    std::vector<int64_t> supply_;
    std::vector<int64_t> battery_;
    Channel raw_;
    std::map<uint32_t, std::unique_ptr<Channel>> channels_;

    // As it is.
    std::map<uint32_t, Events *> opens_;
    std::string lcd_;
    std::string time_;
    uint32_t heating_ = 0, acknowledged_ = 0, readers_ = 3, card_status_ = 0;
    uint32_t outputs_ = 0, keys_ = 0, address_key_ = 0, panel_ = 1, net_ = 1;
    uint8_t last_key_ = 0;
    std::string card_;
    std::deque<uint8_t> rfid_;
    std::deque<Buffer> radar_;
    std::deque<Buffer> can_;
    int64_t can_sent_ = 0;
    bool upgrading_ = false;
    uint32_t firmware_expected_ = 0, firmware_taken_ = 0;
    int64_t wireless_bytes_ = 0;
    bool closed_ = false;
    bool silent_ = false;
};

// ---- as described ----

// The table that stands for a line: its own, or an empty one of the microcontroller's.
Description line_table(const Description &table, const char *key) {
    const std::vector<Description> tables = table.tables(key);
    static const Description kNone = Description::parse("");
    return tables.empty() ? kNone : tables[0];
}

Mcu::Mcu(Chip &chip, const Description &table)
    : Device(chip),
      crypt_number_(table.bytes("crypt_number", kCryptBytes)),
      caps_(table.bytes("caps", QEC_MCU_CAPS_BYTES)),
      caps_word_(static_cast<uint32_t>(table.number("caps_word", 0, UINT32_MAX, 0))),
      rfid_reply_(table.bytes("rfid_reply", QEC_MCU_RFID_BYTES_MAX)),
      loops_ua_(table.numbers("loops_ua", 4000, 20000)),
      supply_(table.numbers("supply", 0, UINT32_MAX)),
      battery_(table.numbers("battery", 0, UINT32_MAX)),
      raw_(*this, line_table(table, "raw")) {
    crypt_number_.resize(kCryptBytes);
    caps_.resize(QEC_MCU_CAPS_BYTES);
    if (loops_ua_.size() > kLoops || supply_.size() > 4 || battery_.size() > 4)
        table.fail("", "loops_ua, supply and battery are four numbers at the most");
    loops_ua_.resize(kLoops, 4000);
    supply_.resize(4);
    battery_.resize(4);
    const auto take = [&](const char *key, std::array<std::string, kModules> &into) {
        const std::vector<std::string> texts = table.texts(key);
        if (texts.size() > kModules) table.fail(key, "there are four modules");
        std::copy(texts.begin(), texts.end(), into.begin());
    };
    take("versions", versions_);
    take("modules", module_texts_);
    for (const Description &one : table.tables("channel")) {
        if (!one.has("number")) one.fail("number", "is missing");
        const auto number = static_cast<uint32_t>(one.number("number", 0, UINT32_MAX, 0));
        if (!channels_.emplace(number, std::make_unique<Channel>(*this, one)).second)
            one.fail("number", "another channel has it");
    }
}

int Mcu::open(Handle &handle) {
    auto events = std::make_unique<Events>();
    opens_[handle.id] = events.get();
    handle.state = std::move(events);
    raw_.line.set_open(true);
    for (const auto &[number, one] : channels_) one->line.set_open(true);
    return 0;
}

void Mcu::close(Handle &handle) {
    opens_.erase(handle.id);
    if (!opens_.empty()) return;
    closed_ = false;
    raw_.line.set_open(false);
    raw_.fifo.clear();
    for (const auto &[number, one] : channels_) {
        one->line.set_open(false);
        one->fifo.clear();
    }
}

// ---- events ----

void Mcu::tell(uint32_t type, const Buffer &data) {
    Buffer event(kEventBytes);
    put_u32(event, 0, type);
    put_u32(event, 4, static_cast<uint32_t>(data.size()));
    std::copy(data.begin(), data.end(), event.begin() + 8);
    for (const auto &[handle, events] : opens_) {
        if (events->kept.size() == kMostEvents) events->kept.pop_front();
        events->kept.push_back(event);
    }
    chip().changed();
}

bool Mcu::readable(const Handle &handle) const {
    const auto found = opens_.find(handle.id);
    return found != opens_.end() &&
           (closed_ || !found->second->kept.empty() || !radar_.empty() || !raw_.fifo.empty());
}

Answer Mcu::read(Handle &handle, uint32_t bytes) {
    if (bytes < kEventBytes) return Answer::fail(EINVAL);
    if (closed_) return Answer::fail(EPIPE);
    std::deque<Buffer> &kept = opens_.at(handle.id)->kept;
    if (kept.empty()) return Answer::ask_again();
    Buffer event = std::move(kept.front());
    kept.pop_front();
    return Answer::ok(kEventBytes, std::move(event));
}

// ---- requests ----

Answer Mcu::ioctl(Handle &handle, uint32_t request, Bytes in) {
    const auto known = [=](const RequestSpec &spec) { return spec.code == request; };
    if (std::ranges::none_of(mcu_requests(), known)) return Answer::fail(ENOTTY);
    if (silent_) return Answer::fail(ETIMEDOUT);
    switch (request) {
        case QEL_MCU_UART_CONFIG_REQUEST:
            return uart_config(in);
        case QEL_MCU_UART_SEND_REQUEST:
            return uart_send(in);
        case QEL_MCU_UART_GET_REQUEST:
            return uart_get(handle, in);
        case QEC_MCU_RAW_READ:
            return raw_read(in);
        case QEC_MCU_RAW_WRITE:
            return raw_write(in);
        case QEC_MCU_UPGRADE_START:
        case QEC_MCU_UPGRADE_END:
            return upgrade(request, in);
        default:
            return act(request, in);
    }
}

Answer Mcu::act(uint32_t request, Bytes in) {
    switch (request) {
        case QEC_MCU_WRITE_LCD:
            if (in.size() > QEC_MCU_LCD_BYTES_MAX) return Answer::fail(EINVAL);
            lcd_.assign(in.begin(), in.end());
            return Answer::ok();
        case QEC_MCU_SET_TIME:
            return set_time(in);
        case QEC_MCU_SHUTDOWN_HOST:
            chip().record_event("shut down by " + node());
            return Answer::ok();
        case QEC_MCU_CAN_SEND:
            if (get_u32(in, 4) > 8) return Answer::fail(EINVAL);
            ++can_sent_;
            return Answer::ok();
        case QEC_MCU_CTRL_POWERSWITCH:
            return switch_power(in);
        case QEC_MCU_RFID_SEND:
            return rfid_send(in);
        case QEC_MCU_PUT_CARD_NO:
            if (std::find(in.begin(), in.end(), 0) == in.end()) return Answer::fail(EINVAL);
            card_ = reinterpret_cast<const char *>(in.data());
            return Answer::ok();
        case QEC_MCU_UPDATE_WIRELESS:
            if (in.empty() || in.size() > kMostFirmwareBytes) return Answer::fail(EINVAL);
            wireless_bytes_ = static_cast<int64_t>(in.size());
            return Answer::ok();
        case QEC_MCU_CLOSE_THREAD:
            closed_ = true;
            chip().changed();
            return Answer::ok();
        case QEC_MCU_HEATER_TEST:
        case QEC_MCU_RESET_MCU:
        case QEC_MCU_ACK_ADAPTER:
        case QEC_MCU_CLEAR_CARD_NO:
        case QEC_MCU_RFID_CONTROL:
        case QEC_MCU_SET_CARD_STATUS:
            return set(request, get_u32(in, 0));
        default:
            return fetch(request, in);
    }
}

// The requests that send one word.
Answer Mcu::set(uint32_t request, uint32_t value) {
    struct Word {
        uint32_t request;
        uint32_t most;
        uint32_t Mcu::*member;
    };
    static constexpr Word kWords[] = {
        {QEC_MCU_HEATER_TEST, 1, &Mcu::heating_},
        {QEC_MCU_ACK_ADAPTER, UINT32_MAX, &Mcu::acknowledged_},
        {QEC_MCU_RFID_CONTROL, 3, &Mcu::readers_},
        {QEC_MCU_SET_CARD_STATUS, 2, &Mcu::card_status_},
    };
    for (const Word &word : kWords) {
        if (word.request != request) continue;
        if (value > word.most) return Answer::fail(EINVAL);
        this->*word.member = value;
        return Answer::ok();
    }
    if (request == QEC_MCU_CLEAR_CARD_NO) {
        if (value > 1) return Answer::fail(EINVAL);
        card_.clear();
        return Answer::ok();
    }
    if (value != kHoldsEverything) return Answer::fail(EINVAL);
    lcd_.clear();
    outputs_ = heating_ = 0;
    return Answer::ok();
}

Answer Mcu::fetch(uint32_t request, Bytes in) {
    switch (request) {
        case QEC_MCU_CAN_GET: {
            if (can_.empty()) return Answer::ok(0);
            Buffer frame = std::move(can_.front());
            can_.pop_front();
            return Answer::ok(1, std::move(frame));
        }
        case QEC_MCU_READ_CARD_NO:
            return Answer::ok(0, text_record(card_, QEC_MCU_CARD_BYTES));
        case QEC_MCU_GET_VER:
            if (in[0] >= kModules) return Answer::fail(EINVAL);
            return Answer::ok(0, text_record(versions_[in[0]], QEC_MCU_VERSION_BYTES));
        case QEC_MCU_GET_CRY:
            return Answer::ok(0, crypt_number_);
        case QEC_MCU_GET_4TO20MA: {
            if (get_u32(in, 0) >= kLoops) return Answer::fail(EINVAL);
            Buffer out(in.begin(), in.end());
            put_u32(out, 4, static_cast<uint32_t>(loops_ua_[get_u32(in, 0)]));
            return Answer::ok(0, std::move(out));
        }
        case QEC_MCU_GET_POWRE_STATE:
            return power_state(in);
        case QEC_MCU_MODULE_INFO_GET:
        case QEC_MCU_MODULE_READ:
            return module(request, in);
        case QEC_MCU_LAST_KEY:
            return Answer::ok(0, {last_key_});
        case QEC_MCU_GET_CAPS:
            return Answer::ok(0, caps_);
        default:
            return fetch_word(request);
    }
}

Answer Mcu::fetch_word(uint32_t request) const {
    switch (request) {
        case QEC_MCU_FACEBOARD_STATE:
            return Answer::ok(0, u32_record(panel_));
        case QEC_MCU_KEY_STATE:
            return Answer::ok(0, u32_record(keys_));
        case QEC_MCU_REST_IP:
            return Answer::ok(0, u32_record(address_key_));
        case QEC_MCU_GET_NETLINK_STATE:
            return Answer::ok(0, u32_record(net_));
        default:
            return Answer::fail(ENOTTY);
    }
}

Answer Mcu::set_time(Bytes in) {
    struct Range {
        uint32_t least, most;
    };
    static constexpr Range kRanges[] = {{1970, 2099}, {1, 12}, {1, 31}, {0, 6}, {0, 23}, {0, 59}, {0, 60}};
    for (size_t i = 0; i < std::size(kRanges); ++i) {
        const uint32_t value = get_u32(in, i * 4);
        if (value < kRanges[i].least || value > kRanges[i].most) return Answer::fail(EINVAL);
    }
    std::array<char, 64> text{};
    snprintf(text.data(), text.size(), "%04u-%02u-%02u %02u:%02u:%02u, day %u of the week", get_u32(in, 0),
             get_u32(in, 4), get_u32(in, 8), get_u32(in, 16), get_u32(in, 20), get_u32(in, 24),
             get_u32(in, 12));
    time_ = text.data();
    return Answer::ok();
}

Answer Mcu::switch_power(Bytes in) {
    const uint32_t output = get_u32(in, 0);
    const uint32_t on = get_u32(in, 4);
    if (output >= kOutputs || on > 1) return Answer::fail(EINVAL);
    const uint32_t before = outputs_;
    outputs_ = (outputs_ & ~(1u << output)) | on << output;
    if (outputs_ != before) tell(QEC_MCU_EVENT_POWER, Buffer(in.begin(), in.end()));
    return Answer::ok();
}

Answer Mcu::power_state(Bytes in) const {
    const uint32_t selector = get_u32(in, 0);
    if (selector > 2) return Answer::fail(EINVAL);
    Buffer out(in.begin(), in.end());
    for (size_t i = 0; i < 4; ++i) {
        const auto measured = static_cast<uint32_t>(selector == 1 ? supply_[i] : battery_[i]);
        put_u32(out, 4 + i * 4, selector != 0 ? measured : (i == 0 ? outputs_ : 0));
    }
    return Answer::ok(0, std::move(out));
}

Answer Mcu::module(uint32_t request, Bytes in) const {
    const uint32_t number = get_u32(in, 0);
    if (number >= kModules) return Answer::fail(EINVAL);
    const std::string &text = request == QEC_MCU_MODULE_INFO_GET ? module_texts_[number] : versions_[number];
    Buffer out(in.begin(), in.begin() + 4);
    const size_t bytes = std::min(text.size(), in.size() - 8);
    out.resize(in.size());
    put_u32(out, 4, static_cast<uint32_t>(bytes));
    std::copy_n(text.begin(), bytes, out.begin() + 8);
    return Answer::ok(0, std::move(out));
}

// ---- the lines that it carries ----

Channel *Mcu::channel(uint32_t number) {
    const auto found = channels_.find(number);
    return found != channels_.end() ? found->second.get() : nullptr;
}

Answer Mcu::uart_config(Bytes in) {
    Channel *one = channel(get_u32(in, 0));
    if (one == nullptr) return Answer::fail(ENXIO);
    const bool known =
        get_u32(in, 4) > 0 && in[8] >= 5 && in[8] <= 8 && in[9] <= 2 && (in[10] == 0 || in[10] == 2);
    if (!known) return Answer::fail(EINVAL);
    one->line.set_format({.baud = get_u32(in, 4),
                          .data_bits = in[8],
                          .parity = static_cast<SerialParity>(in[9]),
                          .stop_bits = static_cast<uint8_t>(in[10] == 2 ? 2 : 1)});
    return Answer::ok();
}

Answer Mcu::uart_send(Bytes in) {
    Channel *one = channel(get_u32(in, 0));
    const uint32_t bytes = get_u32(in, 8);
    if (one == nullptr) return Answer::fail(ENXIO);
    if (bytes > QEL_MCU_UART_BYTES) return Answer::fail(EINVAL);
    const bool takes = one->line.takes_more_from_host();
    if (takes) one->line.transmit(in.subspan(kMcuUartHeadBytes, bytes));
    Buffer out(in.begin(), in.begin() + kMcuUartHeadBytes);
    put_u32(out, 8, takes ? bytes : 0);
    return Answer::ok(0, std::move(out));
}

Answer Mcu::uart_get(const Handle &handle, Bytes in) {
    Channel *one = channel(get_u32(in, 0));
    const uint32_t most = get_u32(in, 8);
    if (one == nullptr) return Answer::fail(ENXIO);
    if (most > QEL_MCU_UART_BYTES) return Answer::fail(EINVAL);
    const uint32_t timeout_ms = get_u32(in, 4);
    if (one->fifo.empty() && timeout_ms != 0 && !handle.expired)
        return Answer::ask_again(handle.started_ms + timeout_ms);
    const Buffer got = one->fifo.take(most);
    Buffer out(in.begin(), in.begin() + kMcuUartHeadBytes);
    put_u32(out, 8, static_cast<uint32_t>(got.size()));
    out.insert(out.end(), got.begin(), got.end());
    return Answer::ok(0, std::move(out));
}

Answer Mcu::raw_read(Bytes in) {
    if (in.size() != kMcuTransferBytes) return Answer::fail(EINVAL);
    const size_t room = get_u32(in, 4);
    switch (get_u32(in, 0)) {
        case QEC_MCU_SOURCE_RAW:
            if (room > QEC_MCU_RAW_BYTES_MAX) return Answer::fail(EINVAL);
            return Answer::ok(0, raw_.fifo.take(room));
        case QEC_MCU_SOURCE_RFID: {
            if (room > QEC_MCU_RFID_BYTES_MAX) return Answer::fail(EINVAL);
            const auto end = rfid_.begin() + static_cast<ptrdiff_t>(std::min(room, rfid_.size()));
            Buffer out(rfid_.begin(), end);
            rfid_.erase(rfid_.begin(), end);
            return Answer::ok(0, std::move(out));
        }
        case QEC_MCU_SOURCE_RADAR:
            return radar_read(room);
        default:
            return Answer::fail(EINVAL);
    }
}

Answer Mcu::radar_read(size_t room) {
    if (room < kRadarBytes) return Answer::fail(EINVAL);
    Buffer out;
    while (!radar_.empty() && out.size() + kRadarBytes <= room) {
        out.insert(out.end(), radar_.front().begin(), radar_.front().end());
        radar_.pop_front();
    }
    return Answer::ok(0, std::move(out));
}

Answer Mcu::raw_write(Bytes in) {
    if (in.size() < kMcuTransferBytes) return Answer::fail(EINVAL);
    const Bytes data = in.subspan(kMcuTransferBytes);
    if (get_u32(in, 0) != QEC_MCU_SOURCE_RAW || data.size() > QEC_MCU_RAW_BYTES_MAX)
        return Answer::fail(EINVAL);
    const auto count = static_cast<uint32_t>(data.size());
    if (upgrading_) {
        if (count > firmware_expected_ - firmware_taken_) return Answer::fail(ENOSPC);
        firmware_taken_ += count;
        return Answer::ok();
    }
    raw_.line.transmit(data);
    return Answer::ok();
}

Answer Mcu::rfid_send(Bytes in) {
    if (in.size() < kMcuTransferBytes || in.size() - kMcuTransferBytes > QEC_MCU_RFID_BYTES_MAX)
        return Answer::fail(EINVAL);
    const uint32_t reader = get_u32(in, 0);
    if (reader > 1) return Answer::fail(EINVAL);
    if ((readers_ >> reader & 1) == 0) return Answer::fail(EIO);  // switched off
    rfid_.insert(rfid_.end(), rfid_reply_.begin(), rfid_reply_.end());
    return Answer::ok();
}

Answer Mcu::upgrade(uint32_t request, Bytes in) {
    if (request == QEC_MCU_UPGRADE_END) {
        if (!upgrading_) return Answer::fail(EINVAL);
        upgrading_ = false;
        return Answer::ok(0, u32_record(firmware_taken_));
    }
    if (upgrading_) return Answer::fail(EBUSY);
    if (get_u32(in, 0) == 0 || get_u32(in, 0) > kMostFirmwareBytes) return Answer::fail(EINVAL);
    upgrading_ = true;
    firmware_expected_ = get_u32(in, 0);
    firmware_taken_ = 0;
    return Answer::ok();
}

// ---- the world outside ----

void Mcu::put_card(const std::string &number) {
    card_ = number;
    rfid_.insert(rfid_.end(), number.begin(), number.end());
    tell(QEC_MCU_EVENT_CARD, Buffer(number.begin(), number.end()));
}

Answer Mcu::poke(const std::vector<std::string> &words) {
    if (words.size() >= 2 && words[0] == "raw") return raw_.line.poke({words.begin() + 1, words.end()});
    uint32_t number = 0;
    if (words.size() < 3 || words[0] != "channel") return poke_words(words);
    Channel *one = parse_number(words[1], number) ? channel(number) : nullptr;
    return one != nullptr ? one->line.poke({words.begin() + 2, words.end()}) : Answer::fail(EINVAL);
}

Answer Mcu::poke_words(const std::vector<std::string> &words) {
    if (words.size() < 2) return Answer::fail(EINVAL);
    if (words[0] == "card" && words.size() == 2 && words[1].size() < QEC_MCU_CARD_BYTES) {
        put_card(words[1]);
        return Answer::ok();
    }
    if (words[0] == "rfid" || words[0] == "can") return poke_bytes(words);
    std::vector<uint32_t> numbers(words.size() - 1);
    for (size_t i = 0; i < numbers.size(); ++i) {
        // A speed may be negative: going away.
        const bool negative = words[i + 1].rfind('-', 0) == 0;
        if (!parse_number(words[i + 1].substr(negative ? 1 : 0), numbers[i])) return Answer::fail(EINVAL);
        if (negative) numbers[i] = ~numbers[i] + 1;
    }
    return poke_numbers(words[0], numbers);
}

Answer Mcu::poke_bytes(const std::vector<std::string> &words) {
    std::vector<uint8_t> bytes;
    if (!parse_hex(words.back(), bytes)) return Answer::fail(EINVAL);
    if (words[0] == "rfid" && words.size() == 2) {
        rfid_.insert(rfid_.end(), bytes.begin(), bytes.end());
        return Answer::ok();
    }
    uint32_t id = 0;
    const bool fits =
        words[0] == "can" && words.size() == 3 && parse_number(words[1], id) && bytes.size() <= 8;
    if (!fits || can_.size() == kMostRecords) return Answer::fail(EINVAL);
    Buffer frame(sizeof(qec_mcu_can));
    put_u32(frame, 0, id);
    put_u32(frame, 4, static_cast<uint32_t>(bytes.size()));
    std::copy(bytes.begin(), bytes.end(), frame.begin() + 8);
    can_.push_back(std::move(frame));
    return Answer::ok();
}

Answer Mcu::poke_numbers(const std::string &what, const std::vector<uint32_t> &numbers) {
    if (what == "radar" && numbers.size() == 4 && radar_.size() < kMostRecords) {
        Buffer record(kRadarBytes);
        for (size_t i = 0; i < numbers.size(); ++i) put_u32(record, i * 4, numbers[i]);
        radar_.push_back(std::move(record));
        return Answer::ok();
    }
    if (numbers.size() != 1) return Answer::fail(EINVAL);
    const uint32_t number = numbers[0];
    const bool presses = what == "press";
    if ((presses || what == "release") && number > 0 && number < kKeys) {
        keys_ = presses ? keys_ | 1u << number : keys_ & ~(1u << number);
        if (presses) last_key_ = static_cast<uint8_t>(number);
        tell(QEC_MCU_EVENT_KEY, {static_cast<uint8_t>(number), static_cast<uint8_t>(presses ? 1 : 0)});
        return Answer::ok();
    }
    if (what == "alarm") {
        tell(QEC_MCU_EVENT_ALARM, u32_record(number));
        return Answer::ok();
    }
    if (number > 1) return Answer::fail(EINVAL);
    if (what == "silent") {
        silent_ = number == 1;
        return Answer::ok();
    }
    if (what != "panel" && what != "net" && what != "address-key") return Answer::fail(EINVAL);
    (what == "panel" ? panel_ : what == "net" ? net_ : address_key_) = number;
    return Answer::ok();
}

void Mcu::power_on() {
    lcd_.clear();
    time_.clear();
    card_.clear();
    rfid_.clear();
    radar_.clear();
    can_.clear();
    heating_ = acknowledged_ = card_status_ = outputs_ = keys_ = address_key_ = 0;
    readers_ = 3;
    panel_ = net_ = 1;
    last_key_ = 0;
    can_sent_ = wireless_bytes_ = 0;
    upgrading_ = closed_ = silent_ = false;
    raw_.fifo.clear();
    raw_.line.power_on();
    for (const auto &[number, one] : channels_) {
        one->fifo.clear();
        one->line.power_on();
    }
}

void Mcu::show(Report &report) const {
    report.value("lcd", lcd_);
    if (!time_.empty()) report.value("time", time_);
    report.value("keys", int64_t{keys_});
    report.value("outputs", int64_t{outputs_});
    report.value("heating", heating_ != 0);
    report.value("card", card_);
    report.value("card status", int64_t{card_status_});
    report.value("readers on", int64_t{readers_});
    report.value("acknowledged", int64_t{acknowledged_});
    report.value("frames sent on CAN", can_sent_);
    if (firmware_expected_ > 0)
        report.value("firmware", std::to_string(firmware_taken_) + " of " +
                                     std::to_string(firmware_expected_) + " bytes" +
                                     (upgrading_ ? ", under way" : ""));
    if (wireless_bytes_ > 0) report.value("wireless firmware bytes", wireless_bytes_);
    if (silent_) report.value("answers", std::string("nothing"));
    report.begin_section("raw line");
    raw_.line.show(report);
    report.end_section();
    for (const auto &[number, one] : channels_) {
        report.begin_section("channel " + std::to_string(number));
        one->line.show(report);
        report.end_section();
    }
}

}  // namespace

void build_mcu(Chip &chip, const Description &table) {
    if (chip.find(QEC_MCU_DEVICE) != nullptr) table.fail("", "a chip has one microcontroller");
    chip.add(QEC_MCU_DEVICE, std::make_unique<Mcu>(chip, table));
}

std::optional<uint32_t> mcu_caps_word(const Chip &chip) {
    const auto *mcu = dynamic_cast<const Mcu *>(chip.find(QEC_MCU_DEVICE));
    if (mcu == nullptr) return std::nullopt;
    return mcu->caps_word();
}

}  // namespace qel::board
