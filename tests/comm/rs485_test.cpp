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

std::string rs485_line(const std::string &board_keys, const std::string &line_keys = kEchoPeer) {
    return board_keys + tty("2", line_keys, "direction_line = 6");
}

// What happens on the line, in order: "1" transmit, "f" bytes of the frame, "e" asked whether they are out,
// "0" receive.
std::string steps_of(const std::vector<std::string> &trace) {
    std::string steps;
    for (const std::string &line : trace) {
        if (member_of(line, "request") == "SET_RS485_DIRECTION") {
            EXPECT_EQ(member_of(line, "data").substr(0, 8), "02000000");
            steps += member_of(line, "data")[9];
        } else if (member_of(line, "direction") == "out") {
            steps += 'f';
        } else if (member_of(line, "op") == "term" && (steps.empty() || steps.back() != 'e')) {
            steps += 'e';
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

std::string direction(const CommBench &bench) { return shown(bench.board, kNode, "direction"); }

class Rs485Frame : public testing::TestWithParam<const char *> {};

}  // namespace

TEST_P(Rs485Frame, TurnsTheLineRoundAroundTheWholeOfIt) {
    CommBench bench(rs485_line(GetParam(), std::string("timed = true\n") + kEchoPeer));
    const OpenPort port(bench, 2);
    const std::string sent = pattern(300);
    Tracing tracing(bench.board);
    std::string got;
    std::thread reader([&] { got = port.read_all(300); });
    EXPECT_EQ(port.write(sent), 300);
    EXPECT_EQ(steps_of(tracing.lines()), "1fe0");
    EXPECT_GE(last_frame(bench.board, 1), 1000) << "for the driver to be on";
    EXPECT_EQ(last_frame(bench.board, 0), 300);
    reader.join();
    EXPECT_EQ(got, sent) << "not a byte of the reply is lost";
    EXPECT_EQ(shown(bench.board, kNode, "bytes nobody heard"), "");
    EXPECT_EQ(shown(bench.board, kNode, "collisions"), "");
}

TEST_P(Rs485Frame, IsNeverTornWhileOthersReadAndWrite) {
    CommBench bench(rs485_line(GetParam()));
    const OpenPort port(bench, 2);
    constexpr size_t kFrames = 40;
    constexpr size_t kFrameBytes = 16;
    std::string got;
    std::thread reader([&] { got = port.read_all(2 * kFrames * kFrameBytes); });
    at_once(2, [&](int writer) {
        const std::string frame(kFrameBytes, static_cast<char>('a' + writer));
        for (size_t i = 0; i < kFrames; ++i) EXPECT_EQ(port.write(frame), static_cast<int>(kFrameBytes));
    });
    reader.join();
    // What two frames in one would give: letters that change within a frame.
    ASSERT_EQ(got.size(), 2 * kFrames * kFrameBytes);
    for (size_t at = 0; at < got.size(); ++at) EXPECT_EQ(got[at], got[at - at % kFrameBytes]) << at;
}

TEST_P(Rs485Frame, IsNotHeldUpByAnEchoThatNobodyReads) {
    CommBench bench(rs485_line(GetParam()));
    const OpenPort port(bench, 2);
    for (int i = 0; i < 100; ++i) ASSERT_EQ(port.write(pattern(4000)), 4000) << i;
}

// A polite peer would wait for a line that turns round late.
TEST_P(Rs485Frame, IsOverBeforeAPeerThatDoesNotWaitAnswers) {
    constexpr const char *kRudePeer =
        "timed = true\npeer = { kind = \"script\", baud = 115200, polite = false, "
        "script = ['expect \"ask\"', 'wait 400', 'reply \"answer\"'] }";
    CommBench bench(rs485_line(GetParam(), kRudePeer));
    const OpenPort port(bench, 2);
    EXPECT_EQ(port.write("ask"), 3);
    EXPECT_EQ(port.read(6), "answer");
    EXPECT_EQ(shown(bench.board, kNode, "bytes nobody heard"), "");
    bench.board.add_fault("/dev/qecMisc ioctl:SET_RS485_DIRECTION delay 800 at 2");
    EXPECT_EQ(port.write("ask"), 3);
    EXPECT_EQ(shown(bench.board, kNode, "bytes nobody heard"), "6") << "so late, it would show";
}

TEST_P(Rs485Frame, LetsNobodyReadBeforeItIsOver) {
    CommBench bench(rs485_line(GetParam(), std::string("timed = true\n") + kEchoPeer));
    OpenCom com(bench, {2, 1, 1});
    EXPECT_EQ(bench.board.poke(0, kNode, {"send", "78"}).value, 0);
    pollfd arrived{com.state().fd, POLLIN, 0};
    ASSERT_EQ(::poll(&arrived, 1, kDeadlineMs), 1);
    std::atomic<bool> has_written = false;
    std::thread writer([&] {
        EXPECT_EQ(com.write(std::string(2000, 'f'), 5000), 0);  // 174 ms on the line
        has_written = true;
    });
    const auto is_transmitting = [&] { return direction(bench) == "transmit"; };
    while (!has_written && !is_transmitting()) std::this_thread::yield();
    std::atomic<bool> has_read = false;
    std::thread reader([&] {
        char byte = 0;
        ComIoParam request{&byte, 1, 5000};
        EXPECT_EQ(com.call("Read", &request), 0);
        has_read = true;
        EXPECT_EQ(byte, 'x');
    });
    for (bool on = true; on;) {
        const bool read_before = has_read;
        on = is_transmitting();
        EXPECT_FALSE(read_before && on);
    }
    writer.join();
    reader.join();
}

INSTANTIATE_TEST_SUITE_P(Boards, Rs485Frame, testing::Values(kDraining, kTelling));

TEST(Rs485Line, ThatDoesNotEmptyStaysInTransmitUntilTheNextFrame) {
    // 300 bytes at 1200 baud take 2.5 s, longer than a port's write.
    CommBench bench(rs485_line(kTelling, "timed = true\npeer = { kind = \"echo\" }"),
                    {.dir = "", .time_scale = 50});
    OpenCom com(bench, {2, 1, 1});
    ASSERT_EQ(com.set({1200, 8, 0, 0, 0}), 0);
    {
        Tracing tracing(bench.board);
        EXPECT_EQ(com.write(std::string(300, 'x'), 200), -2);
        EXPECT_EQ(steps_of(tracing.lines()), "1fe");
    }
    bench.expect_logged({"(QEL_comWrite|", "): wait timeout! fd = "});
    EXPECT_EQ(direction(bench), "transmit");
    EXPECT_EQ(com.write("y", 20000), 0) << "the lock is free";
    EXPECT_EQ(direction(bench), "receive");
}

TEST(Rs485Line, ThatIsClosedLetsTheFrameOnItGoOut) {
    CommBench bench(rs485_line(kTelling, "timed = true\npeer = { kind = \"echo\", baud = 115200 }"));
    OpenCom com(bench, {2, 1, 1});
    std::atomic<int> result = 7;
    std::thread writer([&] { result = com.write(std::string(2000, 'x'), 5000); });  // 174 ms on the line
    while (result == 7 && direction(bench) != "transmit") std::this_thread::yield();
    EXPECT_EQ(com.close(), 0);
    writer.join();
    EXPECT_EQ(result, 0);
    EXPECT_EQ(last_frame(bench.board, 0), 2000);
    EXPECT_EQ(direction(bench), "receive");
}

TEST(Rs485Line, IsNotKeptByAReadWithoutTime) {
    CommBench bench(rs485_line(kDraining));  // opened blocking: such a read waits
    const OpenCom com(bench, {2, 1, 1});
    const auto read = [&](int result) {
        char byte = 0;
        ComIoParam request{&byte, 1, 0};
        EXPECT_EQ(com.call("Read", &request), result);
    };
    std::thread reader(read, 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // it waits by then, or comes too late
    std::atomic<bool> has_written = false;
    std::thread writer([&] {
        char byte = 'x';
        ComIoParam request{&byte, 1, 1000};
        EXPECT_EQ(com.call("Write", &request), 0);
        has_written = true;
    });
    for (int tries = 0; tries < 2000 && !has_written; ++tries) usleep(1000);
    EXPECT_TRUE(has_written);
    if (!has_written) bench.board.poke(0, kNode, {"send", "78"});
    reader.join();
    writer.join();
    std::thread closed(read, -1);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(com.close(), 0);
    closed.join();
}

TEST(Rs485Line, GoesBackToReceiveAfterAFailedWrite) {
    CommBench bench(rs485_line(kDraining));
    OpenCom com(bench, {2, 1, 1});
    bench.board.add_fault("/dev/qecMisc ioctl:SET_RS485_DIRECTION fail EIO at 1");
    EXPECT_EQ(com.write("lost", 1000), -1) << "the driver cannot be turned on";
    EXPECT_EQ(com.request.length, 0U);
    EXPECT_EQ(shown(bench.board, kNode, "bytes sent"), "0") << "nothing is said with the driver off";
    EXPECT_EQ(com.write("heard", 1000), 0);
    bench.board.add_fault("/dev/qecMisc ioctl:SET_RS485_DIRECTION fail EIO at 2");
    EXPECT_EQ(com.write("said", 1000), -1) << "the driver cannot be turned off";
    EXPECT_EQ(com.request.length, 4U);
    bench.expect_logged({"(QEL_485SetCtl|"});
}

TEST(Rs485Line, ThatCannotBeTurnedRoundDoesNotOpen) {
    CommBench bench(rs485_line(kDraining));
    bench.board.add_fault("/dev/qecMisc ioctl:SET_RS485_DIRECTION fail EIO");
    const Port port(bench, 2);
    EXPECT_EQ(port->open(port.get()), -1);
    bench.expect_logged({"(QEL_comOpen|", "):  \n"});
    EXPECT_EQ(port.write("x"), -1);
    bench.board.clear_faults();
    EXPECT_EQ(port.open(), 0);
    EXPECT_EQ(port.write("x"), 1);
}

TEST(Rs485Line, ThatTurnsByItselfIsLeftAlone) {
    const std::string lines = tty("2", kEchoPeer, "direction_line = 6\nturns_by_itself = true") + tty("0");
    CommBench bench(lines, {}, {.name = "TRF-9000", .category = 0});
    const Port port(bench, 2);
    const Port console(bench, 0);
    Tracing tracing(bench.board);
    ASSERT_EQ(port.open(), 0);
    ASSERT_EQ(console.open(), 0);
    EXPECT_EQ(port.write("abc"), 3);
    EXPECT_EQ(port.read(3), "abc");
    for (const std::string &line : tracing.lines())
        EXPECT_EQ(member_of(line, "request").rfind("SET_", 0), std::string::npos) << line;
}

TEST(Rs485Line, IsSwitchedOverByWhatTheSlotIsAskedFor) {
    CommBench bench(tty("2", kEchoPeer, "direction_line = 6\nstatus_line = 7"));
    const OpenPort port(bench, 2);
    const struct {
        int rs485;
        const char *told, *mode, *steps;
    } ways[] = {{0, "[libqel] com port2 change to RS232 \n", "RS-232", "fe"},
                {1, "[libqel] com port2 change to RS485 \n", "RS-485", "1fe0"}};
    for (const auto &way : ways) {
        EXPECT_EQ(port->setComType(port.get(), way.rs485), 0);
        EXPECT_TRUE(bench.log.contains(way.told));
        EXPECT_EQ(shown(bench.board, kNode, "mode"), way.mode);
        Tracing tracing(bench.board);
        EXPECT_EQ(port.write("x"), 1);
        EXPECT_EQ(steps_of(tracing.lines()), way.steps);
    }
}

TEST(Rs485Line, ThatCannotBeSwitchedSaysSo) {
    CommBench bench(rs485_line(kDraining));
    const OpenPort port(bench, 2);
    EXPECT_EQ(port->setComType(port.get(), 0), -1);
    bench.expect_logged({"(QEL_ChangeCtl|", "): Fail to change 485/232 \n", "): com change type failed \n"});
    EXPECT_EQ(port.write("x"), 1) << "as it was";
}

TEST(SpiBridge, IsNotThereSoEveryCallFails) {
    CommBench bench("");
    char byte = 0;
    EXPECT_EQ(CALL(bench, rs485_open)(), -1);
    EXPECT_EQ(CALL(bench, rs485_read)(&byte, 1), -1);
    EXPECT_EQ(CALL(bench, rs485_close)(), -1);
    EXPECT_EQ(CALL(bench, rs485_destroy)(), -1);
    EXPECT_EQ(CALL(bench, rs485_write)(&byte, 1), -1);
    bench.expect_logged({"[libqel] ERROR  (rs485_write|", "): write data error\n"});
    testing::internal::CaptureStderr();
    EXPECT_EQ(CALL(bench, rs485_write)(nullptr, 1), -1);
    EXPECT_EQ(CALL(bench, rs485_write)(&byte, 0), -1);
    const ComAttribute attribute{9600, 8, 0, 0, 0};
    EXPECT_EQ(CALL(bench, rs485_setattribute)(&attribute), -1);
    const std::string told = testing::internal::GetCapturedStderr();
    const std::string refusal = "err: FILE -> spi485, LINE -> 44: \nwrite param";
    // What errno says follows; under emulation it is not always that of a closed descriptor.
    EXPECT_TRUE(told.starts_with(refusal + refusal + "485 set baudrate attr: ")) << told;
}
