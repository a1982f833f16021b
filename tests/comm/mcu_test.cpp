// The microcontroller: every command of the driver, the device object in both variants, events, the port
// and the plain serial line.
#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "platform/include/osa.h"
#include "qel/serial_driver.h"
#include "tests/board/serial_bench.h"
#include "tests/comm/comm_bench.h"

namespace qel::test {
namespace {

constexpr const char *kNode = "/dev/qecMcu";
constexpr const char *kMcu =
    "[chip.mcu]\nversions = [\"MCU 1.07\", \"radio 2.00\"]\ncaps_word = 77\nrfid_reply = \"0102030405\"\n"
    "[chip.mcu.raw]\n[[chip.mcu.channel]]\nnumber = 24\n";
constexpr unsigned kScale = 50;

// Room for any record, and for the block behind one.
struct Record {
    union {
        qec_mcu_block block;
        qec_mcu_transfer transfer;
        qec_mcu_time time;
        qec_mcu_can can;
        qec_mcu_power_switch power;
        qec_mcu_power_state state;
        qec_mcu_card card;
        qec_mcu_loop loop;
        qec_mcu_module module;
        qel_mcu_uart uart;
        qel_mcu_uart_config uart_config;
        char version[QEC_MCU_VERSION_BYTES];
        uint32_t word;
        int32_t number;
        uint8_t byte;
        uint8_t all[1024];
    };
    char data[64] = "text of sixteen.";

    Record() { memset(all, 0, sizeof(all)); }
};

struct Command {
    bool send;
    uint32_t command;
    const char *request;     // the driver's
    const char *text;        // in the log after a failure, with its end; nullptr: none
    int failing;             // the result when the driver answers EIO
    void (*fill)(Record &);  // what the driver takes
};

void nothing(Record &) {}
void text_block(Record &r) { r.block = {16, r.data}; }
void card_reader(Record &r) { r.transfer = {0, 16, r.data}; }

constexpr int kDriver = -EIO;

const Command kCommands[] = {
    {true, 0, "0xC0044D00", "QEC_MCU_WRITE_LCD, failed\n", kDriver, text_block},
    {true, 1, "0xC0044D01", "QEC_MCU_SET_TIME, failed\n", kDriver,
     [](Record &r) { r.time = {2026, 11, 23, 1, 2, 14, 0}; }},
    {true, 2, "0xC0044D09", "QEC_MCU_SHUTDOWN_HOST, failed\n", kDriver, nothing},
    {true, 3, "0xC0044D0A", "QEC_MCU_UART_CFG, failed\n", kDriver,
     [](Record &r) { r.uart_config = {QEL_MCU_CHANNEL_PTZ, 9600, 8, 0, 0, 0}; }},
    {true, 4, "0xC0044D0B", "QEC_MCU_UART_SEND, failed\n", kDriver,
     [](Record &r) { r.uart.channel = QEL_MCU_CHANNEL_PTZ, r.uart.length = 3; }},
    {true, 5, "0xC0044D0D", "QEC_MCU_CAN_SEND, failed\n", kDriver, [](Record &r) { r.can.bytes = 8; }},
    {true, 6, "0xC0044D11", "QEC_MCU_RESET_MCU failed\n", kDriver, [](Record &r) { r.number = -1; }},
    {true, 7, "0xC0044D16", "QEC_MCU_CTRL_POWERSWITCH, failed\n", kDriver,
     [](Record &r) {
         r.power = {1, 1};
     }},
    {true, 8, "0xC0044D17", "QEC_MCU_ACK_ADAPTER, failed\n", kDriver, nothing},
    {true, 11, "0xC0044D02", "QEC_MCU_HEATER_TEST, failed\n", kDriver, [](Record &r) { r.word = 1; }},
    {true, 12, "0xC0044D1A", "CMD_MCU_RFID_SEND, failed\n", kDriver, card_reader},
    {true, 13, "0xC0044D1E", "CMD_MCU_RFID_SEND, failed\n", kDriver, [](Record &r) { r.word = 1; }},
    {true, 14, "0xC0044D1C", "CMD_MCU_PUT_CARD_NO, failed\n", kDriver,
     [](Record &r) { strcpy(r.card.number, "0042"); }},
    {true, 15, "0xC0044D1F", "CMD_MCU_READ_CARD_NO, failed\n", kDriver, nothing},
    {true, 16, "0xC0044D20", "QEC_MCU_SET_CARD_STATUS, failed\n", kDriver, [](Record &r) { r.word = 1; }},
    {true, 17, "0xC0044D1D", nullptr, kDriver, nothing},
    {false, 0, "0xC0044D03", "QEC_MCU_FACEBOARD_STATE, failed\n", kDriver, nothing},
    {false, 1, "0xC0044D04", "QEC_MCU_KEY_STATE, failed\n", kDriver, nothing},
    {false, 2, "0xC0044D0C", "QEC_MCU_UART_GET, failed\n", kDriver,
     [](Record &r) { r.uart.channel = QEL_MCU_CHANNEL_PTZ, r.uart.length = QEL_MCU_UART_BYTES; }},
    {false, 3, "0xC0044D0E", "QEC_MCU_CAN_GET, failed\n", kDriver, nothing},
    {false, 4, "0xC0044D0F", "QEC_MCU_REST_IP, failed\n", kDriver, nothing},
    {false, 5, "0xC0044D12", "CMD_MCU_GET_VER, failed\n", kDriver, nothing},
    {false, 6, "0xC0044D13", "CMD_MCU_GET_CRY, failed\n", kDriver, nothing},
    {false, 7, "0xC0044D14", "CMD_MCU_GET_4TO20MA, failed\n", -1, nothing},
    {false, 8, "0xC0044D15", "CMD_MCU_GET_POWRE_STATE, failed\n", -1, nothing},
    {false, 9, "0xC0044D05", "CMD_MCU_SPI_GET, failed\n", -1,
     [](Record &r) {
         r.transfer = {QEC_MCU_SOURCE_RFID, sizeof(r.data), r.data};
     }},
    {false, 10, "0xC0044D19", "QEC_MCU_KEY_STATE, failed\n", kDriver, nothing},
    {false, 11, "0xC0044D22", "CMD_MCU_MODULE_INFO_GET, failed\n", -1, nothing},
    {false, 12, "0xC0044D23", "QEC_MCU_MODULE_READ, failed\n", -1, nothing},
};

class McuDriver : public testing::Test {
protected:
    McuDriver() { EXPECT_EQ(CALL(*bench_.library, QEL_mcuCreate)(&handle_), 0) << bench_.log.all(); }
    ~McuDriver() override { EXPECT_EQ(CALL(*bench_.library, QEL_mcuDelete)(handle_), 0); }

    int run(const Command &command, Record &record) {
        return command.send ? CALL(*bench_.library, QEL_mcuSendInfo)(handle_, command.command, &record)
                            : CALL(*bench_.library, QEL_McuGetInfo)(handle_, command.command, &record);
    }

    CommBench bench_{kMcu, {.dir = "", .time_scale = kScale}};
    McuHandle handle_ = nullptr;
};

TEST_F(McuDriver, AnswersEveryCommandAndNamesItWhenItFails) {
    for (const Command &command : kCommands) {
        SCOPED_TRACE(std::string(command.send ? "send " : "get ") + std::to_string(command.command));
        Record record;
        command.fill(record);
        EXPECT_GE(run(command, record), 0) << bench_.log.all();
        bench_.board.add_fault(std::string(kNode) + " ioctl:" + command.request + " fail EIO");
        bench_.log.clear();
        EXPECT_EQ(run(command, record), command.failing);
        const char *function = command.send ? "QEL_mcuSendInfo" : "QEL_McuGetInfo";
        const std::vector<LogLine> lines = bench_.log.lines();
        EXPECT_EQ(lines.size(), command.text != nullptr ? 1u : 0u);
        if (command.text != nullptr && !lines.empty()) {
            EXPECT_EQ(lines[0].text.rfind(std::string("[libqel] ERROR  (") + function + "|", 0), 0u)
                << lines[0].text;
            const std::string end = std::string("): ") + command.text;
            EXPECT_EQ(lines[0].text.find(end), lines[0].text.size() - end.size()) << lines[0].text;
        }
        bench_.board.clear_faults();
    }
}

TEST_F(McuDriver, RefusesCommandsItDoesNotKnowAndRecordsThatAreNotThere) {
    const Library &library = *bench_.library;
    Record record;
    for (const uint32_t command : {9u, 10u, 18u, 0xFFFFFFFFu}) {
        bench_.log.clear();
        EXPECT_EQ(CALL(library, QEL_mcuSendInfo)(handle_, command, &record), -1);
        EXPECT_TRUE(bench_.log.find("Unknow  QEL_MCU_SEND_CMD!\n").level == 1);
    }
    for (const uint32_t command : {13u, 0xFFFFFFFFu}) {
        bench_.log.clear();
        EXPECT_EQ(CALL(library, QEL_McuGetInfo)(handle_, command, &record), -1);
        EXPECT_TRUE(bench_.log.contains("Unknow  QEL_MCU_GET_CMD!\n"));
    }
    bench_.log.clear();
    EXPECT_EQ(CALL(library, QEL_mcuSendInfo)(handle_, 0, nullptr), -1);
    EXPECT_EQ(CALL(library, QEL_McuGetInfo)(nullptr, 0, &record), -1);
    EXPECT_TRUE(bench_.log.lines().empty());
}

TEST_F(McuDriver, CountsItsUsersOnOneDescriptor) {
    const Library &library = *bench_.library;
    McuHandle second = nullptr;
    EXPECT_EQ(CALL(library, QEL_mcuCreate)(&second), 0);
    EXPECT_EQ(second, handle_);
    EXPECT_EQ(CALL(library, QEL_mcuDeinit)(), -1);
    EXPECT_TRUE(bench_.log.contains("The mcu is working!\n"));
    EXPECT_EQ(CALL(library, QEL_mcuDelete)(handle_), 0);
    Record record;
    EXPECT_EQ(CALL(library, QEL_McuGetInfo)(second, QEL_MCU_CMD_KEY_STATE, &record), 0);
    EXPECT_EQ(CALL(library, QEL_mcuDelete)(second), 0);
    EXPECT_EQ(CALL(library, QEL_mcuDelete)(second), -1);
    EXPECT_TRUE(bench_.log.contains("The mcu interface has been deleted\n"));
    EXPECT_EQ(CALL(library, QEL_mcuCreate)(&handle_), 0);
}

TEST_F(McuDriver, NamesEachOfTheOtherRequestsWhenItFails) {
    const Library &library = *bench_.library;
    Record record;
    const auto transfer = [&] { return &(record.transfer = {QEC_MCU_SOURCE_RAW, 4, record.data}); };
    const struct {
        const char *request;
        const char *text;
        std::function<int()> call;
    } requests[] = {
        {"0xC0044D05", "QEC_MCU_RAW_READ, failed",
         [&] { return CALL(library, QEL_McuRead)(handle_, transfer()); }},
        {"0xC0044D06", "QEC_MCU_RAW_WRITE, failed",
         [&] { return CALL(library, QEL_McuWrite)(handle_, transfer()); }},
        {"0xC0044D07", "QEC_MCU_UPGRADE_START, failed",
         [&] { return CALL(library, QEL_McuUpgradeStart)(handle_, &record.word); }},
        {"0xC0044D08", "QEC_MCU_UPGRADE_END, failed",
         [&] { return CALL(library, QEL_McuUpgradeEnd)(handle_, &record.word); }},
        {"0xC0044D24", "QEC_MCU_UPDATE_WIRELESS, failed",
         [&] {
             return CALL(library, QEL_upgradeWirelessMcu)(handle_, &(record.block = {4, record.data}));
         }},
        {"0xC0044D1B", "QEC_MCU_GET_NETLINK_STATE, failed",
         [&] { return CALL(library, QEL_mcuGetNetLinkState)(handle_, &record.word); }},
        {"0xC0044D10", "QEC_MCU_RAW_WRITE, failed",
         [&] { return CALL(library, QEL_McuGetGaps)(handle_, record.all); }},
        {"0xC0044D21", "QEL_McuCloseThr, failed", [&] { return CALL(library, QEL_McuCloseThr)(handle_); }},
    };
    for (const auto &request : requests) {
        SCOPED_TRACE(request.text);
        bench_.board.add_fault(std::string(kNode) + " ioctl:" + request.request + " fail EIO");
        bench_.log.clear();
        EXPECT_LT(request.call(), 0);
        EXPECT_EQ(bench_.log.count(std::string("): ") + request.text + "\n"), 1) << bench_.log.all();
        bench_.board.clear_faults();
    }
}

class Mcu : public testing::Test {
protected:
    Mcu() {
        const uint32_t id = 0;
        EXPECT_EQ(CALL(*bench_.library, createMcuDevice)(&id, &device_), 0) << bench_.log.all();
    }
    ~Mcu() override { EXPECT_EQ(device_->release(device_), 0); }
    int send(uint32_t type, const void *data, uint32_t bytes, uint32_t extra = 0) {
        const McuSendData record = {type, data, bytes, extra};
        return device_->send(device_, &record);
    }
    void poke(const std::vector<std::string> &words) {
        EXPECT_EQ(bench_.board.poke(0, kNode, words).value, 0);
    }

    CommBench bench_{kMcu, {.dir = "", .time_scale = kScale}};
    MCU_Device *device_ = nullptr;
};

// The fault fails what reaches the driver, so the log tells how far a call came.
TEST_F(Mcu, SendsWhatFitsAndNothingElse) {
    const std::string text(1025, 'x');
    EXPECT_EQ(send(QEL_MCU_SEND_LCD, text.data(), 1024), 0) << bench_.log.all();
    qec_mcu_time time = {2026, 11, 23, 1, 2, 14, 0};
    EXPECT_EQ(send(QEL_MCU_SEND_TIME, &time, sizeof(time)), 0);
    const qec_mcu_power_switch power = {2, 1};
    EXPECT_EQ(send(QEL_MCU_SEND_POWER, &power, 0), 0);
    EXPECT_EQ(send(QEL_MCU_SEND_RFID, "card", 4), 0);
    const uint32_t number = 7;
    EXPECT_EQ(send(QEL_MCU_SEND_ADAPTER, &number, 4), 0);

    bench_.board.add_fault(std::string(kNode) + " ioctl fail EIO");
    EXPECT_EQ(send(QEL_MCU_SEND_LCD, text.data(), 1025), -1);
    EXPECT_EQ(send(QEL_MCU_SEND_TIME, &time, 29), -1);
    EXPECT_EQ(send(QEL_MCU_SEND_LCD, nullptr, 1), -1);
    EXPECT_EQ(bench_.log.count("pData->len too long or pData->pData is NULL\n"), 3);
    EXPECT_EQ(send(4, text.data(), 1), -1);
    EXPECT_EQ(bench_.log.count("unknow pData->type\n"), 1);
    EXPECT_EQ(bench_.log.count("failed"), 0) << bench_.log.all();

    const struct {
        uint32_t type;
        const char *text;
    } failures[] = {{QEL_MCU_SEND_LCD, "MCU_SEND_LCD failed\n"},
                    {QEL_MCU_SEND_TIME, "MCU_SEND_TIME failed\n"},
                    {QEL_MCU_SEND_ADAPTER, "MCU_SEND_ADAPTER failed\n"},
                    {QEL_MCU_SEND_POWER, "CMD_MCU_CTRL_POWER failed\n"},
                    {QEL_MCU_SEND_RFID, "MCU_SEND_RFID failed\n"}};
    for (const auto &failure : failures) {
        EXPECT_EQ(send(failure.type, &time, 8), -1);
        EXPECT_EQ(bench_.log.count(std::string("): ") + failure.text), 1) << failure.text;
    }
}

TEST_F(Mcu, ReportsThePowerItSwitched) {
    for (const uint32_t on : {1u, 0u, 1u}) {
        const qec_mcu_power_switch power = {5, on};
        EXPECT_EQ(send(QEL_MCU_SEND_POWER, &power, sizeof(power)), 0);
        qec_mcu_power_state state = {0, {9, 9, 9, 9}};
        McuRecvData record = {QEL_MCU_RECV_POWER, &state, sizeof(state)};
        ASSERT_EQ(device_->recvData(device_, &record), 0);
        EXPECT_EQ(state.selector, 0u);
        EXPECT_EQ(state.words[0] >> 5 & 1, on);
    }
}

TEST_F(Mcu, ReadsCardsKeysAndRadar) {
    std::array<uint8_t, 8> bytes;
    McuRecvData record = {QEL_MCU_RECV_RFID, bytes.data(), 3};
    ASSERT_EQ(send(QEL_MCU_SEND_RFID, "read", 4, 1), 0) << bench_.log.all();
    ASSERT_EQ(device_->recvData(device_, &record), 0);
    EXPECT_EQ(record.len, 3u);
    record.len = sizeof(bytes);
    ASSERT_EQ(device_->recvData(device_, &record), 0);
    EXPECT_EQ(record.len, 2u);
    EXPECT_EQ(bytes[1], 5);

    poke({"press", "9"});
    bytes.fill(0xFF);
    record = {QEL_MCU_RECV_KEY, bytes.data(), 8};
    ASSERT_EQ(device_->recvData(device_, &record), 0);
    EXPECT_EQ(record.len, 1u);
    EXPECT_EQ(bytes[0], 9);
    EXPECT_EQ(bytes[1], 0xFF);

    qec_mcu_radar radar{};
    McuRecvData seen = {QEL_MCU_RECV_RADAR, &radar, 0};
    poke({"radar", "2", "-1500", "30000", "4"});
    ASSERT_EQ(device_->radarRecv(device_, &seen), 0);
    EXPECT_EQ(seen.len, 1u);
    EXPECT_EQ(radar.speed_mm_s, -1500);
    ASSERT_EQ(device_->radarRecv(device_, &seen), 0);
    EXPECT_EQ(seen.len, 0u);
    for (const uint32_t type : {0u, 3u, 4u, 6u}) {
        seen.type = type;
        EXPECT_EQ(device_->radarRecv(device_, &seen), -1);
    }
    record.type = QEL_MCU_RECV_RADAR;
    EXPECT_EQ(device_->recvData(device_, &record), -1);
    EXPECT_EQ(bench_.log.count("unknow pData->type\n"), 5);
}

TEST_F(Mcu, WaitsForEventsUntilTheReaderIsStopped) {
    std::vector<uint32_t> types;
    std::atomic<size_t> count{0};
    std::thread reader([&] {
        qec_mcu_event event;
        while (device_->recv(device_, &event) == 0) {
            types.push_back(event.type);
            ++count;
        }
        count = SIZE_MAX;
    });
    poke({"press", "3"});
    poke({"card", "0042"});
    poke({"alarm", "7"});
    for (int i = 0; i < kDeadlineMs && count < 3; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_EQ(count, 3u);
    McuHandle handle = nullptr;
    ASSERT_EQ(CALL(*bench_.library, QEL_mcuCreate)(&handle), 0);
    EXPECT_EQ(CALL(*bench_.library, QEL_McuCloseThr)(handle), 0);
    reader.join();
    EXPECT_EQ(types, (std::vector<uint32_t>{QEC_MCU_EVENT_KEY, QEC_MCU_EVENT_CARD, QEC_MCU_EVENT_ALARM}));
    EXPECT_EQ(CALL(*bench_.library, QEL_mcuDelete)(handle), 0);
}

TEST_F(Mcu, FetchesRawDataOnceASecondAtTheMost) {
    McuHandle handle = nullptr;
    ASSERT_EQ(CALL(*bench_.library, QEL_mcuCreate)(&handle), 0);
    std::array<char, 16> bytes;
    qec_mcu_transfer record = {QEC_MCU_SOURCE_RAW, sizeof(bytes), bytes.data()};
    EXPECT_EQ(CALL(*bench_.library, QEL_McuGetData)(handle, &record), 0);
    EXPECT_EQ(record.bytes, sizeof(bytes));
    EXPECT_EQ(bench_.log.count("[libqel] do nothing\n"), 1);
    poke({"raw", "send", "616263"});
    uint64_t taken_ms = 0;
    bytes.fill('#');
    for (int tries = 0; tries < 50 && bytes[0] == '#'; ++tries) {  // the line may take its time
        const uint64_t before_ms = OSA_timeMs();
        EXPECT_EQ(CALL(*bench_.library, QEL_McuGetData)(handle, &record), 0);
        taken_ms = OSA_timeMs() - before_ms;
    }
    EXPECT_GE(taken_ms, 1000u);
    EXPECT_EQ(std::string(bytes.data(), record.bytes), "abc");
    EXPECT_EQ(CALL(*bench_.library, QEL_mcuDelete)(handle), 0);
}

TEST_F(Mcu, AnswersWhatItIs) {
    std::array<char, QEL_MCU_VERSION_BUFFER_BYTES + 1> version;
    version.fill('#');
    version[QEL_MCU_VERSION_SELECTOR] = 1;
    EXPECT_EQ(device_->getVersion(device_, version.data()), 0);
    EXPECT_STREQ(version.data(), "radio 2.00");
    version[QEL_MCU_VERSION_SELECTOR] = 9;
    EXPECT_EQ(device_->getVersion(device_, version.data()), -1);
    EXPECT_TRUE(bench_.log.contains("): CMD_MCU_GET_VER failed\n"));
    EXPECT_EQ(device_->getVersion(device_, nullptr), -1);
    EXPECT_TRUE(bench_.log.contains("): pVer is NULL\n"));
    int state = 0;
    EXPECT_EQ(device_->getState(device_, &state), 0);
    EXPECT_EQ(state, 1);
    McuCaps caps;
    memset(&caps, 0xFF, sizeof(caps));
    EXPECT_EQ(device_->getcaps(device_, &caps), 0);
    EXPECT_EQ(caps.words[0], 6u);
    EXPECT_EQ(caps.words[1], 77u);
    EXPECT_EQ(caps.words[QEL_MCU_CAPS_WORDS - 1], 0u);
    bench_.board.add_fault("/dev/qecMisc ioctl fail EIO");
    EXPECT_EQ(device_->getcaps(device_, &caps), 0);
    EXPECT_EQ(caps.words[1], 0u);
    EXPECT_EQ(send(QEL_MCU_SEND_LCD, "hello", 5), 0);
    EXPECT_EQ(shown(bench_.board, kNode, "lcd"), "hello");
    EXPECT_EQ(device_->reset(device_), 0);
    EXPECT_EQ(shown(bench_.board, kNode, "lcd"), "");
}

TEST_F(Mcu, ChecksItsRecordAndCountsReferences) {
    EXPECT_EQ(device_->addref(device_), 0);
    EXPECT_EQ(device_->release(device_), 0);
    EXPECT_EQ(device_->getState(nullptr, nullptr), -1);
    MCU_Device empty = *device_;
    empty.priv = nullptr;
    EXPECT_EQ(empty.recvData(&empty, nullptr), -1);
    EXPECT_EQ(empty.release(&empty), -1);
    EXPECT_EQ(bench_.log.count("Parameter pThz or pThz->priv is NULL!\n"), 3);
}

TEST(McuDevice, FailsWhereThereIsNone) {
    CommBench bench("");
    const uint32_t id = 0;
    auto *device = reinterpret_cast<MCU_Device *>(&bench);
    EXPECT_EQ(CALL(*bench.library, createMcuDevice)(&id, &device), -1);
    EXPECT_EQ(device, nullptr);
    EXPECT_TRUE(bench.log.contains("Can't open /dev/qecMcu\n"));
    EXPECT_TRUE(bench.log.contains("ERROR  (createMcuDevice|")) << bench.log.all();
    EXPECT_EQ(CALL(*bench.library, createMcuDevice)(nullptr, &device), -1);
}

// ---- the card reader on a USB adapter ----

TEST(McuOnUsb, StartsTheReaderAndPassesBytes) {
    CommBench bench("[[chip.tty]]\nnode = \"/dev/ttyUSB0\"\n", {.dir = "", .time_scale = kScale},
                    {.name = "RD-1", .category = 3});
    const FarEnd far(bench.board, "/dev/ttyUSB0");
    const uint32_t id = 0;
    MCU_Device *device = nullptr;
    ASSERT_EQ(CALL(*bench.library, createMcuDevice)(&id, &device), 0) << bench.log.all();
    EXPECT_TRUE(bench.log.contains("):  open ttyXRUSB fail,Fail to create mcu!\n"));
    EXPECT_EQ(shown(bench.board, "/dev/ttyUSB0", "settings"), "115200 8N1");
    const std::string first("\xAA\xAA\x00\x0A\x00\xFF\xFF\xFF\xFE\xFF\x00\x0A\xF6\xFE\x00", 15);
    const std::string second("\xAA\xAA\x00\x0F\x00\xFF\xFF\xFF\xFE\xFF\x00\x15\x01\x3C\x01\x7F\x02\x50\x18",
                             19);
    EXPECT_EQ(far.read(34), first + second);
    const McuSendData sent = {99, "bytes", 5, 0};
    EXPECT_EQ(device->send(device, &sent), 0);
    EXPECT_EQ(far.read(5), "bytes");
    EXPECT_TRUE(far.write("card\n"));
    std::array<char, 64> got;
    McuRecvData record = {99, got.data(), sizeof(got)};
    std::string all;
    while (all.size() < 5 && device->recvData(device, &record) == 0) {
        all.append(got.data(), record.len);
        record.len = sizeof(got);
    }
    EXPECT_EQ(all, "card\n");
    std::array<char, QEL_MCU_VERSION_BUFFER_BYTES> version;
    version.fill('#');
    EXPECT_EQ(device->getVersion(device, version.data()), 0);
    EXPECT_EQ(version[0], '#');
    EXPECT_EQ(device->reset(device), 0);
    EXPECT_EQ(device->getcaps(device, nullptr), 0);
    EXPECT_EQ(device->release(device), 0);
}

TEST(McuOnUsb, LeavesNothingBehindWithoutAnAdapter) {
    CommBench bench("", {.dir = "", .time_scale = kScale}, {.name = "RD-1", .category = 3});
    const uint32_t id = 0;
    MCU_Device *device = nullptr;
    EXPECT_EQ(CALL(*bench.library, createMcuDevice)(&id, &device), -1);
    EXPECT_EQ(device, nullptr);
    EXPECT_TRUE(bench.log.contains("):  open ttyUSB fail,Fail to create mcu!\n")) << bench.log.all();
}

// ---- its clock, its line, its port ----

TEST(McuClock, IsSetOnTheProductsThatKeepItThere) {
    const qec_mcu_time time = {2026, 11, 23, 1, 2, 14, 0};
    for (const bool keeps : {true, false}) {
        CommBench bench(kMcu, {}, {.name = keeps ? "TRF-9000" : "BX-200", .category = 0});
        EXPECT_EQ(CALL(*bench.library, QEL_syncTimeToMcu)(&time), 0);
        EXPECT_EQ(shown(bench.board, kNode, "time").empty(), !keeps);
        bench.board.add_fault(std::string(kNode) + " ioctl fail EIO");
        EXPECT_EQ(CALL(*bench.library, QEL_syncTimeToMcu)(&time), keeps ? -1 : 0);
        EXPECT_EQ(bench.log.count("): ioctl syncTimeToMcu failed\n"), keeps ? 1 : 0);
        bench.board.add_fault(std::string(kNode) + " open fail EIO");
        EXPECT_EQ(CALL(*bench.library, QEL_syncTimeToMcu)(&time), keeps ? -1 : 0);
        EXPECT_EQ(bench.log.count("): open failed\n"), keeps ? 1 : 0);
    }
}

TEST(McuLine, TakesItsSettingsAndKeepsThem) {
    CommBench bench(std::string(kMcu) + tty("4"), {.dir = "", .time_scale = kScale});
    McuHandle handle = nullptr;
    ASSERT_EQ(CALL(*bench.library, QEL_mcuCreate)(&handle), 0);
    const ComAttribute attribute = {19200, 7, QEL_COM_PARITY_EVEN, QEL_COM_TWO_STOP_BITS, 0};
    EXPECT_EQ(CALL(*bench.library, QEL_mcuSetAttribute)(handle, 4, &attribute), 0) << bench.log.all();
    EXPECT_EQ(shown(bench.board, "/dev/ttyS4", "settings"), "19200 7E2");
    const ComAttribute odd = {230400, 7, QEL_COM_PARITY_EVEN, 1, 0};
    EXPECT_EQ(CALL(*bench.library, QEL_mcuSetAttribute)(handle, 4, &odd), 0);
    EXPECT_TRUE(bench.log.contains("WARN  (QEL_mcuSetAttribute|")) << bench.log.all();
    EXPECT_TRUE(bench.log.contains("unsupported baudrate 230400\n"));
    EXPECT_EQ(shown(bench.board, "/dev/ttyS4", "settings"), "19200 7E1");
    EXPECT_EQ(CALL(*bench.library, QEL_mcuSetAttribute)(handle, 5, &attribute), -1);
    EXPECT_EQ(CALL(*bench.library, QEL_mcuSetAttribute)(nullptr, 4, &attribute), -1);
    EXPECT_TRUE(bench.log.contains("): Para: hMcu is NULL!\n"));
    EXPECT_EQ(CALL(*bench.library, QEL_mcuDelete)(handle), 0);
}

constexpr const char *kPortTables = "[[chip.port]]\nnumber = 2\nkind = 4\n";
constexpr const char *kFlash =
    "[chip.flash]\nkind = \"nand\"\nerase_bytes = 0x20000\npage_bytes = 0x800\nenvironment_bytes = 0x20000\n"
    "partition = [{ name = \"hwid\", size = 0x100000 }]\n[chip.environment]\nkz_keyboard = ";

TEST(McuPort, CarriesRawBytesBothWays) {
    CommBench bench(std::string(kMcu) + kPortTables + "[chip.files]\n\"/var/tmp/BootInfo/bootpara\" = \"\"\n",
                    {.dir = "", .time_scale = 5});
    const CommPortDesc description{2};
    CommPort *port = nullptr;
    ASSERT_EQ(CALL(*bench.library, createCommPort)(&description, &port), 0) << bench.log.all();
    EXPECT_TRUE(bench.log.contains("[libqel] port2 register mcu\n"));
    char byte = 0;
    EXPECT_EQ(port->read(port, &byte, 1), -1);
    ASSERT_EQ(port->open(port), 0) << bench.log.all();
    EXPECT_TRUE(
        bench.log.contains("[libqel] The flag of function which both upgrade and commu are using is=0\n"));
    std::array<char, 1100> bytes;
    EXPECT_EQ(port->read(port, bytes.data(), bytes.size()), 0);
    EXPECT_EQ(bench.board.poke(0, kNode, {"raw", "send", "6B65793D35"}).value, 0);
    std::string got;
    for (int tries = 0; tries < 100 && got.size() < 5; ++tries) {
        const int count = port->read(port, bytes.data(), bytes.size());
        ASSERT_GE(count, 0) << bench.log.all();
        got.append(bytes.data(), static_cast<size_t>(count));
    }
    EXPECT_EQ(got, "key=5");
    EXPECT_EQ(port->write(port, bytes.data(), bytes.size()), 1100);
    EXPECT_EQ(port->purge(port, QEL_COM_DISCARD_INPUT), 0);
    EXPECT_EQ(port->purge(port, QEL_COM_SUSPEND_OUTPUT), -1);
    EXPECT_EQ(port->close(port), 0);
    EXPECT_EQ(port->release(port), 0);
    EXPECT_EQ(CALL(*bench.library, QEL_mcuDeinit)(), 0);
}

TEST(McuPort, ObeysTheKeyboardSetting) {
    for (const char *setting : {"0", "00", "1", "off"}) {
        SCOPED_TRACE(setting);
        CommBench bench(std::string(kMcu) + kPortTables + kFlash + "\"" + setting + "\"\n");
        const CommPortDesc description{2};
        CommPort *port = nullptr;
        ASSERT_EQ(CALL(*bench.library, createCommPort)(&description, &port), 0);
        const bool off = setting[0] == '0';
        EXPECT_EQ(port->open(port), off ? -1 : 0) << bench.log.all();
        EXPECT_EQ(bench.log.count("): kz_keyboard is set to zero, not support 433 func!\n"), off ? 1 : 0);
        EXPECT_EQ(port->release(port), 0);
    }
}

// ---- a plain serial line to one ----

std::mutex g_heard_mutex;
std::string g_heard;

void *receive(void *argument) {
    auto *link = static_cast<McuCommLink *>(argument);
    std::array<char, 64> bytes;
    while (OSA_thrStopping() == 0) {
        const int got = link->handle->read(link->handle, bytes.data(), bytes.size());
        if (got <= 0) continue;
        const std::lock_guard lock(g_heard_mutex);
        g_heard.append(bytes.data(), static_cast<size_t>(got));
    }
    return nullptr;
}

TEST(McuCommLine, SendsACommandAndHearsWhatComes) {
    CommBench bench(tty("1", "", "usage = 3"), {.dir = "", .time_scale = 5},
                    {.name = "PTD-4120", .category = 2});
    const FarEnd far(bench.board, "/dev/ttyS1");
    g_heard.clear();
    McuCommLink link{};
    const std::string command = pattern(32);
    ASSERT_EQ(CALL(*bench.library, QEL_comCommunicationWithMCU)(&link, receive, command.data(), 32), 0)
        << bench.log.all();
    EXPECT_EQ(link.port, 1);
    EXPECT_NE(link.mutex, nullptr);
    EXPECT_EQ(far.read(32), command);
    EXPECT_EQ(shown(bench.board, "/dev/ttyS1", "settings"), "9600 8N1");
    EXPECT_TRUE(far.write("state=ok"));
    for (int i = 0; i < 2000; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        const std::lock_guard lock(g_heard_mutex);
        if (g_heard.size() >= 8) break;
    }
    EXPECT_EQ(CALL(*bench.library, QEL_comShutdownCommunicationWithMCU)(&link), 0) << bench.log.all();
    EXPECT_EQ(g_heard, "state=ok");
    EXPECT_EQ(link.handle, nullptr);
    EXPECT_EQ(link.thread, nullptr);
}

TEST(McuCommLine, IsThereOnlyOnBoardsOfItsCategoryAndPort) {
    const struct {
        int category;
        std::string tables;
    } boards[] = {
        {0, tty("1", "", "usage = 3")}, {2, tty("1", "", "usage = 0")}, {2, tty("2", "", "usage = 3")}};
    for (const auto &board : boards) {
        CommBench bench(board.tables, {}, {.name = "PTD-4120", .category = board.category});
        McuCommLink link{};
        EXPECT_EQ(CALL(*bench.library, QEL_comCommunicationWithMCU)(&link, receive, "x", 1), -1);
        EXPECT_EQ(CALL(*bench.library, QEL_comShutdownCommunicationWithMCU)(&link), 0);
    }
}

}  // namespace
}  // namespace qel::test
