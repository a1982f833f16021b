// mcu_world.cpp - what the world does to a microcontroller, and what it looks like: "press KEY",
// "release KEY", "card NUMBER", "rfid HEX", "radar LANE SPEED DISTANCE AGE", "can ID HEX", "alarm NUMBER",
// "panel 0|1", "net 0|1", "address-key 0|1", "silent 0|1" (a microcontroller that answers nothing),
// "channel NUMBER WORDS" and "raw WORDS" for a line.
#include "board/core/errors.h"
#include "board/core/report.h"
#include "board/model/mcu_model.h"
#include "board/model/mcu_records.h"
#include "board/model/records.h"
#include "board/model/words.h"

namespace qel::board {

namespace {

constexpr uint32_t kKeys = 32;
constexpr size_t kMostRecords = 256;  // of radar and CAN

}  // namespace

void Mcu::put_card(const std::string &number) {
    card_ = number;
    const Buffer digits(number.begin(), number.end());
    hear_rfid(digits);
    tell(QEC_MCU_EVENT_CARD, digits);
}

Answer Mcu::poke(const std::vector<std::string> &words) {
    if (words.size() >= 2 && words[0] == "raw") return raw_.line.poke({words.begin() + 1, words.end()});
    uint32_t number = 0;
    if (words.size() < 3 || words[0] != "channel") return poke_words(words);
    McuChannel *one = parse_number(words[1], number) ? channel(number) : nullptr;
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
        hear_rfid(bytes);
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
        Buffer record(sizeof(qec_mcu_radar));
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
    readers_ = kAllMcuReaders;
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

}  // namespace qel::board
