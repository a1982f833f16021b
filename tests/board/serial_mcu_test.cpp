// The microcontroller's node: every request it knows, its events, the lines that it carries.
#include <gtest/gtest.h>
#include <poll.h>
#include <array>
#include <thread>

#include "qel/mcu_driver.h"
#include "qel/serial_driver.h"
#include "tests/board/serial_bench.h"

using namespace qel::test;

namespace {

const std::string kBoard =
    "[chip.misc]\n[chip.mcu]\nversions = [\"MCU 3\", \"RFID 1\"]\nmodules = [\"\", \"reader\"]\n"
    "crypt_number = \"0102\"\ncaps = \"0605\"\ncaps_word = 77\nloops_ua = [4000, 12000]\nsupply = [12050, "
    "830]\n"
    "battery = [7400, 85, 1]\nrfid_reply = \"06\"\nraw = { peer = { kind = \"echo\" } }\n"
    "channel = [{ number = 24, peer = { kind = \"echo\" } }, { number = 4 }]\n";

class SerialMcu : public testing::Test {
protected:
    int ask(uint32_t request, void *record) const { return ops().ioctl(fd_, request, record); }
    int put(uint32_t request, uint32_t value) const { return ask(request, &value); }
    uint32_t get(uint32_t request) const {
        uint32_t value = 0xAAAAAAAA;
        EXPECT_EQ(ask(request, &value), 0) << std::hex << request;
        return value;
    }
    std::string transfer(uint32_t source, uint32_t room) const {
        std::string data(room, '\0');
        qec_mcu_transfer record{source, room, data.data()};
        EXPECT_EQ(ask(QEC_MCU_RAW_READ, &record), 0);
        data.resize(record.bytes);
        return data;
    }
    std::string transfer_some(uint32_t source, uint32_t room) const {
        std::string data;
        for (int i = 0; i < 10000 && data.empty(); ++i) {
            data = transfer(source, room);
            if (data.empty()) usleep(1000);
        }
        return data;
    }
    int send(uint32_t request, uint32_t source, std::string data) const {
        qec_mcu_transfer record{source, static_cast<uint32_t>(data.size()), data.data()};
        return ask(request, &record);
    }
    void poke(const std::vector<std::string> &words, int64_t result = 0) {
        EXPECT_EQ(here_.board.poke(0, QEC_MCU_DEVICE, words).value, result) << words[0];
    }
    std::string shows(const std::string &name) const { return shown(here_.board, QEC_MCU_DEVICE, name); }
    static bool polls(int fd) {
        pollfd entry{fd, POLLIN, 0};
        return ::poll(&entry, 1, 0) == 1;
    }
    static qec_mcu_event read_event(int fd) {
        qec_mcu_event event{};
        EXPECT_EQ(ops().read(fd, &event, sizeof event), static_cast<ssize_t>(sizeof event));
        return event;
    }

    OnBoard here_{kBoard, {.dir = "", .time_scale = 20}};
    int fd_ = ops().open(QEC_MCU_DEVICE, O_RDWR, 0);
};

}  // namespace

TEST_F(SerialMcu, ShowsTextAndTimeAndSwitchesPower) {
    std::string text(1025, 't');
    qec_mcu_block block{1024, text.data()};
    EXPECT_EQ(ask(QEC_MCU_WRITE_LCD, &block), 0);
    EXPECT_EQ(shows("lcd"), std::string(1024, 't'));
    block.bytes = 1025;
    EXPECT_EQ(ask(QEC_MCU_WRITE_LCD, &block), -EINVAL);
    qec_mcu_time time{2026, 11, 23, 1, 2, 50, 7};
    EXPECT_EQ(ask(QEC_MCU_SET_TIME, &time), 0);
    EXPECT_EQ(shows("time"), "2026-11-23 02:50:07, day 1 of the week");
    time.month = 13;
    EXPECT_EQ(ask(QEC_MCU_SET_TIME, &time), -EINVAL);
    qec_mcu_power_switch power{31, 1};
    EXPECT_EQ(ask(QEC_MCU_CTRL_POWERSWITCH, &power), 0);
    power = {32, 1};
    EXPECT_EQ(ask(QEC_MCU_CTRL_POWERSWITCH, &power), -EINVAL);
    const std::array<std::array<uint32_t, 3>, 3> states = {
        {{0, 0x80000000, 0}, {1, 12050, 830}, {2, 7400, 85}}};
    for (const auto &[selector, first, second] : states) {
        qec_mcu_power_state state{selector, {9, 9, 9, 9}};
        EXPECT_EQ(ask(QEC_MCU_GET_POWRE_STATE, &state), 0);
        EXPECT_EQ(state.words[0], first);
        EXPECT_EQ(state.words[1], second);
        EXPECT_EQ(state.words[3], 0U);
    }
    EXPECT_EQ(put(QEC_MCU_RESET_MCU, 0), -EINVAL);
    EXPECT_EQ(put(QEC_MCU_RESET_MCU, 0xFFFFFFFF), 0);
    EXPECT_EQ(shows("lcd"), "");
    EXPECT_EQ(shows("outputs"), "0");
    EXPECT_EQ(ask(QEC_MCU_SHUTDOWN_HOST, nullptr), 0);
    EXPECT_EQ(here_.board.take_events(), std::vector<std::string>{"chip 0: shut down by /dev/qecMcu"});
}

TEST_F(SerialMcu, AnswersWhatItIsAndHas) {
    std::array<char, QEC_MCU_VERSION_BYTES> version = {1};
    EXPECT_EQ(ask(QEC_MCU_GET_VER, version.data()), 0);
    EXPECT_STREQ(version.data(), "RFID 1");
    version[0] = 4;
    EXPECT_EQ(ask(QEC_MCU_GET_VER, version.data()), -EINVAL);
    std::array<uint8_t, QEC_MCU_CAPS_BYTES> caps;
    caps.fill(0xAA);
    EXPECT_EQ(ask(QEC_MCU_GET_CAPS, caps.data()), 0);
    EXPECT_EQ(caps[1], 5);
    EXPECT_EQ(caps[63], 0);
    EXPECT_EQ(ask(QEC_MCU_GET_CRY, caps.data()), 0);
    EXPECT_EQ(caps[1], 2);
    qec_mcu_loop loop{1, 0};
    EXPECT_EQ(ask(QEC_MCU_GET_4TO20MA, &loop), 0);
    EXPECT_EQ(loop.current_ua, 12000U);
    qec_mcu_module module{};
    module.module = 1;
    EXPECT_EQ(ask(QEC_MCU_MODULE_INFO_GET, &module), 0);
    EXPECT_EQ(std::string(module.data, module.data + module.bytes), "reader");
    EXPECT_EQ(get(QEC_MCU_FACEBOARD_STATE), 1U);
    poke({"panel", "0"});
    EXPECT_EQ(get(QEC_MCU_FACEBOARD_STATE), 0U);
    EXPECT_EQ(get(QEC_MCU_GET_NETLINK_STATE), 1U);
    poke({"address-key", "1"});
    EXPECT_EQ(get(QEC_MCU_REST_IP), 1U);
    uint32_t word = 0;
    const int misc = ops().open("/dev/qecMisc", O_RDWR, 0);
    EXPECT_EQ(ops().ioctl(misc, QEL_MISC_GET_MCU_CAPS, &word), 0);
    EXPECT_EQ(word, 77U);
    EXPECT_EQ(ops().ioctl(misc, QEL_MISC_MCU_CAPS_READ, nullptr), 0);
}

TEST_F(SerialMcu, TellsEveryDescriptorWhatHappens) {
    const int other = ops().open(QEC_MCU_DEVICE, O_RDWR, 0);
    EXPECT_FALSE(polls(fd_));
    poke({"press", "3"});
    EXPECT_EQ(get(QEC_MCU_KEY_STATE), 8U);
    uint8_t last = 0;
    EXPECT_EQ(ask(QEC_MCU_LAST_KEY, &last), 0);
    EXPECT_EQ(last, 3);
    for (const int fd : {fd_, other}) {
        EXPECT_TRUE(polls(fd));
        const qec_mcu_event event = read_event(fd);
        EXPECT_EQ(event.type, QEC_MCU_EVENT_KEY);
        EXPECT_EQ(event.bytes, 2U);
        EXPECT_EQ(event.data[0], 3);
        EXPECT_EQ(event.data[1], 1);
        EXPECT_FALSE(polls(fd));
    }
    std::thread reader([&] {
        const qec_mcu_event event = read_event(other);
        EXPECT_EQ(event.type, QEC_MCU_EVENT_CARD);
        EXPECT_EQ(std::string(event.data, event.data + event.bytes), "77001");
    });
    poke({"card", "77001"});
    reader.join();
    uint8_t few[127];
    EXPECT_EQ(ops().read(fd_, few, sizeof few), -EINVAL);
    EXPECT_EQ(ask(QEC_MCU_CLOSE_THREAD, nullptr), 0);
    EXPECT_TRUE(polls(other));
    qec_mcu_event event;
    EXPECT_EQ(ops().read(other, &event, sizeof event), -EPIPE);
    ops().close(fd_);
    ops().close(other);
    fd_ = ops().open(QEC_MCU_DEVICE, O_RDWR, 0);
    EXPECT_FALSE(polls(fd_)) << "the last close ends it";
}

TEST_F(SerialMcu, OneRequestFetchesRawBytesCardsAndRadar) {
    EXPECT_EQ(transfer(QEC_MCU_SOURCE_RAW, 10), "");
    EXPECT_EQ(send(QEC_MCU_RAW_WRITE, QEC_MCU_SOURCE_RAW, "raw"), 0);
    EXPECT_EQ(transfer_some(QEC_MCU_SOURCE_RAW, 10), "raw");
    poke({"card", "4711"});
    EXPECT_EQ(transfer(QEC_MCU_SOURCE_RFID, 3), "471");
    EXPECT_EQ(transfer(QEC_MCU_SOURCE_RFID, 3), "1");
    EXPECT_EQ(send(QEC_MCU_RFID_SEND, 1, "wake"), 0);
    EXPECT_EQ(transfer(QEC_MCU_SOURCE_RFID, 3), "\x06");
    EXPECT_EQ(put(QEC_MCU_RFID_CONTROL, 1), 0);
    EXPECT_EQ(send(QEC_MCU_RFID_SEND, 1, "wake"), -EIO) << "switched off";
    poke({"radar", "2", "-16000", "45000", "12"});
    EXPECT_TRUE(polls(fd_));
    qec_mcu_radar radar{};
    qec_mcu_transfer record{QEC_MCU_SOURCE_RADAR, sizeof radar, &radar};
    EXPECT_EQ(ask(QEC_MCU_RAW_READ, &record), 0);
    EXPECT_EQ(record.bytes, sizeof radar);
    EXPECT_EQ(radar.lane, 2U);
    EXPECT_EQ(radar.speed_mm_s, -16000);
    EXPECT_EQ(radar.distance_mm, 45000U);
    record = {7, sizeof radar, &radar};
    EXPECT_EQ(ask(QEC_MCU_RAW_READ, &record), -EINVAL);
    EXPECT_EQ(send(QEC_MCU_RAW_WRITE, QEC_MCU_SOURCE_RAW, std::string(1025, 'x')), -EINVAL);
}

TEST_F(SerialMcu, CarriesLinesOfItsOwn) {
    qel_mcu_uart_config config{24, 4800, 8, 0, 0, 0};
    EXPECT_EQ(ask(QEL_MCU_UART_CONFIG_REQUEST, &config), 0);
    config.data_bits = 9;
    EXPECT_EQ(ask(QEL_MCU_UART_CONFIG_REQUEST, &config), -EINVAL);
    qel_mcu_uart line{24, 0, 3, {1, 2, 3}};
    EXPECT_EQ(ask(QEL_MCU_UART_SEND_REQUEST, &line), 0);
    EXPECT_EQ(line.length, 3U);
    line = {24, kDeadlineMs * 20, 500, {}};
    EXPECT_EQ(ask(QEL_MCU_UART_GET_REQUEST, &line), 0);
    EXPECT_GE(line.length, 1U);
    EXPECT_EQ(line.bytes[0], 1);
    line = {4, 40, 500, {}};
    EXPECT_EQ(ask(QEL_MCU_UART_GET_REQUEST, &line), 0);
    EXPECT_EQ(line.length, 0U) << "the time is over";
    line = {5, 0, 1, {}};
    EXPECT_EQ(ask(QEL_MCU_UART_SEND_REQUEST, &line), -ENXIO);
    line = {24, 0, 501, {}};
    EXPECT_EQ(ask(QEL_MCU_UART_SEND_REQUEST, &line), -EINVAL);
    EXPECT_EQ(ask(QEL_MCU_UART_GET_REQUEST, nullptr), -EFAULT);
    poke({"channel", "4", "send", "0708"});
    line = {4, kDeadlineMs * 20, 500, {}};
    EXPECT_EQ(ask(QEL_MCU_UART_GET_REQUEST, &line), 0);
    EXPECT_EQ(line.length, 2U);
    EXPECT_EQ(line.bytes[1], 8);
}

TEST_F(SerialMcu, TakesCardsFramesAndFirmware) {
    qec_mcu_card card{"0815"};
    EXPECT_EQ(ask(QEC_MCU_PUT_CARD_NO, &card), 0);
    card = {};
    EXPECT_EQ(ask(QEC_MCU_READ_CARD_NO, &card), 0);
    EXPECT_STREQ(card.number, "0815");
    EXPECT_EQ(put(QEC_MCU_CLEAR_CARD_NO, 0), 0);
    EXPECT_EQ(ask(QEC_MCU_READ_CARD_NO, &card), 0);
    EXPECT_STREQ(card.number, "");
    std::fill(std::begin(card.number), std::end(card.number), 'x');
    EXPECT_EQ(ask(QEC_MCU_PUT_CARD_NO, &card), -EINVAL) << "no end";
    for (const auto &[request, most] :
         {std::pair{QEC_MCU_SET_CARD_STATUS, 2U}, std::pair{QEC_MCU_HEATER_TEST, 1U}}) {
        EXPECT_EQ(put(request, most), 0);
        EXPECT_EQ(put(request, most + 1), -EINVAL);
    }
    EXPECT_EQ(put(QEC_MCU_ACK_ADAPTER, 12), 0);
    qec_mcu_can can{};
    EXPECT_EQ(ask(QEC_MCU_CAN_GET, &can), 0);
    poke({"can", "0x123", "0a0b"});
    EXPECT_EQ(ask(QEC_MCU_CAN_GET, &can), 1);
    EXPECT_EQ(can.id, 0x123U);
    EXPECT_EQ(can.bytes, 2U);
    EXPECT_EQ(ask(QEC_MCU_CAN_SEND, &can), 0);
    can.bytes = 9;
    EXPECT_EQ(ask(QEC_MCU_CAN_SEND, &can), -EINVAL);
    EXPECT_EQ(put(QEC_MCU_UPGRADE_START, 1500), 0);
    EXPECT_EQ(send(QEC_MCU_RAW_WRITE, QEC_MCU_SOURCE_RAW, std::string(1000, 'f')), 0);
    EXPECT_EQ(send(QEC_MCU_RAW_WRITE, QEC_MCU_SOURCE_RAW, std::string(501, 'f')), -ENOSPC);
    EXPECT_EQ(put(QEC_MCU_UPGRADE_START, 1), -EBUSY);
    EXPECT_EQ(get(QEC_MCU_UPGRADE_END), 1000U);
    uint32_t none = 0;
    EXPECT_EQ(ask(QEC_MCU_UPGRADE_END, &none), -EINVAL);
    std::string firmware(100000, 'w');
    qec_mcu_block block{100000, firmware.data()};
    EXPECT_EQ(ask(QEC_MCU_UPDATE_WIRELESS, &block), 0);
    EXPECT_EQ(shows("wireless firmware bytes"), "100000");
}

TEST_F(SerialMcu, WhenItIsSilentEveryRequestTimesOutButNoUnknownOne) {
    poke({"silent", "1"});
    std::array<uint8_t, 1024> record{};
    for (uint32_t number = 0; number <= 0x24; ++number) {
        const bool known = number != 0x18;
        qec_mcu_transfer transfer{0, 0, nullptr};
        const bool points = number == 0 || number == 5 || number == 6 || number == 0x1A || number == 0x24;
        EXPECT_EQ(ask(0xC0044D00 + number, points ? static_cast<void *>(&transfer) : record.data()),
                  known ? -ETIMEDOUT : -ENOTTY)
            << number;
    }
    poke({"press", "0"}, -EINVAL);
    poke({"press", "32"}, -EINVAL);
    poke({"juggle", "1"}, -EINVAL);
}
