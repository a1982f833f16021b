// RS-485: the direction line around every frame, and what happens when something in between fails. The board
// accuses whoever writes with the driver off or turns it off before the last bit has left.
#include <atomic>
#include <thread>

#include "tests/comm/port_bench.h"

using namespace qel::test;

namespace {

constexpr const char *kNode = "/dev/ttyS2";
constexpr const char *kEchoPeer = "peer = { kind = \"echo\", baud = 115200 }";

// On boards of type 44 the line tells when it is empty, on others draining does.
constexpr const char *kDraining = "";
constexpr const char *kTelling = "[chip.hwid.bytes]\n152 = \"2c\"\n";

std::string rs485_line(const std::string &board_keys, const std::string &line_keys,
                       const char *number = "2") {
    return board_keys + tty(number, line_keys, "direction_line = 6");
}

// Direction requests and terminal calls, in order: "1" transmit, "0" receive, "t" a terminal call.
std::string steps_of(const std::vector<std::string> &trace) {
    std::string steps;
    for (const std::string &line : trace) {
        if (member_of(line, "request") == "SET_RS485_DIRECTION") {
            EXPECT_EQ(member_of(line, "data").substr(0, 8), "02000000");
            steps += member_of(line, "data")[9];
        } else if (member_of(line, "op") == "term" && (steps.empty() || steps.back() != 't')) {
            steps += 't';
        }
    }
    return steps;
}

// A value of the last row of the line's frames.
int64_t last_frame(const Board &board, size_t column) {
    std::istringstream lines(board.show(false));
    std::string line;
    std::string last;
    while (std::getline(lines, line) && line.find("empty to off us") == std::string::npos) continue;
    while (std::getline(lines, line) && line.find_first_of("0123456789") != std::string::npos) last = line;
    std::istringstream row(last);
    int64_t value = -1;
    for (size_t i = 0; i <= column; ++i) row >> value;
    return value;
}

}  // namespace

class Rs485Frame : public testing::TestWithParam<const char *> {};

TEST_P(Rs485Frame, TurnsTheLineRoundAroundTheWholeOfIt) {
    CommBench bench(rs485_line(GetParam(), std::string("timed = true\n") + kEchoPeer));
    const Port port(bench, 2);
    ASSERT_EQ(port.open(), 0);
    const std::string sent = pattern(300);
    Tracing tracing(bench.board);
    EXPECT_EQ(port.write(sent), 300);
    EXPECT_EQ(steps_of(tracing.lines()), "1t0");
    EXPECT_GE(last_frame(bench.board, 1), 1000) << "for the driver to be on";
    EXPECT_EQ(last_frame(bench.board, 0), 300);
    EXPECT_EQ(port.read(300), sent) << "not a byte of the reply is lost";
    EXPECT_EQ(shown(bench.board, kNode, "bytes nobody heard"), "");
    EXPECT_EQ(shown(bench.board, kNode, "collisions"), "");
}

TEST_P(Rs485Frame, IsNeverTornWhileOthersReadAndWrite) {
    CommBench bench(rs485_line(GetParam(), kEchoPeer));
    const Port port(bench, 2);
    ASSERT_EQ(port.open(), 0);
    constexpr int kFrames = 40;
    constexpr size_t kFrameBytes = 16;
    std::string got;
    std::thread reader([&] {
        while (got.size() < 2 * kFrames * kFrameBytes) {
            char bytes[100];
            const int count = port->read(port.get(), bytes, sizeof bytes);
            if (count < 0) break;
            got.append(bytes, static_cast<size_t>(count));
            if (count == 0) break;
        }
    });
    const auto write_frames = [&](char letter) {
        for (int i = 0; i < kFrames; ++i)
            EXPECT_EQ(port.write(std::string(kFrameBytes, letter)), static_cast<int>(kFrameBytes));
    };
    std::thread other(write_frames, 'b');
    write_frames('a');
    other.join();
    reader.join();
    // What two frames in one would give: letters that change within a frame.
    ASSERT_EQ(got.size(), 2 * kFrames * kFrameBytes);
    for (size_t at = 0; at < got.size(); ++at) EXPECT_EQ(got[at], got[at - at % kFrameBytes]) << at;
}

INSTANTIATE_TEST_SUITE_P(Boards, Rs485Frame, testing::Values(kDraining, kTelling));

TEST(Rs485Line, ThatDoesNotEmptyStaysInTransmitUntilTheNextFrame) {
    // 300 bytes at 1200 baud take 2.5 s, longer than a port's write.
    CommBench bench(rs485_line(kTelling, "timed = true\npeer = { kind = \"echo\" }"),
                    {.dir = "", .time_scale = 50});
    Com com(bench, {2, 1, 1});
    ASSERT_EQ(com.open(), 0);
    const ComAttribute slow{1200, 8, 0, 0, 0};
    ASSERT_EQ(CALL(*bench.library, QEL_comSetAttribute)(com.handle, &slow), 0);
    {
        Tracing tracing(bench.board);
        EXPECT_EQ(com.write(std::string(300, 'x'), 200), -2);
        EXPECT_EQ(steps_of(tracing.lines()), "1t");
    }
    EXPECT_TRUE(bench.log.contains("(QEL_comWrite|"));
    EXPECT_TRUE(bench.log.contains("): wait timeout! fd = "));
    EXPECT_EQ(shown(bench.board, kNode, "direction"), "transmit");
    EXPECT_EQ(com.write("y", 20000), 0) << "the lock is free";
    EXPECT_EQ(shown(bench.board, kNode, "direction"), "receive");
}

TEST(Rs485Line, ThatIsClosedLetsTheFrameOnItGoOut) {
    CommBench bench(rs485_line(kTelling, "timed = true\npeer = { kind = \"echo\", baud = 115200 }"));
    Com com(bench, {2, 1, 1});
    ASSERT_EQ(com.open(), 0);
    std::atomic<int> result = 7;
    std::thread writer([&] { result = com.write(std::string(2000, 'x'), 5000); });  // 174 ms on the line
    while (shown(bench.board, kNode, "direction") != "transmit") std::this_thread::yield();
    EXPECT_EQ(CALL(*bench.library, QEL_comClose)(com.handle), 0);
    writer.join();
    EXPECT_EQ(result, 0);
    EXPECT_EQ(last_frame(bench.board, 0), 2000);
    EXPECT_EQ(shown(bench.board, kNode, "direction"), "receive");
}

TEST(Rs485Line, GoesBackToReceiveAfterAFailedWrite) {
    CommBench bench(rs485_line(kDraining, kEchoPeer));
    Com com(bench, {2, 1, 1});
    ASSERT_EQ(com.open(), 0);
    bench.board.add_fault("/dev/qecMisc ioctl:SET_RS485_DIRECTION fail EIO at 1");
    EXPECT_EQ(com.write("lost", 1000), -1) << "the driver cannot be turned on";
    EXPECT_EQ(com.request.length, 0U);
    EXPECT_EQ(shown(bench.board, kNode, "bytes sent"), "0") << "nothing is said with the driver off";
    EXPECT_EQ(com.write("heard", 1000), 0);
    bench.board.add_fault("/dev/qecMisc ioctl:SET_RS485_DIRECTION fail EIO at 2");
    EXPECT_EQ(com.write("said", 1000), -1) << "the driver cannot be turned off";
    EXPECT_EQ(com.request.length, 4U);
    EXPECT_TRUE(bench.log.contains("(QEL_485SetCtl|"));
}

TEST(Rs485Line, ThatCannotBeTurnedRoundDoesNotOpen) {
    CommBench bench(rs485_line(kDraining, kEchoPeer));
    bench.board.add_fault("/dev/qecMisc ioctl:SET_RS485_DIRECTION fail EIO");
    const Port port(bench, 2);
    EXPECT_EQ(port->open(port.get()), -1);
    EXPECT_TRUE(bench.log.contains("(QEL_comOpen|"));
    EXPECT_TRUE(bench.log.contains("):  \n"));
    EXPECT_EQ(port.write("x"), -1);
    bench.board.clear_faults();
    EXPECT_EQ(port.open(), 0);
    EXPECT_EQ(port.write("x"), 1);
}

TEST(Rs485Line, IsSwitchedOverByWhatTheSlotIsAskedFor) {
    CommBench bench(tty("2", kEchoPeer, "direction_line = 6\nstatus_line = 7"));
    const Port port(bench, 2);
    ASSERT_EQ(port.open(), 0);
    EXPECT_EQ(port->setComType(port.get(), 0), 0);
    EXPECT_TRUE(bench.log.contains("[libqel] com port2 change to RS232 \n"));
    EXPECT_EQ(shown(bench.board, kNode, "mode"), "RS-232");
    {
        Tracing tracing(bench.board);
        EXPECT_EQ(port.write("x"), 1);
        EXPECT_EQ(steps_of(tracing.lines()), "t") << "no direction any more";
    }
    EXPECT_EQ(port->setComType(port.get(), 1), 0);
    EXPECT_TRUE(bench.log.contains("[libqel] com port2 change to RS485 \n"));
    EXPECT_EQ(shown(bench.board, kNode, "mode"), "RS-485");
    Tracing tracing(bench.board);
    EXPECT_EQ(port.write("x"), 1);
    EXPECT_EQ(steps_of(tracing.lines()), "1t0");
}

TEST(Rs485Line, ThatCannotBeSwitchedSaysSo) {
    CommBench bench(rs485_line(kDraining, kEchoPeer));
    const Port port(bench, 2);
    ASSERT_EQ(port.open(), 0);
    EXPECT_EQ(port->setComType(port.get(), 0), -1);
    EXPECT_TRUE(bench.log.contains("(QEL_ChangeCtl|"));
    EXPECT_TRUE(bench.log.contains("): Fail to change 485/232 \n"));
    EXPECT_TRUE(bench.log.contains("): com change type failed \n"));
    EXPECT_EQ(port.write("x"), 1) << "as it was";
}

TEST(SpiBridge, IsNotThereSoEveryCallFails) {
    CommBench bench("");
    char byte = 0;
    EXPECT_EQ(CALL(*bench.library, rs485_open)(), -1);
    EXPECT_EQ(CALL(*bench.library, rs485_read)(&byte, 1), -1);
    EXPECT_EQ(CALL(*bench.library, rs485_close)(), -1);
    EXPECT_EQ(CALL(*bench.library, rs485_destroy)(), -1);
    EXPECT_EQ(CALL(*bench.library, rs485_write)(&byte, 1), -1);
    EXPECT_TRUE(bench.log.contains("[libqel] ERROR  (rs485_write|"));
    EXPECT_TRUE(bench.log.contains("): write data error\n"));
    testing::internal::CaptureStderr();
    EXPECT_EQ(CALL(*bench.library, rs485_write)(nullptr, 1), -1);
    EXPECT_EQ(CALL(*bench.library, rs485_write)(&byte, 0), -1);
    const ComAttribute attribute{9600, 8, 0, 0, 0};
    EXPECT_EQ(CALL(*bench.library, rs485_setattribute)(&attribute), -1);
    const std::string told = testing::internal::GetCapturedStderr();
    const std::string refusal = "err: FILE -> spi485, LINE -> 44: \nwrite param";
    EXPECT_EQ(told.find(refusal + refusal + "485 set baudrate attr: Bad file descriptor\n"), 0U) << told;
}
