// The driver-UART layer, and ports over it: everything is a request to "/dev/qecUart%d".
#include <atomic>
#include <thread>

#include "tests/comm/port_bench.h"

using namespace qel::test;

namespace {

constexpr const char *kNode = "/dev/qecUart2";

std::string uart(const std::string &port_keys, const std::string &line_keys = "peer = { kind = \"echo\" }") {
    return "[[chip.port]]\nnumber = 2\nkind = 3\n" + port_keys + "\n[[chip.uart]]\nnumber = 2\nport = 2\n" +
           line_keys + "\n";
}

// The requests to the UART and the direction line, in order.
std::vector<std::string> requests_of(const std::vector<std::string> &trace) {
    std::vector<std::string> requests;
    for (const std::string &line : trace) {
        const std::string name = member_of(line, "request");
        if (!name.empty()) requests.push_back(name);
    }
    return requests;
}

class Uart {
public:
    Uart(CommBench &bench, ComObjDesc desc) : bench_(bench) {
        result = CALL(*bench.library, QEL_uartCreate)(&handle, &desc);
    }
    ~Uart() { CALL(*bench_.library, QEL_uartDelete)(handle); }
    Uart(const Uart &) = delete;
    Uart &operator=(const Uart &) = delete;
    int read(void *buffer, uint32_t bytes, int32_t timeout_ms) {
        request = {buffer, bytes, timeout_ms};
        return CALL(*bench_.library, QEL_uartRead)(handle, &request);
    }
    int write(const std::string &text, int32_t timeout_ms) {
        request = {const_cast<char *>(text.data()), static_cast<uint32_t>(text.size()), timeout_ms};
        return CALL(*bench_.library, QEL_uartWrite)(handle, &request);
    }

    UartHandle handle = nullptr;
    ComIoParam request{};
    int result = 0;

private:
    CommBench &bench_;
};

}  // namespace

TEST(UartPort, AsksTheDriverForEverything) {
    CommBench bench(uart(""));
    Tracing tracing(bench.board);
    const Port port(bench, 2);
    ASSERT_EQ(port.open(), 0);
    EXPECT_EQ(port.write("abc"), 3);
    EXPECT_EQ(port.read(3), "abc");
    const std::vector<std::string> requests = requests_of(tracing.lines());
    const std::vector<std::string> start = {"START", "GET_ATTRIBUTES", "SET_ATTRIBUTES",
                                            "WRITE", "WAIT_READABLE",  "READ"};
    ASSERT_GE(requests.size(), start.size());
    EXPECT_EQ(std::vector<std::string>(requests.begin(), requests.begin() + 6), start);
    EXPECT_EQ(shown(bench.board, kNode, "settings"), "115200 8N1");
}

TEST(UartPort, SendsFramesOnRs485) {
    CommBench bench(uart("direction_line = 4"));
    const Port port(bench, 2);
    ASSERT_EQ(port.open(), 0);
    Tracing tracing(bench.board);
    EXPECT_EQ(port.write("abc"), 3);
    const std::vector<std::string> frame = {"SET_RS485_DIRECTION", "WRITE", "DRAIN", "SET_RS485_DIRECTION"};
    EXPECT_EQ(requests_of(tracing.lines()), frame);
    EXPECT_EQ(port.read(3), "abc");
}

TEST(UartObject, EndsItsWaitsInTime) {
    CommBench bench(uart(""), {.dir = "", .time_scale = 10});
    Uart uart(bench, {2, 0, 0});
    char bytes[8];
    EXPECT_EQ(uart.read(bytes, 1, 10), -1) << "closed";
    ASSERT_EQ(CALL(*bench.library, QEL_uartOpen)(uart.handle), 0);
    EXPECT_EQ(uart.read(bytes, 8, 100), -2);
    EXPECT_EQ(uart.request.length, 0U);
    EXPECT_EQ(uart.read(bytes, 8, -1), -2) << "no limit means 50 ms here";
    EXPECT_EQ(uart.read(bytes, 8, 0), -1);
    for (const int32_t timeout_ms : {-2, -50}) {
        EXPECT_EQ(uart.read(bytes, 8, timeout_ms), -1);
        EXPECT_EQ(uart.write("x", timeout_ms), -1);
    }
    EXPECT_EQ(bench.log.count("): para: timeout invalid"), 4);
    EXPECT_EQ(CALL(*bench.library, QEL_uartPurge)(uart.handle, QEL_COM_SUSPEND_OUTPUT), 0);
    EXPECT_EQ(uart.write("x", 100), -2) << "a suspended line takes nothing";
    EXPECT_EQ(uart.request.length, 0U);
}

TEST(UartObject, PurgesByTheRequestOfEachFlag) {
    CommBench bench(uart(""));
    Uart uart(bench, {2, 0, 0});
    ASSERT_EQ(CALL(*bench.library, QEL_uartOpen)(uart.handle), 0);
    Tracing tracing(bench.board);
    for (const uint32_t flag : {1U, 2U, 4U, 8U})
        EXPECT_EQ(CALL(*bench.library, QEL_uartPurge)(uart.handle, flag), 0) << flag;
    const std::vector<std::string> all = {"SUSPEND_OUTPUT", "SEND_STOP", "DISCARD_OUTPUT", "DISCARD_INPUT"};
    EXPECT_EQ(requests_of(tracing.lines()), all);
    for (const uint32_t flag : {0U, 12U, 16U})
        EXPECT_EQ(CALL(*bench.library, QEL_uartPurge)(uart.handle, flag), -1);
    EXPECT_EQ(bench.log.count("(QEL_uartPurge|"), 3);
}

TEST(UartObject, IsSharedLikeATty) {
    CommBench bench(uart(""));
    const Uart first(bench, {2, 0, 0});
    ASSERT_EQ(CALL(*bench.library, QEL_uartOpen)(first.handle), 0);
    EXPECT_TRUE(bench.log.contains("[libqel] >>-----UartObj-port:2-Create Successed----->>\n"));
    Uart second(bench, {2, 0, 0});
    EXPECT_EQ(second.result, -1);
    EXPECT_EQ(second.handle, first.handle);
    EXPECT_EQ(second.write("x", 1000), 0);
    ComAttribute told{};
    const ComAttribute wanted{4800, 7, 2, 2, 9};
    EXPECT_EQ(CALL(*bench.library, QEL_uartSetAttribute)(second.handle, &wanted), 0);
    EXPECT_EQ(CALL(*bench.library, QEL_uartGetAttribute)(first.handle, &told), 0);
    EXPECT_EQ(memcmp(&told, &wanted, sizeof told), 0);
}

TEST(UartObject, ThatTheDriverDoesNotStartStaysClosed) {
    CommBench bench(uart(""));
    bench.board.add_fault("/dev/qecUart2 ioctl:START fail EIO at 1");
    Uart uart(bench, {2, 0, 0});
    EXPECT_EQ(CALL(*bench.library, QEL_uartOpen)(uart.handle), -1);
    EXPECT_TRUE(bench.log.contains("): Fail to ioctl uart;status:-5\n"));
    EXPECT_EQ(uart.write("x", 100), -1);
    EXPECT_EQ(CALL(*bench.library, QEL_uartOpen)(uart.handle), 0);
    bench.board.add_fault("/dev/qecUart2 ioctl:WRITE fail EIO at 1");
    EXPECT_EQ(uart.write("x", 100), -1);
    EXPECT_TRUE(bench.log.contains("): QEC_UART_WRITE failed\n"));
    bench.board.add_fault("/dev/qecUart2 ioctl:WAIT_READABLE fail EIO at 1");
    char byte = 0;
    EXPECT_EQ(uart.read(&byte, 1, 100), -1);
}
