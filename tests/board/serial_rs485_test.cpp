// Two-wire lines: direction, turn-round, who hears whom, and what the wires do to bytes.
#include <gtest/gtest.h>
#include <array>
#include <functional>

#include "board/model/serial_wire.h"
#include "tests/board/serial_bench.h"

using namespace qel::test;

namespace {

class Rs485 : public OneLine {
public:
    explicit Rs485(const std::string &line_keys = "",
                   const std::string &port_keys = "direction_line = 3\nstatus_line = 4",
                   const Options &options = {})
        : OneLine("[chip.misc]\n" + tty("1", line_keys, port_keys), options, B1200),
          misc_(ops().open("/dev/qecMisc", O_RDWR, 0)) {}

    int direction(uint32_t state, uint32_t port = 1) const { return ask(kSetDirection, port, state); }
    int mode(uint32_t rs232, uint32_t port = 1) const { return ask(kSetLineMode, port, rs232); }
    int status(uint32_t port = 1) const {
        uint32_t record = port;
        const int result = ops().ioctl(misc_, kGetRs485Status, &record);
        return result < 0 ? result : static_cast<int>(record);
    }
    // A frame: in transmit until all of it is out, and `meanwhile` is over.
    void send(
        const std::string &text, const std::function<void()> &meanwhile = [] {}) const {
        EXPECT_EQ(direction(1), 0);
        EXPECT_TRUE(host.write(text));
        meanwhile();
        EXPECT_EQ(ops().term_drain(host.fd), 0);
        EXPECT_EQ(direction(0), 0);
    }

private:
    int ask(uint32_t request, uint32_t port, uint32_t value) const {
        std::array<uint32_t, 2> record = {port, value};
        return ops().ioctl(misc_, request, record.data());
    }
    int misc_;
};

}  // namespace

TEST(SerialRs485, ATimedLineIsBusyAsLongAsItsBytesTake) {
    Rs485 line("timed = true\n", "direction_line = 3", {.dir = "", .time_scale = 20});
    const int64_t before_ms = line.here.board.now_ms();
    line.send(std::string(120, 'x'), [&] { EXPECT_FALSE(line.host.is_empty()); });
    EXPECT_GE(line.here.board.now_ms() - before_ms, 1000 - 1) << "120 bytes of 10 bits at 1200 baud";
    EXPECT_TRUE(line.host.is_empty());
    EXPECT_TRUE(line.here.board.take_misuses().empty());
}

TEST(SerialRs485, AccusesWhoeverTalksWithoutDriverOrTurnsItOffTooEarly) {
    Rs485 line("timed = true\n");
    const FarEnd far(line.here.board, "/dev/ttyS1");
    EXPECT_TRUE(line.host.write("lost"));
    EXPECT_EQ(ops().term_drain(line.host.fd), 0);
    const auto is_accused = [&](const char *of) {
        const std::vector<std::string> misuses = line.here.board.take_misuses();
        return misuses.size() == 1 && misuses[0].find(of) != std::string::npos;
    };
    EXPECT_TRUE(is_accused("4 bytes written while the RS-485 driver was off"));
    EXPECT_EQ(line.direction(1), 0);
    EXPECT_TRUE(line.host.write(std::string(100, 'y')));
    EXPECT_FALSE(line.host.is_empty());
    EXPECT_TRUE(line.comes_to_show("bytes sent", "104"));
    EXPECT_EQ(line.direction(0), 0);
    EXPECT_TRUE(is_accused("turned off before the last byte"));
}

// A second collision does not make the bytes of the first right again.
TEST(SerialRs485, BytesOfTwoWhoTalkAtOnceArriveWrong) {
    for (const int collisions : {1, 2}) {
        Rs485 line("timed = true\npeer = { polite = false }\n");
        const FarEnd far(line.here.board, "/dev/ttyS1");
        line.send(std::string(60, 'a'), [&] {
            EXPECT_TRUE(line.comes_to_show("bytes sent", "60"));
            for (int i = 1; i <= collisions; ++i) {
                EXPECT_EQ(line.poke({"send", "42"}), 0);
                EXPECT_TRUE(line.comes_to_show("collisions", std::to_string(i)));
            }
        });
        const std::string heard = far.read(60);
        ASSERT_EQ(heard.size(), 60U);
        EXPECT_NE(heard.back(), 'a');
        EXPECT_EQ(line.shows("bytes nobody heard"), std::to_string(collisions));
    }
}

TEST(SerialRs485, WhoeverTalksIntoAPeersTalkIsNotUnderstood) {
    Rs485 line("timed = true\n");
    const FarEnd far(line.here.board, "/dev/ttyS1");
    EXPECT_TRUE(far.write(std::string(100, 'p')));
    EXPECT_EQ(line.host.read(1), "p");
    line.send("now I");
    const std::string heard = far.read(5);
    EXPECT_EQ(heard.size(), 5U);
    EXPECT_NE(heard, "now I");
    EXPECT_NE(line.shows("collisions"), "");
    EXPECT_NE(line.shows("bytes nobody heard"), "");
}

TEST(SerialRs485, SwitchesOnlyWhatCanBeSwitched) {
    {
        const Rs485 plain("", "");
        EXPECT_EQ(plain.direction(1), -EINVAL);
        EXPECT_EQ(plain.mode(1), 0) << "RS-232 is what it is";
        EXPECT_EQ(plain.mode(0), -EINVAL);
        EXPECT_EQ(plain.status(), -EINVAL);
    }
    Rs485 line;
    EXPECT_EQ(line.status(), 1);
    EXPECT_EQ(line.mode(1), 0);
    EXPECT_EQ(line.status(), 0);
    EXPECT_EQ(line.shows("mode"), "RS-232");
    EXPECT_TRUE(line.host.write("no driver to turn on"));
    EXPECT_EQ(ops().term_drain(line.host.fd), 0);
    EXPECT_EQ(line.mode(2), -EINVAL);
    EXPECT_EQ(line.mode(0, 5), -ENODEV);
    EXPECT_EQ(line.direction(2), -EINVAL);
    EXPECT_EQ(line.direction(0, 5), -ENODEV);
    EXPECT_EQ(line.status(5), -EINVAL);
    EXPECT_EQ(line.mode(0), 0);
    EXPECT_TRUE(line.here.board.take_misuses().empty());
}

// ---- the wire ----

namespace {

SerialFormat format(uint32_t baud, int data_bits = 8, SerialParity parity = SerialParity::kNone) {
    return {.baud = baud, .data_bits = static_cast<uint8_t>(data_bits), .parity = parity, .stop_bits = 1};
}

}  // namespace

TEST(SerialFormat, AReceiverOfAnotherFormatReadsWhatTheWireHolds) {
    const Buffer sent = Buffer{0x41, 0x43, 0x00, 0x7F};
    EXPECT_EQ(received_as(sent, format(9600), format(9600)), sent);
    EXPECT_EQ(received_as(sent, format(9600), format(9700)), sent) << "1 % apart";
    EXPECT_EQ(received_as(sent, format(9600, 7, SerialParity::kEven), format(9600)),
              (Buffer{0x41, 0xC3, 0x00, 0xFF}))
        << "the parity bit is read as bit 7";
    EXPECT_EQ(received_as(Buffer{0xC1}, format(9600, 7), format(9600, 7)), Buffer{0x41});
    // At half the rate every second bit is read: 0 0110 0110 1 from the left, from the third on.
    EXPECT_EQ(received_as(Buffer{0x66}, format(19200), format(9600)), Buffer{0xFD});
    EXPECT_EQ(received_as(Buffer{0x00}, format(1200), format(115200)), Buffer{0x00})
        << "a line that is low for long is one broken byte";
}

TEST(SerialFormat, NoPairOfFormatsReadsMoreThanTheWireCanHold) {
    const std::string text = pattern(300);
    const Buffer sent(text.begin(), text.end());
    for (const uint32_t from : {50U, 1200U, 9600U, 38400U, 115200U}) {
        for (const uint32_t to : {50U, 1200U, 9600U, 19200U, 115200U}) {
            for (int bits = 5; bits <= 8; ++bits) {
                const Buffer got = received_as(sent, format(from, bits, SerialParity::kOdd), format(to));
                EXPECT_LE(got.size(), sent.size() * 11 * (to / from + 1) / 9 + 1) << from << " to " << to;
            }
        }
    }
}

TEST(SerialWire, TakesItsTimeOnSlowLinesOfFastBoardsToo) {
    SerialWire wire;
    wire.set_timed(true);
    const SerialFormat slow = format(50);
    constexpr int64_t kNow_us =
        int64_t{10'000'000'000} * 10'000;  // a hundred days up, ten thousand times as fast
    const Buffer sent(1 << 20, 0x55);
    wire.send(sent, slow, slow, kNow_us);
    EXPECT_GT(wire.next_arrival_us(), kNow_us);
    EXPECT_EQ(wire.last_arrival_us(), wire.silent_us());
    EXPECT_EQ(wire.silent_us(), kNow_us + int64_t{1 << 20} * slow.byte_ns() / 1000);
    EXPECT_TRUE(wire.arrived(kNow_us).empty());
    EXPECT_EQ(wire.arrived(kNow_us + slow.byte_ns() / 1000).size(), 1U);
}

TEST(SerialFormat, APeerHearsAtItsOwnRate) {
    const OneLine line("[chip.misc]\n" + tty("1", "peer = { kind = \"pty\", baud = 4800 }"));
    const FarEnd far(line.here.board, "/dev/ttyS1");
    EXPECT_TRUE(line.host.write("hello"));
    EXPECT_NE(far.read(1), "h");
}

TEST(SerialFormat, AProgramKeepsTheRateThatItSetsAsLongAsItStays) {
    const OneLine line("[chip.misc]\n" + tty("1"));
    {
        const FarEnd far(line.here.board, "/dev/ttyS1");
        EXPECT_TRUE(line.host.write("a"));
        EXPECT_EQ(far.read(1), "a");
        termios settings{};
        ASSERT_EQ(tcgetattr(far.fd, &settings), 0);
        cfsetspeed(&settings, B4800);
        ASSERT_EQ(tcsetattr(far.fd, TCSANOW, &settings), 0);
        line.host.set(B921600);
        EXPECT_EQ(line.shows("settings of the far end"), "4800 8N1");
        EXPECT_TRUE(line.host.write("hello"));
        EXPECT_EQ(ops().term_drain(line.host.fd), 0);
        std::string garbled;
        while (far.wait_readable(200)) garbled += far.read(1);
        EXPECT_NE(garbled, "hello");
        line.host.set(B4800);
        EXPECT_TRUE(line.host.write("hello"));
        EXPECT_EQ(far.read(5), "hello");
        line.host.set(B921600);
    }
    EXPECT_TRUE(line.comes_to_show("settings of the far end", ""));
    const FarEnd far(line.here.board, "/dev/ttyS1");
    EXPECT_TRUE(line.host.write("hello"));
    EXPECT_EQ(far.read(5), "hello");
}

// ---- faults ----

TEST(SerialFaults, LoseDoubleFlipAndDelayBytes) {
    const struct {
        const char *fault, *at_far_end, *at_host;
    } cases[] = {
        {"/dev/ttyS1 line:out lose every 3", "abdegh", "abcdefgh"},
        {"/dev/ttyS* line:in double at 2", "abcdefgh", "abbcdefgh"},
        {"/dev/ttyS1 line:out flip 0,1 at 1..2", "bacdefgh", "abcdefgh"},
        {"/dev/ttyS1 line:out delay 20 at 1", "abcdefgh", "abcdefgh"},
        {"chip 1 /dev/ttyS1 line lose", "abcdefgh", "abcdefgh"},
        {"/dev/ttyS2 line lose", "abcdefgh", "abcdefgh"},
    };
    for (const auto &one : cases) {
        OneLine line("[chip.misc]\n" + tty("1"));
        line.here.board.add_fault(one.fault);
        const FarEnd far(line.here.board, "/dev/ttyS1");
        EXPECT_TRUE(line.host.write("abcdefgh"));
        EXPECT_EQ(far.read(strlen(one.at_far_end)), one.at_far_end) << one.fault;
        EXPECT_TRUE(far.write("abcdefgh"));
        EXPECT_EQ(line.host.read(strlen(one.at_host)), one.at_host) << one.fault;
    }
}

TEST(SerialFaults, SayWhatIsWrongWithThem) {
    OnBoard here("[chip.misc]\n");
    for (const char *text : {"/dev/x line:up lose", "/dev/x line fail EIO", "/dev/x line flip 8",
                             "/dev/x read lose", "/dev/x line double sometimes"})
        EXPECT_THROW(here.board.add_fault(text), FaultError) << text;
}

TEST(SerialFaults, ALineThatHangsUpEndsReadersAndComesBackWhenPlugged) {
    OnBoard here("[chip.misc]\n" + tty("1"));
    {
        const Terminal host("/dev/ttyS1");
        const FarEnd far(here.board, "/dev/ttyS1");
        here.board.add_fault("/dev/ttyS1 line:out hang-up at 3");
        EXPECT_TRUE(host.write("abcdef"));
        EXPECT_EQ(far.read(2), "ab") << "what was said before";
        EXPECT_TRUE(host.wait_readable());
        char byte = 0;
        EXPECT_LE(ops().read(host.fd, &byte, 1), 0);
        EXPECT_NE(ops().term_drain(host.fd), 0);
        EXPECT_EQ(ops().open("/dev/ttyS1", O_RDWR, 0), -ENODEV);
    }
    here.board.clear_faults();
    EXPECT_EQ(here.board.poke(0, "/dev/ttyS1", {"plug"}).value, 0);
    const Terminal host("/dev/ttyS1");
    const FarEnd far(here.board, "/dev/ttyS1");
    EXPECT_TRUE(host.write("again"));
    EXPECT_EQ(far.read(5), "again");
}
