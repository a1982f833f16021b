// mcu.cpp - "/dev/qecMcu": who has it open, its events, and the requests of its driver.
#include "board/model/mcu.h"

#include <algorithm>
#include <cerrno>

#include "board/model/mcu_model.h"
#include "board/model/mcu_records.h"
#include "board/model/records.h"

namespace qel::board {

namespace {

constexpr uint32_t kOutputs = 32;
constexpr uint32_t kLoops = 4;
constexpr size_t kEventBytes = sizeof(qec_mcu_event);
constexpr size_t kRadarBytes = sizeof(qec_mcu_radar);
constexpr size_t kMostEvents = 64;         // that a descriptor keeps; of more the oldest are lost
constexpr size_t kMostRfidBytes = 65536;   // that a card reader keeps; of more the oldest are lost
constexpr int64_t kLineTimeout_ms = 2000;  // of its own line, when that takes nothing
constexpr size_t kCryptBytes = 32;
constexpr uint32_t kHoldsEverything = 0xFFFFFFFF;  // of RESET_MCU: -1

Buffer text_record(const std::string &text, size_t bytes) {
    Buffer out(text.begin(), text.begin() + static_cast<ptrdiff_t>(std::min(text.size(), bytes - 1)));
    out.resize(bytes);
    return out;
}

// The table that stands for a line: its own, or an empty one of the microcontroller's.
Description line_table(const Description &table, const char *key) {
    const std::vector<Description> tables = table.tables(key);
    static const Description kNone = Description::parse("");
    return tables.empty() ? kNone : tables[0];
}

}  // namespace

// ---- as described ----

Mcu::Mcu(Chip &chip, const Description &table)
    : Device(chip),
      crypt_number_(table.bytes("crypt_number", kCryptBytes)),
      caps_(table.bytes("caps", QEC_MCU_CAPS_BYTES)),
      caps_word_(static_cast<uint32_t>(table.number("caps_word", 0, UINT32_MAX, 0))),
      rfid_reply_(table.bytes("rfid_reply", QEC_MCU_RFID_BYTES_MAX)),
      loops_ua_(table.numbers("loops_ua", 4000, 20000)),
      supply_(table.numbers("supply", 0, UINT32_MAX)),
      battery_(table.numbers("battery", 0, UINT32_MAX)),
      raw_(*this, "raw", line_table(table, "raw")) {
    crypt_number_.resize(kCryptBytes);
    caps_.resize(QEC_MCU_CAPS_BYTES);
    if (loops_ua_.size() > kLoops || supply_.size() > 4 || battery_.size() > 4)
        table.fail("", "loops_ua, supply and battery are four numbers at the most");
    loops_ua_.resize(kLoops, 4000);
    supply_.resize(4);
    battery_.resize(4);
    const auto take = [&](const char *key, std::array<std::string, kMcuModules> &into) {
        const std::vector<std::string> texts = table.texts(key);
        if (texts.size() > kMcuModules) table.fail(key, "there are four modules");
        std::copy(texts.begin(), texts.end(), into.begin());
    };
    take("versions", versions_);
    take("modules", module_texts_);
    for (const Description &one : table.tables("channel")) {
        if (!one.has("number")) one.fail("number", "is missing");
        if (one.has("port")) one.fail("port", "is for lines of the port map; a channel is reached by number");
        const auto number = static_cast<uint32_t>(one.number("number", 0, UINT32_MAX, 0));
        std::unique_ptr<McuChannel> &made = channels_[number];
        if (made != nullptr) one.fail("number", "another channel has it");
        made = std::make_unique<McuChannel>(*this, std::to_string(number), one);
    }
}

int Mcu::open(Handle &handle) {
    auto events = std::make_unique<McuEvents>();
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
            return raw_write(handle, in);
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
            if (in[0] >= kMcuModules) return Answer::fail(EINVAL);
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
    if (number >= kMcuModules) return Answer::fail(EINVAL);
    const std::string &text = request == QEC_MCU_MODULE_INFO_GET ? module_texts_[number] : versions_[number];
    Buffer out(in.begin(), in.begin() + 4);
    const size_t bytes = std::min(text.size(), in.size() - 8);
    out.resize(in.size());
    put_u32(out, 4, static_cast<uint32_t>(bytes));
    std::copy_n(text.begin(), bytes, out.begin() + 8);
    return Answer::ok(0, std::move(out));
}

// ---- the lines that it carries ----

McuChannel *Mcu::channel(uint32_t number) {
    const auto found = channels_.find(number);
    return found != channels_.end() ? found->second.get() : nullptr;
}

Answer Mcu::uart_config(Bytes in) {
    McuChannel *one = channel(get_u32(in, 0));
    if (one == nullptr) return Answer::fail(ENXIO);
    SerialFormat format;
    if (!parse_attributes(in.subspan(4), format)) return Answer::fail(EINVAL);
    one->line.set_format(format);
    return Answer::ok();
}

Answer Mcu::uart_send(Bytes in) {
    McuChannel *one = channel(get_u32(in, 0));
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
    McuChannel *one = channel(get_u32(in, 0));
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

Answer Mcu::raw_write(const Handle &handle, Bytes in) {
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
    if (!raw_.line.takes_more_from_host()) return Answer::ask_again(handle.started_ms + kLineTimeout_ms);
    raw_.line.transmit(data);
    return Answer::ok();
}

void Mcu::hear_rfid(Bytes bytes) {
    rfid_.insert(rfid_.end(), bytes.begin(), bytes.end());
    if (rfid_.size() > kMostRfidBytes)
        rfid_.erase(rfid_.begin(), rfid_.end() - static_cast<ptrdiff_t>(kMostRfidBytes));
}

Answer Mcu::rfid_send(Bytes in) {
    if (in.size() < kMcuTransferBytes || in.size() - kMcuTransferBytes > QEC_MCU_RFID_BYTES_MAX)
        return Answer::fail(EINVAL);
    const uint32_t reader = get_u32(in, 0);
    if (reader > 1) return Answer::fail(EINVAL);
    if ((readers_ >> reader & 1) == 0) return Answer::fail(EIO);  // switched off
    hear_rfid(rfid_reply_);
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
