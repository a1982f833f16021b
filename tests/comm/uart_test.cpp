// The driver-UART layer, and ports over it: everything is a request to "/dev/qecUart%d".
#include <algorithm>
#include <thread>

#include "tests/comm/port_bench.h"

using namespace qel::test;

namespace {

using Requests = std::vector<std::string>;

constexpr const char *kNode = "/dev/qecUart2";

std::string uart(const std::string &port_keys = "") {
    return "[[chip.port]]\nnumber = 2\nkind = 3\n" + port_keys +
           "\n[[chip.uart]]\nnumber = 2\nport = 2\npeer = { kind = \"echo\" }\n";
}

}  // namespace

TEST(UartPort, AsksTheDriverForEverything) {
    CommBench bench(uart());
    Tracing tracing(bench.board);
    const OpenPort port(bench, 2);
    EXPECT_EQ(port.write("abc"), 3);
    EXPECT_EQ(port.read(3), "abc");
    Requests requests = tracing.requests();
    requests.resize(6);
    EXPECT_EQ(requests,
              (Requests{"START", "GET_ATTRIBUTES", "SET_ATTRIBUTES", "WRITE", "WAIT_READABLE", "READ"}));
    EXPECT_EQ(shown(bench.board, kNode, "settings"), "115200 8N1");
}

TEST(UartPort, OpensNothingForTheNullPort) {
    CommBench bench(uart());
    const Port port(bench, 2);
    const Port null_port(bench, QEL_COM_NULL_PORT);
    Tracing tracing(bench.board);
    EXPECT_EQ(port->open(null_port.get()), 0);
    bench.expect_logged({"ERROR  (COMM_openForUart|", "): COMM_openForUart err\n"});
    EXPECT_EQ(port->open(nullptr), -1);
    EXPECT_EQ(tracing.lines(), std::vector<std::string>());
}

TEST(UartPort, SendsFramesOnRs485) {
    CommBench bench(uart("direction_line = 4"));
    const OpenPort port(bench, 2);
    Tracing tracing(bench.board);
    EXPECT_EQ(port.write("abc"), 3);
    EXPECT_EQ(tracing.requests(), (Requests{"SET_RS485_DIRECTION", "WRITE", "DRAIN", "SET_RS485_DIRECTION"}));
    for (const std::string request : {"DRAIN", "WRITE"}) {
        bench.board.add_fault("/dev/qecUart2 ioctl:" + request + " fail EIO at 1");
        EXPECT_EQ(port.write("abc"), -1);
        EXPECT_EQ(shown(bench.board, kNode, "direction"), "receive");
    }
    bench.expect_logged({"): QEC_UART_TCDRAIN failed\n", "): QEC_UART_WRITE failed\n"});
}

TEST(UartPort, ReadsNothingWhileAFrameIsOnItsWay) {
    CommBench bench(uart("direction_line = 4"));
    const OpenPort port(bench, 2);
    constexpr size_t kFrames = 50;
    Tracing tracing(bench.board);
    std::string got;
    std::thread reader([&] { got = port.read_all(kFrames * 4); });
    for (size_t i = 0; i < kFrames; ++i) EXPECT_EQ(port.write("abcd"), 4);
    reader.join();
    EXPECT_EQ(got.size(), kFrames * 4);
    size_t turns = 0;
    for (const std::string &request : tracing.requests()) {
        turns += request == "SET_RS485_DIRECTION" ? 1 : 0;
        EXPECT_FALSE(turns % 2 == 1 && request == "READ") << "transmitting";
    }
    EXPECT_EQ(turns, 2 * kFrames);
}

TEST(UartObject, AsksForItsBlockOncePerCreation) {
    CommBench bench(uart());
    for (int creation = 0; creation < 2; ++creation) {
        Tracing tracing(bench.board);
        const Uart uart(bench, {2, 0, 0});
        for (int i = 0; i < 2; ++i) {
            EXPECT_EQ(uart.open_raw(), 0);
            EXPECT_EQ(uart.close(), 0);
        }
        EXPECT_EQ(std::ranges::count(tracing.requests(), "GET_ATTRIBUTES"), 1);
    }
}

TEST(UartObject, EndsItsWaitsInTime) {
    CommBench bench(uart(), {.dir = "", .time_scale = 10});
    Uart uart(bench, {2, 0, 0});
    char bytes[8];
    EXPECT_EQ(uart.read(bytes, 1, 10), -1) << "closed";
    ASSERT_EQ(uart.open_raw(), 0);
    EXPECT_EQ(uart.read(bytes, 8, 100), -2);
    EXPECT_EQ(uart.request.length, 0U);
    EXPECT_EQ(uart.read(bytes, 8, -1), -2) << "no limit means 50 ms here";
    EXPECT_EQ(uart.read(bytes, 8, 0), -1);
    EXPECT_EQ(uart.write("x", 1000), 0);
    bench.board.add_fault("/dev/qecUart2 ioctl:READ fail EAGAIN at 1..100000");
    EXPECT_EQ(uart.read(bytes, 8, 100), -2) << "a driver that says ready and gives nothing";
    bench.board.clear_faults();
    for (const int32_t timeout_ms : {-2, -50}) {
        EXPECT_EQ(uart.read(bytes, 8, timeout_ms), -1);
        EXPECT_EQ(uart.write("x", timeout_ms), -1);
    }
    EXPECT_EQ(bench.log.count("): para: timeout invalid"), 4);
}

TEST(UartObject, PurgesByTheRequestOfEachFlag) {
    CommBench bench(uart(), {.dir = "", .time_scale = 10});
    OpenUart uart(bench, {2, 0, 0});
    char bytes[8];
    EXPECT_EQ(uart.write("old", 1000), 0);
    EXPECT_EQ(uart.read(bytes, 1, kDeadlineMs), 0);
    Tracing tracing(bench.board);
    EXPECT_EQ(uart.purge(QEL_COM_DISCARD_INPUT), 0);
    EXPECT_EQ(uart.purge(QEL_COM_SEND_STOP), 0);
    EXPECT_EQ(uart.purge(QEL_COM_DISCARD_OUTPUT), 0);
    EXPECT_EQ(uart.purge(QEL_COM_SUSPEND_OUTPUT), 0);
    for (const uint32_t flag : {0U, 12U, 16U}) EXPECT_EQ(uart.purge(flag), -1) << flag;
    EXPECT_EQ(tracing.requests(),
              (Requests{"DISCARD_INPUT", "SEND_STOP", "DISCARD_OUTPUT", "SUSPEND_OUTPUT"}));
    EXPECT_EQ(bench.log.count("(QEL_uartPurge|"), 3);
    EXPECT_EQ(uart.write("x", 100), -2) << "a suspended line takes nothing";
    EXPECT_EQ(uart.request.length, 0U);
    EXPECT_EQ(uart.read(bytes, 1, kDeadlineMs), 0);
    EXPECT_EQ(bytes[0], '\x13') << "the stop character";
}

TEST(UartObject, IsSharedLikeATty) {
    CommBench bench(uart());
    const OpenUart first(bench, {2, 0, 0});
    bench.expect_logged({"[libqel] >>-----UartObj-port:2-Create Successed----->>\n"});
    Uart second(bench, {2, 0, 0});
    EXPECT_EQ(second.result, -1);
    EXPECT_EQ(second.handle, first.handle);
    EXPECT_EQ(second.write("x", 1000), 0);
    ComAttribute told{};
    const ComAttribute wanted{4800, 7, 2, 2, 9};
    EXPECT_EQ(second.set(wanted), 0);
    EXPECT_EQ(first.get(&told), 0);
    EXPECT_EQ(memcmp(&told, &wanted, sizeof told), 0);
}

TEST(UartObject, ThatTheDriverDoesNotStartStaysClosed) {
    CommBench bench(uart());
    bench.board.add_fault("/dev/qecUart2 ioctl:START fail EIO at 1");
    Uart uart(bench, {2, 0, 0});
    EXPECT_EQ(uart.open_raw(), -1);
    bench.expect_logged({"): Fail to ioctl uart;status:-5\n"});
    EXPECT_EQ(uart.write("x", 100), -1);
    EXPECT_EQ(uart.open_raw(), 0);
    for (const std::string request : {"WRITE", "WAIT_READABLE"})
        bench.board.add_fault("/dev/qecUart2 ioctl:" + request + " fail EIO at 1");
    EXPECT_EQ(uart.write("x", 100), -1);
    bench.expect_logged({"): QEC_UART_WRITE failed\n"});
    char byte = 0;
    EXPECT_EQ(uart.read(&byte, 1, 100), -1);
}
