// The microcontroller's node: every request it knows, its events, the lines that it carries.
#include <gtest/gtest.h>
#include <poll.h>
#include <algorithm>
#include <array>
#include <thread>

#include "qel/mcu_driver.h"
#include "qel/serial_driver.h"
#include "tests/board/serial_bench.h"

using namespace qel::test;

namespace {

const std::string kBoard =
    "[chip.misc]\n[chip.mcu]\nversions = [\"MCU 3\", \"RFID 1\"]\nmodules = [\"\", \"reader\"]\n"
    "crypt_number = \"0102\"\ncaps = \"0605\"\nloops_ua = [4000, 12000]\nsupply = [12050, 830]\nbattery = "
    "[7400, 85, 1]\nraw = { peer = { kind = \"echo\" } "
    "}\n"
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
    int send(uint32_t request, uint32_t source, std::string data) const {
        qec_mcu_transfer record{source, static_cast<uint32_t>(data.size()), data.data()};
        return ask(request, &record);
    }
    void poke(const std::vector<std::string> &words, int64_t result = 0) {
        EXPECT_EQ(here_.board.poke(0, QEC_MCU_DEVICE, words).value, result) << words[0];
    }
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

TEST_F(SerialMcu, AnswersWhatItIsAndHas) {
    using State = std::array<uint32_t, 5>;
    for (const State &expected : {State{1, 12050, 830}, State{2, 7400, 85, 1}}) {
        State state = {expected[0], 9, 9, 9, 9};
        EXPECT_EQ(ask(QEC_MCU_GET_POWRE_STATE, state.data()), 0);
        EXPECT_EQ(state, expected);
    }
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
    poke({"panel", "0"});
    EXPECT_EQ(get(QEC_MCU_FACEBOARD_STATE), 0U);
    poke({"address-key", "1"});
    EXPECT_EQ(get(QEC_MCU_REST_IP), 1U);
    EXPECT_EQ(ask(QEC_MCU_SHUTDOWN_HOST, nullptr), 0);
    EXPECT_EQ(here_.board.take_events(), std::vector<std::string>{"chip 0: shut down by /dev/qecMcu"});
}

TEST_F(SerialMcu, RefusesWhatItCannotDo) {
    std::string text(1025, 't');
    qec_mcu_block block{1025, text.data()};
    EXPECT_EQ(ask(QEC_MCU_WRITE_LCD, &block), -EINVAL);
    qec_mcu_card card;
    std::fill(std::begin(card.number), std::end(card.number), 'x');
    EXPECT_EQ(ask(QEC_MCU_PUT_CARD_NO, &card), -EINVAL) << "no end";
    qec_mcu_transfer of_no_source{7, 16, text.data()};
    EXPECT_EQ(ask(QEC_MCU_RAW_READ, &of_no_source), -EINVAL);
    EXPECT_EQ(send(QEC_MCU_RAW_WRITE, QEC_MCU_SOURCE_RAW, text), -EINVAL);
    EXPECT_EQ(put(QEC_MCU_RFID_CONTROL, 1), 0);
    EXPECT_EQ(send(QEC_MCU_RFID_SEND, 1, "wake"), -EIO) << "switched off";
    EXPECT_EQ(ask(QEL_MCU_UART_GET_REQUEST, nullptr), -EFAULT);
    const struct {
        uint32_t request;
        std::array<uint32_t, 8> record;
        int result = -EINVAL;
    } requests[] = {
        {QEC_MCU_SET_TIME, {2026, 13, 23, 1, 2, 50, 7}},
        {QEC_MCU_CTRL_POWERSWITCH, {31, 1}, 0},
        {QEC_MCU_CTRL_POWERSWITCH, {32, 1}},
        {QEC_MCU_RESET_MCU, {0}},
        {QEC_MCU_GET_VER, {4}},
        {QEC_MCU_SET_CARD_STATUS, {2}, 0},
        {QEC_MCU_SET_CARD_STATUS, {3}},
        {QEC_MCU_HEATER_TEST, {1}, 0},
        {QEC_MCU_HEATER_TEST, {2}},
        {QEC_MCU_CAN_SEND, {0, 9}},
        {QEC_MCU_UPGRADE_END, {0}},
        {QEL_MCU_UART_CONFIG_REQUEST, {24, 4800, 8}, 0},
        {QEL_MCU_UART_CONFIG_REQUEST, {24, 4800, 9}},
        {QEL_MCU_UART_SEND_REQUEST, {5, 0, 1}, -ENXIO},
        {QEL_MCU_UART_SEND_REQUEST, {24, 0, 501}},
    };
    for (const auto &request : requests) {
        std::array<uint32_t, 128> record{};
        std::ranges::copy(request.record, record.begin());
        EXPECT_EQ(ask(request.request, record.data()), request.result)
            << std::hex << request.request << " " << record[0];
    }
    EXPECT_EQ(put(QEC_MCU_RESET_MCU, 0xFFFFFFFF), 0);
    EXPECT_EQ(shown(here_.board, QEC_MCU_DEVICE, "outputs"), "0");
    poke({"press", "0"}, -EINVAL);
    poke({"press", "32"}, -EINVAL);
    poke({"juggle", "1"}, -EINVAL);
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
        EXPECT_EQ(std::string(event.data, event.data + event.bytes), "\x03\x01");
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

TEST_F(SerialMcu, KeepsWhatIsFetchedLater) {
    poke({"card", "4711"});
    EXPECT_EQ(transfer(QEC_MCU_SOURCE_RFID, 3), "471");
    EXPECT_EQ(transfer(QEC_MCU_SOURCE_RFID, 3), "1");
    poke({"radar", "2", "-16000", "45000", "12"});
    EXPECT_TRUE(polls(fd_));
    qel_mcu_uart line{4, 40, 500, {}};
    EXPECT_EQ(ask(QEL_MCU_UART_GET_REQUEST, &line), 0);
    EXPECT_EQ(line.length, 0U) << "the time is over";
    poke({"channel", "4", "send", "0708"});
    line = {4, kDeadlineMs * 20, 500, {}};
    EXPECT_EQ(ask(QEL_MCU_UART_GET_REQUEST, &line), 0);
    EXPECT_EQ(line.length, 2U);
    EXPECT_EQ(line.bytes[1], 8);
    qec_mcu_card card{"0815"};
    EXPECT_EQ(ask(QEC_MCU_PUT_CARD_NO, &card), 0);
    card = {};
    EXPECT_EQ(ask(QEC_MCU_READ_CARD_NO, &card), 0);
    EXPECT_STREQ(card.number, "0815");
    EXPECT_EQ(put(QEC_MCU_CLEAR_CARD_NO, 0), 0);
    EXPECT_EQ(ask(QEC_MCU_READ_CARD_NO, &card), 0);
    EXPECT_STREQ(card.number, "");
    qec_mcu_can can{};
    EXPECT_EQ(ask(QEC_MCU_CAN_GET, &can), 0);
    poke({"can", "0x123", "0a0b"});
    EXPECT_EQ(ask(QEC_MCU_CAN_GET, &can), 1);
    EXPECT_EQ(can.id, 0x123U);
    EXPECT_EQ(can.bytes, 2U);
}

TEST_F(SerialMcu, TakesFirmwareOfTheSizeAnnounced) {
    EXPECT_EQ(put(QEC_MCU_UPGRADE_START, 1500), 0);
    EXPECT_EQ(send(QEC_MCU_RAW_WRITE, QEC_MCU_SOURCE_RAW, std::string(1000, 'f')), 0);
    EXPECT_EQ(send(QEC_MCU_RAW_WRITE, QEC_MCU_SOURCE_RAW, std::string(501, 'f')), -ENOSPC);
    EXPECT_EQ(put(QEC_MCU_UPGRADE_START, 1), -EBUSY);
    EXPECT_EQ(get(QEC_MCU_UPGRADE_END), 1000U);
    std::string firmware(100000, 'w');
    qec_mcu_block block{100000, firmware.data()};
    EXPECT_EQ(ask(QEC_MCU_UPDATE_WIRELESS, &block), 0);
    EXPECT_EQ(shown(here_.board, QEC_MCU_DEVICE, "wireless firmware bytes"), "100000");
}

TEST_F(SerialMcu, ItsLinesBreakOneByOne) {
    here_.board.add_fault("/dev/qecMcu/24 line:in lose every 2");
    qel_mcu_uart line{24, 0, 4, {1, 2, 3, 4}};
    EXPECT_EQ(ask(QEL_MCU_UART_SEND_REQUEST, &line), 0);
    EXPECT_EQ(send(QEC_MCU_RAW_WRITE, QEC_MCU_SOURCE_RAW, "whole"), 0);
    std::string raw;
    for (int i = 0; i < 10000 && raw.size() < 5; ++i, usleep(1000)) raw += transfer(QEC_MCU_SOURCE_RAW, 10);
    EXPECT_EQ(raw, "whole");
    std::string got;
    while (got.size() < 2) {
        line = {24, kDeadlineMs * 20, 500, {}};
        ASSERT_EQ(ask(QEL_MCU_UART_GET_REQUEST, &line), 0);
        got.append(line.bytes, line.bytes + line.length);
    }
    EXPECT_EQ(got, "\x01\x03");
}

TEST_F(SerialMcu, KeepsNoMoreThanItHasRoomFor) {
    const std::string block(QEC_MCU_RAW_BYTES_MAX, 'r');
    constexpr size_t kMost = (1 << 20) + 65536;  // on the line, and in the microcontroller
    for (size_t sent = 0; sent < 2 * kMost; sent += block.size())
        ASSERT_EQ(send(QEC_MCU_RAW_WRITE, QEC_MCU_SOURCE_RAW, block), 0) << "an echo holds up nobody";
    const std::string card(200, 'A');
    for (int i = 0; i < 1000; ++i) poke({"rfid", card});
    const auto kept = [&](uint32_t source, uint32_t most) {
        size_t bytes = 0;
        while (const size_t got = transfer(source, most).size()) bytes += got;
        return bytes;
    };
    EXPECT_EQ(kept(QEC_MCU_SOURCE_RFID, QEC_MCU_RFID_BYTES_MAX), 65536U);
    const size_t echoed = kept(QEC_MCU_SOURCE_RAW, QEC_MCU_RAW_BYTES_MAX);
    EXPECT_LE(echoed, kMost);
    EXPECT_GE(echoed, 65536U);
}

TEST_F(SerialMcu, WhenItIsSilentEveryRequestTimesOutButNoUnknownOne) {
    poke({"silent", "1"});
    std::array<uint8_t, 1024> record{};
    for (uint32_t number = 0; number <= 0x24; ++number) {
        qec_mcu_transfer transfer{0, 0, nullptr};
        const bool points = number == 0 || number == 5 || number == 6 || number == 0x1A || number == 0x24;
        EXPECT_EQ(ask(0xC0044D00 + number, points ? static_cast<void *>(&transfer) : record.data()),
                  number != 0x18 ? -ETIMEDOUT : -ENOTTY)
            << number;
    }
}
