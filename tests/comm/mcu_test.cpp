// The microcontroller: every command of the driver, the device object in both variants, events, the port
// and the plain serial line.
#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <functional>
#include <string>
#include <thread>

#include "platform/include/osa.h"
#include "qel/serial_driver.h"
#include "tests/comm/port_bench.h"

namespace qel::test {
namespace {

constexpr const char *kNode = "/dev/qecMcu";
constexpr const char *kMcu =
    "[chip.mcu]\nversions = [\"MCU 1.07\", \"radio 2.00\"]\ncaps_word = 77\nrfid_reply = \"0102030405\"\n"
    "[chip.mcu.raw]\n[[chip.mcu.channel]]\nnumber = 24\n";
constexpr unsigned kScale = 50;
const board::Options kFast = {.dir = "", .time_scale = kScale};

int make(const CommBench &bench, MCU_Device **device) {
    const uint32_t id = 0;
    return CALL(bench, createMcuDevice)(&id, device);
}

// Room for any record, and for the block behind one.
struct Record {
    union {
        qec_mcu_block block;
        qec_mcu_transfer transfer;
        uint32_t words[256];
    };
    char data[64] = "text of sixteen.";

    Record() { memset(words, 0, sizeof(words)); }
};

enum class Shape { kWords, kBlock, kTransfer };

struct Command {
    bool send;
    uint32_t command;
    uint32_t request;                    // the driver's, its last byte
    const char *text;                    // in the log after a failure; nullptr: none
    std::array<uint32_t, 7> words = {};  // of the record, what the driver takes
    Shape shape = Shape::kWords;
    int failing = -EIO;  // the result when the driver answers that
};

constexpr uint32_t kPtz = QEL_MCU_CHANNEL_PTZ;

constexpr Command kCommands[] = {
    {true, 0, 0x00, "QEC_MCU_WRITE_LCD, failed\n", {}, Shape::kBlock},
    {true, 1, 0x01, "QEC_MCU_SET_TIME, failed\n", {2026, 11, 23, 1, 2, 14, 0}},
    {true, 2, 0x09, "QEC_MCU_SHUTDOWN_HOST, failed\n"},
    {true, 3, 0x0A, "QEC_MCU_UART_CFG, failed\n", {kPtz, 9600, 8}},
    {true, 4, 0x0B, "QEC_MCU_UART_SEND, failed\n", {kPtz, 0, 3}},
    {true, 5, 0x0D, "QEC_MCU_CAN_SEND, failed\n", {0, 8}},
    {true, 6, 0x11, "QEC_MCU_RESET_MCU failed\n", {0xFFFFFFFF}},
    {true, 7, 0x16, "QEC_MCU_CTRL_POWERSWITCH, failed\n", {1, 1}},
    {true, 8, 0x17, "QEC_MCU_ACK_ADAPTER, failed\n"},
    {true, 11, 0x02, "QEC_MCU_HEATER_TEST, failed\n", {1}},
    {true, 12, 0x1A, "CMD_MCU_RFID_SEND, failed\n", {0}, Shape::kTransfer},
    {true, 13, 0x1E, "CMD_MCU_RFID_SEND, failed\n", {1}},
    {true, 14, 0x1C, "CMD_MCU_PUT_CARD_NO, failed\n", {0x32343030}},
    {true, 15, 0x1F, "CMD_MCU_READ_CARD_NO, failed\n"},
    {true, 16, 0x20, "QEC_MCU_SET_CARD_STATUS, failed\n", {1}},
    {true, 17, 0x1D, nullptr},
    {false, 0, 0x03, "QEC_MCU_FACEBOARD_STATE, failed\n"},
    {false, 1, 0x04, "QEC_MCU_KEY_STATE, failed\n"},
    {false, 2, 0x0C, "QEC_MCU_UART_GET, failed\n", {kPtz, 0, QEL_MCU_UART_BYTES}},
    {false, 3, 0x0E, "QEC_MCU_CAN_GET, failed\n"},
    {false, 4, 0x0F, "QEC_MCU_REST_IP, failed\n"},
    {false, 5, 0x12, "CMD_MCU_GET_VER, failed\n"},
    {false, 6, 0x13, "CMD_MCU_GET_CRY, failed\n"},
    {false, 7, 0x14, "CMD_MCU_GET_4TO20MA, failed\n", {}, Shape::kWords, -1},
    {false, 8, 0x15, "CMD_MCU_GET_POWRE_STATE, failed\n", {}, Shape::kWords, -1},
    {false, 9, 0x05, "CMD_MCU_SPI_GET, failed\n", {QEC_MCU_SOURCE_RFID}, Shape::kTransfer, -1},
    {false, 10, 0x19, "QEC_MCU_KEY_STATE, failed\n"},
    {false, 11, 0x22, "CMD_MCU_MODULE_INFO_GET, failed\n", {}, Shape::kWords, -1},
    {false, 12, 0x23, "QEC_MCU_MODULE_READ, failed\n", {}, Shape::kWords, -1},
};

// A fault of the microcontroller's request 0xC0044DXX.
std::string failing(uint32_t request) {
    char text[64];
    snprintf(text, sizeof(text), "/dev/qecMcu ioctl:0x%X fail EIO", 0xC0044D00 + request);
    return text;
}

class McuDriver : public testing::Test {
protected:
    McuDriver() { EXPECT_EQ(CALL(bench_, QEL_mcuCreate)(&handle_), 0) << bench_.log.all(); }
    ~McuDriver() override { EXPECT_EQ(CALL(bench_, QEL_mcuDelete)(handle_), 0); }

    int run(const Command &command, Record &record) {
        return command.send ? CALL(bench_, QEL_mcuSendInfo)(handle_, command.command, &record)
                            : CALL(bench_, QEL_McuGetInfo)(handle_, command.command, &record);
    }

    CommBench bench_{kMcu, kFast};
    McuHandle handle_ = nullptr;
};

TEST_F(McuDriver, AnswersEveryCommandAndNamesItWhenItFails) {
    for (const Command &command : kCommands) {
        SCOPED_TRACE(std::string(command.send ? "send " : "get ") + std::to_string(command.command));
        Record record;
        std::ranges::copy(command.words, record.words);
        if (command.shape == Shape::kBlock) record.block = {16, record.data};
        if (command.shape == Shape::kTransfer) record.transfer = {command.words[0], 16, record.data};
        EXPECT_GE(run(command, record), 0) << bench_.log.all();
        bench_.board.add_fault(failing(command.request));
        bench_.log.clear();
        EXPECT_EQ(run(command, record), command.failing);
        const char *function = command.send ? "QEL_mcuSendInfo" : "QEL_McuGetInfo";
        const std::vector<LogLine> lines = bench_.log.lines();
        ASSERT_EQ(lines.size(), command.text != nullptr ? 1u : 0u);
        if (command.text != nullptr) {
            const std::string &line = lines[0].text;
            EXPECT_TRUE(line.starts_with(std::string("[libqel] ERROR  (") + function + "|")) << line;
            EXPECT_TRUE(line.ends_with(std::string("): ") + command.text)) << line;
        }
        bench_.board.clear_faults();
    }
}

TEST_F(McuDriver, RefusesCommandsItDoesNotKnowAndRecordsThatAreNotThere) {
    Record record;
    bench_.log.clear();
    for (const uint32_t command : {9u, 10u, 18u, 0xFFFFFFFFu})
        EXPECT_EQ(CALL(bench_, QEL_mcuSendInfo)(handle_, command, &record), -1);
    EXPECT_EQ(bench_.log.find("Unknow  QEL_MCU_SEND_CMD!\n").level, 1);
    EXPECT_EQ(bench_.log.count("Unknow  QEL_MCU_SEND_CMD!\n"), 4);
    for (const uint32_t command : {13u, 0xFFFFFFFFu})
        EXPECT_EQ(CALL(bench_, QEL_McuGetInfo)(handle_, command, &record), -1);
    EXPECT_EQ(bench_.log.count("Unknow  QEL_MCU_GET_CMD!\n"), 2);
    EXPECT_EQ(CALL(bench_, QEL_mcuSendInfo)(handle_, 0, nullptr), -1);
    EXPECT_EQ(CALL(bench_, QEL_McuGetInfo)(nullptr, 0, &record), -1);
    EXPECT_EQ(bench_.log.lines().size(), 6U);
}

TEST_F(McuDriver, CountsItsUsersOnOneDescriptor) {
    McuHandle second = nullptr;
    EXPECT_EQ(CALL(bench_, QEL_mcuCreate)(&second), 0);
    EXPECT_EQ(second, handle_);
    EXPECT_EQ(CALL(bench_, QEL_mcuDeinit)(), -1);
    EXPECT_EQ(CALL(bench_, QEL_mcuDelete)(handle_), 0);
    Record record;
    EXPECT_EQ(CALL(bench_, QEL_McuGetInfo)(second, QEL_MCU_CMD_KEY_STATE, &record), 0);
    EXPECT_EQ(CALL(bench_, QEL_mcuDelete)(second), 0);
    EXPECT_EQ(CALL(bench_, QEL_mcuDelete)(second), -1);
    bench_.expect_logged({"The mcu is working!\n", "The mcu interface has been deleted\n"});
    EXPECT_EQ(CALL(bench_, QEL_mcuCreate)(&handle_), 0);
}

TEST_F(McuDriver, NamesEachOfTheOtherRequestsWhenItFails) {
    Record r;
    const auto transfer = [&] { return &(r.transfer = {QEC_MCU_SOURCE_RAW, 4, r.data}); };
    const auto block = [&] { return &(r.block = {4, r.data}); };
    const struct {
        uint32_t request;
        const char *text;
        std::function<int()> call;
    } requests[] = {
        {0x05, "QEC_MCU_RAW_READ", [&] { return CALL(bench_, QEL_McuRead)(handle_, transfer()); }},
        {0x06, "QEC_MCU_RAW_WRITE", [&] { return CALL(bench_, QEL_McuWrite)(handle_, transfer()); }},
        {0x07, "QEC_MCU_UPGRADE_START", [&] { return CALL(bench_, QEL_McuUpgradeStart)(handle_, r.words); }},
        {0x08, "QEC_MCU_UPGRADE_END", [&] { return CALL(bench_, QEL_McuUpgradeEnd)(handle_, r.words); }},
        {0x24, "QEC_MCU_UPDATE_WIRELESS",
         [&] { return CALL(bench_, QEL_upgradeWirelessMcu)(handle_, block()); }},
        {0x1B, "QEC_MCU_GET_NETLINK_STATE",
         [&] { return CALL(bench_, QEL_mcuGetNetLinkState)(handle_, r.words); }},
        {0x10, "QEC_MCU_RAW_WRITE", [&] { return CALL(bench_, QEL_McuGetGaps)(handle_, r.words); }},
        {0x21, "QEL_McuCloseThr", [&] { return CALL(bench_, QEL_McuCloseThr)(handle_); }},
    };
    for (const auto &request : requests) {
        bench_.board.add_fault(failing(request.request));
        bench_.log.clear();
        EXPECT_LT(request.call(), 0) << request.text;
        EXPECT_EQ(bench_.log.count(std::string("): ") + request.text + ", failed\n"), 1) << bench_.log.all();
        bench_.board.clear_faults();
    }
}

class Mcu : public testing::Test {
protected:
    Mcu() { EXPECT_EQ(make(bench_, &device_), 0) << bench_.log.all(); }
    ~Mcu() override { EXPECT_EQ(device_->release(device_), 0); }
    int send(uint32_t type, const void *data, uint32_t bytes, uint32_t extra = 0) {
        const McuSendData record = {type, data, bytes, extra};
        return device_->send(device_, &record);
    }
    int receive(uint32_t type, void *data, uint32_t bytes) {
        record_ = {type, data, bytes};
        return device_->recvData(device_, &record_);
    }
    void poke(const std::vector<std::string> &words) {
        EXPECT_EQ(bench_.board.poke(0, kNode, words).value, 0);
    }

    CommBench bench_{kMcu, kFast};
    MCU_Device *device_ = nullptr;
    McuRecvData record_{};  // as the last call left it
};

// The fault fails what reaches the driver, so the log tells how far a call came.
TEST_F(Mcu, SendsWhatFitsAndNothingElse) {
    const std::string text(1025, 'x');
    const qec_mcu_time time = {2026, 11, 23, 1, 2, 14, 0};
    const qec_mcu_power_switch power = {2, 1};
    const struct {
        uint32_t type;
        const void *data;
        uint32_t bytes;
        const char *failure;
    } types[] = {{QEL_MCU_SEND_LCD, text.data(), 1024, "): MCU_SEND_LCD failed\n"},
                 {QEL_MCU_SEND_TIME, &time, 28, "): MCU_SEND_TIME failed\n"},
                 {QEL_MCU_SEND_ADAPTER, &power, 4, "): MCU_SEND_ADAPTER failed\n"},
                 {QEL_MCU_SEND_POWER, &power, 0, "): CMD_MCU_CTRL_POWER failed\n"},
                 {QEL_MCU_SEND_RFID, "card", 4, "): MCU_SEND_RFID failed\n"}};
    for (const auto &type : types) EXPECT_EQ(send(type.type, type.data, type.bytes), 0) << type.failure;

    bench_.board.add_fault(std::string(kNode) + " ioctl fail EIO");
    EXPECT_EQ(send(QEL_MCU_SEND_LCD, text.data(), 1025), -1);
    EXPECT_EQ(send(QEL_MCU_SEND_TIME, text.data(), 29), -1);
    EXPECT_EQ(send(QEL_MCU_SEND_LCD, nullptr, 1), -1);
    EXPECT_EQ(bench_.log.count("pData->len too long or pData->pData is NULL\n"), 3);
    EXPECT_EQ(send(4, text.data(), 1), -1);
    EXPECT_EQ(bench_.log.count("unknow pData->type\n"), 1);
    EXPECT_EQ(bench_.log.count("failed"), 0) << bench_.log.all();
    for (const auto &type : types) {
        EXPECT_EQ(send(type.type, type.data, type.bytes), -1);
        EXPECT_EQ(bench_.log.count(type.failure), 1) << type.failure;
    }
}

TEST_F(Mcu, ReadsCardsKeysAndRadar) {
    std::array<uint8_t, 8> bytes;
    ASSERT_EQ(send(QEL_MCU_SEND_RFID, "read", 4, 1), 0) << bench_.log.all();
    for (const uint32_t count : {3u, 2u}) {
        ASSERT_EQ(receive(QEL_MCU_RECV_RFID, bytes.data(), count == 3 ? 3 : 8), 0);
        EXPECT_EQ(record_.len, count);
    }
    EXPECT_EQ(bytes[1], 5);
    poke({"press", "9"});
    bytes.fill(0xFF);
    ASSERT_EQ(receive(QEL_MCU_RECV_KEY, bytes.data(), 8), 0);
    EXPECT_EQ(record_.len, 1u);
    EXPECT_EQ(bytes[0], 9);
    EXPECT_EQ(bytes[1], 0xFF);
    EXPECT_EQ(receive(QEL_MCU_RECV_RADAR, bytes.data(), 8), -1);

    qec_mcu_radar radar{};
    McuRecvData seen = {QEL_MCU_RECV_RADAR, &radar, 0};
    poke({"radar", "2", "-1500", "30000", "4"});
    for (const uint32_t count : {1u, 0u}) {
        ASSERT_EQ(device_->radarRecv(device_, &seen), 0);
        EXPECT_EQ(seen.len, count);
        EXPECT_EQ(radar.lane, 2u);
        EXPECT_EQ(radar.speed_mm_s, -1500);
        EXPECT_EQ(radar.distance_mm, 30000u);
    }
    for (const uint32_t type : {0u, 3u, 4u, 6u}) {
        seen.type = type;
        EXPECT_EQ(device_->radarRecv(device_, &seen), -1);
    }
    EXPECT_EQ(bench_.log.count("unknow pData->type\n"), 5);
}

TEST_F(Mcu, NamesWhatItCouldNotFetchAndLeavesTheRecordAsItWas) {
    bench_.board.add_fault(std::string(kNode) + " ioctl fail EIO");
    qec_mcu_power_state state = {1, {9, 9, 9, 9}};
    for (const uint32_t type : {QEL_MCU_RECV_POWER, QEL_MCU_RECV_RFID, QEL_MCU_RECV_KEY}) {
        EXPECT_EQ(receive(type, &state, 4), -1);
        EXPECT_EQ(record_.len, 4u);
    }
    record_.type = QEL_MCU_RECV_RADAR;
    EXPECT_EQ(device_->radarRecv(device_, &record_), -1);
    EXPECT_EQ(record_.len, 4u);
    EXPECT_EQ(state.words[3], 9u);
    EXPECT_EQ(device_->reset(device_), -1);
    bench_.expect_logged({"(mcu_recvData|", "): CMD_MCU_GET_POWRE_STATE failed\n",
                          "): CMD_MCU_RECDATA_RFID failed\n", "): CMD_MCU_RESET failed\n"});
}

TEST_F(Mcu, WaitsForEventsUntilTheReaderIsStopped) {
    qec_mcu_event event;
    const std::pair<std::vector<std::string>, uint32_t> events[] = {{{"press", "3"}, QEC_MCU_EVENT_KEY},
                                                                    {{"card", "0042"}, QEC_MCU_EVENT_CARD},
                                                                    {{"alarm", "7"}, QEC_MCU_EVENT_ALARM}};
    for (const auto &[words, type] : events) {
        std::thread reader([&] { EXPECT_EQ(device_->recv(device_, &event), 0); });
        poke(words);
        reader.join();
        EXPECT_EQ(event.type, type);
    }
    std::thread reader([&] { EXPECT_NE(device_->recv(device_, &event), 0); });
    McuHandle handle = nullptr;
    ASSERT_EQ(CALL(bench_, QEL_mcuCreate)(&handle), 0);
    EXPECT_EQ(CALL(bench_, QEL_McuCloseThr)(handle), 0);
    reader.join();
    EXPECT_EQ(CALL(bench_, QEL_mcuDelete)(handle), 0);
}

TEST_F(Mcu, FetchesRawDataOnceASecondAtTheMost) {
    McuHandle handle = nullptr;
    ASSERT_EQ(CALL(bench_, QEL_mcuCreate)(&handle), 0);
    std::array<char, 16> bytes;
    qec_mcu_transfer record = {QEC_MCU_SOURCE_RAW, sizeof(bytes), bytes.data()};
    EXPECT_EQ(CALL(bench_, QEL_McuGetData)(handle, &record), 0);
    EXPECT_EQ(record.bytes, sizeof(bytes));
    EXPECT_EQ(bench_.log.count("[libqel] do nothing\n"), 1);
    poke({"raw", "send", "616263"});
    uint64_t taken_ms = 0;
    bytes.fill('#');
    for (int tries = 0; tries < 50 && bytes[0] == '#'; ++tries) {  // the line may take its time
        const uint64_t before_ms = OSA_timeMs();
        EXPECT_EQ(CALL(bench_, QEL_McuGetData)(handle, &record), 0);
        taken_ms = OSA_timeMs() - before_ms;
    }
    EXPECT_GE(taken_ms, 1000u);
    EXPECT_EQ(std::string(bytes.data(), record.bytes), "abc");
    EXPECT_EQ(CALL(bench_, QEL_mcuDelete)(handle), 0);
}

TEST_F(Mcu, AnswersWhatItIs) {
    std::array<char, QEL_MCU_VERSION_BUFFER_BYTES> version{};
    version[QEL_MCU_VERSION_SELECTOR] = 9;
    EXPECT_EQ(device_->getVersion(device_, version.data()), -1);
    EXPECT_EQ(device_->getVersion(device_, nullptr), -1);
    bench_.expect_logged({"): CMD_MCU_GET_VER failed\n", "): pVer is NULL\n"});
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

// A microcontroller of the board's own, and a card reader on a USB adapter.
TEST(McuDevice, FailsWhereThereIsNone) {
    for (const int category : {0, 3}) {
        CommBench bench("", kFast, {.name = "RD-1", .category = category});
        auto *device = reinterpret_cast<MCU_Device *>(&bench);
        EXPECT_EQ(make(bench, &device), -1);
        EXPECT_EQ(device, nullptr);
        EXPECT_TRUE(bench.log.contains(category == 0 ? "Can't open /dev/qecMcu\n"
                                                     : "):  open ttyUSB fail,Fail to create mcu!\n"));
        EXPECT_EQ(bench.log.contains("ERROR  (createMcuDevice|"), category == 0);
        EXPECT_EQ(CALL(bench, createMcuDevice)(nullptr, &device), -1);
    }
}

// ---- the card reader on a USB adapter ----

TEST(McuOnUsb, StartsTheReaderAndPassesBytes) {
    CommBench bench("[[chip.tty]]\nnode = \"/dev/ttyUSB0\"\n", kFast, {.name = "RD-1", .category = 3});
    const FarEnd far(bench.board, "/dev/ttyUSB0");
    MCU_Device *device = nullptr;
    ASSERT_EQ(make(bench, &device), 0) << bench.log.all();
    bench.expect_logged({"):  open ttyXRUSB fail,Fail to create mcu!\n"});
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
    std::string all;
    McuRecvData record = {99, got.data(), sizeof(got)};
    for (; all.size() < 5 && device->recvData(device, &record) == 0; record.len = sizeof(got))
        all.append(got.data(), record.len);
    EXPECT_EQ(all, "card\n");
    std::array<char, QEL_MCU_VERSION_BUFFER_BYTES> version;
    version.fill('#');
    EXPECT_EQ(device->getVersion(device, version.data()), 0);
    EXPECT_EQ(version[0], '#');
    EXPECT_EQ(device->reset(device), 0);
    EXPECT_EQ(device->getcaps(device, nullptr), 0);
    EXPECT_EQ(device->release(device), 0);
}

// A step that fails is named, and the adapter is free for the next try.
TEST(McuOnUsb, NamesTheStepAtWhichTheReaderDidNotStart) {
    const struct {
        const char *fault, *text;
        unsigned scale;
    } steps[] = {
        {"/dev/ttyXRUSB0 term fail EIO at 3", "): tcsetattr failed, errno=5\n", kScale},
        {"/dev/ttyXRUSB0 term fail EIO at 6", "): set_USB speed failed\n", kScale},
        {"/dev/ttyXRUSB0 term fail EIO at 9", "): set no parity failed\n", kScale},
        // The plug is out before the second frame, half a second after the first.
        {"/dev/ttyXRUSB0 line:out hang-up at 15", "): Fail to write mcu!\n", 2},
    };
    for (const auto &step : steps) {
        SCOPED_TRACE(step.fault);
        CommBench bench("[[chip.tty]]\nnode = \"/dev/ttyXRUSB0\"\n", {.dir = "", .time_scale = step.scale},
                        {.name = "RD-1", .category = 3});
        bench.board.add_fault(step.fault);
        MCU_Device *device = nullptr;
        EXPECT_EQ(make(bench, &device), -1);
        EXPECT_EQ(device, nullptr);
        EXPECT_EQ(bench.log.count("ERROR  (createMcuDevice|"), 1) << bench.log.all();
        EXPECT_TRUE(bench.log.contains(step.text)) << bench.log.all();
        bench.board.clear_faults();
        EXPECT_EQ(bench.board.poke(0, "/dev/ttyXRUSB0", {"plug"}).value, 0);
        ASSERT_EQ(make(bench, &device), 0) << bench.log.all();
        EXPECT_EQ(bench.board.poke(0, "/dev/ttyXRUSB0", {"hang-up"}).value, 0);
        const McuSendData sent = {0, "x", 1, 0};
        // Who still waits on the terminal keeps it for a moment.
        for (int tries = 0; tries < kDeadlineMs && device->send(device, &sent) == 0; ++tries)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        bench.expect_logged({"): Wirte sbuf error\n"});
        EXPECT_EQ(device->release(device), 0);
    }
}

// ---- its clock, its line, its port ----

TEST(McuClock, IsSetOnTheProductsThatKeepItThere) {
    const qec_mcu_time time = {2026, 11, 23, 1, 2, 14, 0};
    for (const bool keeps : {true, false}) {
        CommBench bench(kMcu, {}, {.name = keeps ? "TRF-9000" : "BX-200", .category = 0});
        EXPECT_EQ(CALL(bench, QEL_syncTimeToMcu)(&time), 0);
        EXPECT_EQ(shown(bench.board, kNode, "time").empty(), !keeps);
        for (const auto &[fault, text] : {std::pair{" ioctl fail EIO", "): ioctl syncTimeToMcu failed\n"},
                                          std::pair{" open fail EIO", "): open failed\n"}}) {
            bench.board.add_fault(std::string(kNode) + fault);
            EXPECT_EQ(CALL(bench, QEL_syncTimeToMcu)(&time), keeps ? -1 : 0);
            EXPECT_EQ(bench.log.count(text), keeps ? 1 : 0);
        }
    }
}

TEST(McuLine, TakesItsSettingsAndKeepsThem) {
    CommBench bench(std::string(kMcu) + tty("4"), kFast);
    McuHandle handle = nullptr;
    ASSERT_EQ(CALL(bench, QEL_mcuCreate)(&handle), 0);
    const ComAttribute attribute = {19200, 7, QEL_COM_PARITY_EVEN, QEL_COM_TWO_STOP_BITS, 0};
    EXPECT_EQ(CALL(bench, QEL_mcuSetAttribute)(handle, 4, &attribute), 0) << bench.log.all();
    EXPECT_EQ(shown(bench.board, "/dev/ttyS4", "settings"), "19200 7E2");
    const ComAttribute odd = {230400, 7, QEL_COM_PARITY_EVEN, 1, 0};
    EXPECT_EQ(CALL(bench, QEL_mcuSetAttribute)(handle, 4, &odd), 0);
    EXPECT_EQ(shown(bench.board, "/dev/ttyS4", "settings"), "19200 7E1");
    EXPECT_EQ(CALL(bench, QEL_mcuSetAttribute)(handle, 5, &attribute), -1);
    EXPECT_EQ(CALL(bench, QEL_mcuSetAttribute)(nullptr, 4, &attribute), -1);
    bench.expect_logged(
        {"WARN  (QEL_mcuSetAttribute|", "unsupported baudrate 230400\n", "): Para: hMcu is NULL!\n"});
    EXPECT_EQ(CALL(bench, QEL_mcuDelete)(handle), 0);
}

constexpr const char *kPortTables =
    "[[chip.port]]\nnumber = 2\nkind = 4\n[[chip.tty]]\nnode = \"/dev/ttyS2\"\n";
constexpr const char *kFlash =
    "[chip.flash]\nkind = \"nand\"\nerase_bytes = 0x20000\npage_bytes = 0x800\nenvironment_bytes = 0x20000\n"
    "partition = [{ name = \"hwid\", size = 0x100000 }]\n[chip.environment]\nkz_keyboard = ";

TEST(McuPort, CarriesRawBytesBothWays) {
    CommBench bench(std::string(kMcu) + kPortTables + kBootFile, {.dir = "", .time_scale = 5});
    Port port(bench, 2);
    const ComAttribute attribute = {19200, 7, QEL_COM_PARITY_EVEN, QEL_COM_TWO_STOP_BITS, 0};
    char byte = 0;
    EXPECT_EQ(port->setAttribute(port.get(), &attribute), -1);
    EXPECT_EQ(port->read(port.get(), &byte, 1), -1);
    EXPECT_EQ(port.write("x"), -1);
    EXPECT_EQ(port->purge(port.get(), QEL_COM_DISCARD_INPUT), -1);
    EXPECT_EQ(bench.log.count("): port2 is not open\n"), 4);
    ASSERT_EQ(port->open(port.get()), 0) << bench.log.all();
    EXPECT_EQ(port->setAttribute(port.get(), &attribute), 0);
    EXPECT_EQ(shown(bench.board, "/dev/ttyS2", "settings"), "19200 7E2");
    EXPECT_EQ(port->read(port.get(), nullptr, 1), -1);
    EXPECT_EQ(port->write(port.get(), &byte, 0x80000000U), -1);
    EXPECT_EQ(bench.log.count("): para invalid buf="), 2);
    bench.expect_logged({"[libqel] port2 register mcu\n",
                         "[libqel] The flag of function which both upgrade and commu are using is=0\n"});
    EXPECT_EQ(port->read(port.get(), &byte, 1), 0);
    EXPECT_EQ(bench.board.poke(0, kNode, {"raw", "send", "6B65793D35"}).value, 0);
    std::string got;
    for (int tries = 0; tries < 100 && got.size() < 5; ++tries) got += port.read(1100);
    EXPECT_EQ(got, "key=5");
    EXPECT_EQ(port.write(std::string(1100, 'w')), 1100);
    EXPECT_EQ(port->purge(port.get(), QEL_COM_DISCARD_INPUT), 0);
    EXPECT_EQ(port->purge(port.get(), QEL_COM_SUSPEND_OUTPUT), -1);
    EXPECT_EQ(port->close(port.get()), 0);
    port.release();
    EXPECT_EQ(CALL(bench, QEL_mcuDeinit)(), 0);
}

// The console has the line back when the last opener has left it.
TEST(McuPort, TellsTheConsoleWhoseTheLineIs) {
    CommBench bench(std::string(kMcu) + kPortTables + kBootFile);
    const OpenPort port(bench, 2);
    const std::string taken = told_console();
    EXPECT_EQ(taken.rfind("fd ", 0), 0U) << taken;
    EXPECT_EQ(port->open(port.get()), 0);
    { const OpenPort second(bench, 2); }
    EXPECT_EQ(port->close(port.get()), 0);
    EXPECT_EQ(told_console(), taken + taken + taken);
    EXPECT_EQ(port->close(port.get()), 0);
    EXPECT_EQ(told_console(), taken + taken + taken + "fd -1");
}

TEST(McuPort, ObeysTheKeyboardSetting) {
    for (const char *setting : {"0", "00", "1", "off"}) {
        SCOPED_TRACE(setting);
        CommBench bench(std::string(kMcu) + kPortTables + kFlash + "\"" + setting + "\"\n");
        const Port port(bench, 2);
        const bool off = setting[0] == '0';
        EXPECT_EQ(port->open(port.get()), off ? -1 : 0) << bench.log.all();
        EXPECT_EQ(bench.log.count("): kz_keyboard is set to zero, not support 433 func!\n"), off ? 1 : 0);
    }
}

// ---- a plain serial line to one ----

// Says again what it hears.
void *receive(void *argument) {
    auto *link = static_cast<McuCommLink *>(argument);
    std::array<char, 64> bytes;
    while (OSA_thrStopping() == 0) {
        const int got = link->handle->read(link->handle, bytes.data(), bytes.size());
        if (got > 0) link->handle->write(link->handle, bytes.data(), static_cast<uint32_t>(got));
    }
    return nullptr;
}

TEST(McuCommLine, SendsACommandAndHearsWhatComes) {
    CommBench bench(tty("1", "", "usage = 3"), {.dir = "", .time_scale = 5},
                    {.name = "PTD-4120", .category = 2});
    const FarEnd far(bench.board, "/dev/ttyS1");
    McuCommLink link{};
    const std::string command = pattern(32);
    ASSERT_EQ(CALL(bench, QEL_comCommunicationWithMCU)(&link, receive, command.data(), 32), 0)
        << bench.log.all();
    EXPECT_EQ(link.port, 1);
    EXPECT_NE(link.mutex, nullptr);
    EXPECT_EQ(far.read(32), command);
    EXPECT_EQ(shown(bench.board, "/dev/ttyS1", "settings"), "9600 8N1");
    EXPECT_TRUE(far.write("state=ok"));
    EXPECT_EQ(far.read(8), "state=ok");
    EXPECT_EQ(CALL(bench, QEL_comShutdownCommunicationWithMCU)(&link), 0) << bench.log.all();
    EXPECT_EQ(bench.log.count("ERROR"), 0) << bench.log.all();
    EXPECT_EQ(link.handle, nullptr);
    EXPECT_EQ(link.thread, nullptr);
}

// On boards of its category and port only.
TEST(McuCommLine, NamesTheStepThatFailed) {
    const struct {
        int category;
        const char *number, *usage;
        const char *fault = "", *text = "", *next_text = "";
    } lines[] = {
        {2, "1", "usage = 3", "/dev/ttyS1 open fail EIO", "): Can't open comm connect to MCU!\n"},
        {2, "1", "usage = 3", "/dev/ttyS1 line:out hang-up at 1", "): purge failed!\n",
         "): Can't send comm for command!\n"},
        {0, "1", "usage = 3"},
        {2, "1", "usage = 0"},
        {2, "2", "usage = 3"},
    };
    for (const auto &line : lines) {
        CommBench bench(tty(line.number, "", line.usage), {.dir = "", .time_scale = 20},
                        {.name = "PTD-4120", .category = line.category});
        if (line.fault[0] != '\0') bench.board.add_fault(line.fault);
        McuCommLink link{};
        EXPECT_EQ(CALL(bench, QEL_comCommunicationWithMCU)(&link, receive, "x", 1), -1) << line.fault;
        for (const std::string text : {line.text, line.next_text})
            EXPECT_NE(bench.log.all().find(text), std::string::npos) << text;
        EXPECT_EQ(CALL(bench, QEL_comShutdownCommunicationWithMCU)(&link), 0);
        EXPECT_EQ(link.handle, nullptr);
    }
}

}  // namespace
}  // namespace qel::test
