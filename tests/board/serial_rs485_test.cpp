// Two-wire lines: direction, turn-round, who hears whom, and what the wires do to bytes.
#include <gtest/gtest.h>
#include <array>
#include <cstdlib>

#include "board/model/serial_format.h"
#include "tests/board/serial_bench.h"

using namespace qel::test;

namespace {

class Rs485 {
public:
    explicit Rs485(const std::string &line_keys = "",
                   const std::string &port_keys = "direction_line = 3\nstatus_line = 4",
                   const Options &options = {})
        : here("[chip.misc]\n" + tty("1", line_keys, port_keys), options),
          host("/dev/ttyS1", B1200),
          misc_(ops().open("/dev/qecMisc", O_RDWR, 0)) {}

    int direction(uint32_t state, uint32_t port = 1) const { return ask(kSetDirection, port, state); }
    int mode(uint32_t rs232, uint32_t port = 1) const { return ask(kSetLineMode, port, rs232); }
    int status(uint32_t port = 1) const {
        uint32_t record = port;
        const int result = ops().ioctl(misc_, kGetRs485Status, &record);
        return result < 0 ? result : static_cast<int>(record);
    }
    std::string shows(const std::string &name) const { return shown(here.board, "/dev/ttyS1", name); }
    void poke(const std::vector<std::string> &words) {
        EXPECT_EQ(here.board.poke(0, "/dev/ttyS1", words).value, 0);
    }
    void send(const std::string &text) const {
        EXPECT_EQ(direction(1), 0);
        EXPECT_TRUE(host.write(text));
        EXPECT_EQ(ops().term_drain(host.fd), 0);
        EXPECT_EQ(direction(0), 0);
    }

    OnBoard here;
    Terminal host;

private:
    int ask(uint32_t request, uint32_t port, uint32_t value) const {
        std::array<uint32_t, 2> record = {port, value};
        return ops().ioctl(misc_, request, record.data());
    }
    int misc_;
};

// Until nothing has come for a while: as many bytes as there are.
std::string read_all(const FarEnd &far, int quiet_ms = 200) {
    std::string text;
    while (far.wait_readable(quiet_ms)) text += far.read(1);
    return text;
}

}  // namespace

TEST(SerialRs485, ADrainWaitsUntilTheLastByteHasArrived) {
    Rs485 line;
    const FarEnd far(line.here.board, "/dev/ttyS1");
    const std::string sent = pattern(4000);
    line.send(sent);
    EXPECT_TRUE(far.read(sent.size()) == sent);
    EXPECT_EQ(line.shows("bytes sent"), "4000");
    EXPECT_NE(line.here.board.show(false).find("on to first us"), std::string::npos);
}

TEST(SerialRs485, ATimedLineIsBusyAsLongAsItsBytesTake) {
    Rs485 line("timed = true\n", "direction_line = 3", {.dir = "", .time_scale = 20});
    EXPECT_EQ(line.direction(1), 0);
    const int64_t before_ms = line.here.board.now_ms();
    EXPECT_TRUE(line.host.write(std::string(120, 'x')));
    EXPECT_FALSE(line.host.is_empty());
    EXPECT_EQ(ops().term_drain(line.host.fd), 0);
    EXPECT_GE(line.here.board.now_ms() - before_ms, 1000 - 1) << "120 bytes of 10 bits at 1200 baud";
    EXPECT_TRUE(line.host.is_empty());
    EXPECT_EQ(line.direction(0), 0);
    EXPECT_TRUE(line.here.board.take_misuses().empty());
}

TEST(SerialRs485, AccusesWhoeverTalksWithoutDriverOrTurnsItOffTooEarly) {
    Rs485 line("timed = true\n");
    const FarEnd far(line.here.board, "/dev/ttyS1");
    EXPECT_TRUE(line.host.write("lost"));
    EXPECT_EQ(ops().term_drain(line.host.fd), 0);
    std::vector<std::string> misuses = line.here.board.take_misuses();
    ASSERT_EQ(misuses.size(), 1U);
    EXPECT_NE(misuses[0].find("4 bytes written while the RS-485 driver was off"), std::string::npos);
    EXPECT_EQ(line.direction(1), 0);
    EXPECT_TRUE(line.host.write(std::string(100, 'y')));
    EXPECT_FALSE(line.host.is_empty());
    while (line.shows("bytes sent") != "104") usleep(1000);
    EXPECT_EQ(line.direction(0), 0);
    misuses = line.here.board.take_misuses();
    ASSERT_EQ(misuses.size(), 1U);
    EXPECT_NE(misuses[0].find("turned off before the last byte"), std::string::npos);
}

TEST(SerialRs485, APoliteePeerWaitsForTheLineAndARudeOneIsNotHeard) {
    {
        Rs485 line("peer = { kind = \"echo\" }\n");
        line.send("question");
        EXPECT_EQ(line.host.read(8), "question");
    }
    Rs485 line("peer = { kind = \"echo\", polite = false }\n");
    EXPECT_EQ(line.direction(1), 0);
    EXPECT_TRUE(line.host.write("question"));
    EXPECT_EQ(ops().term_drain(line.host.fd), 0);
    while (line.shows("bytes nobody heard").empty()) usleep(1000);
    EXPECT_EQ(line.direction(0), 0);
    EXPECT_EQ(line.shows("bytes nobody heard"), "8");
    EXPECT_EQ(line.shows("bytes received"), "0");
}

TEST(SerialRs485, BytesOfTwoWhoTalkAtOnceArriveWrong) {
    Rs485 line("timed = true\npeer = { polite = false }\n");
    const FarEnd far(line.here.board, "/dev/ttyS1");
    EXPECT_EQ(line.direction(1), 0);
    const std::string sent(30, 'a');
    EXPECT_TRUE(line.host.write(sent));
    while (line.shows("bytes sent") != "30") usleep(1000);
    line.poke({"send", "4242"});
    while (line.shows("collisions").empty()) usleep(1000);
    EXPECT_EQ(ops().term_drain(line.host.fd), 0);
    EXPECT_EQ(line.direction(0), 0);
    const std::string heard = far.read(30);
    EXPECT_EQ(heard.size(), 30U);
    EXPECT_NE(heard, sent);
    EXPECT_EQ(line.shows("bytes nobody heard"), "2");
}

TEST(SerialRs485, SwitchesOnlyWhatCanBeSwitched) {
    Rs485 line;
    EXPECT_EQ(line.status(), 1);
    EXPECT_EQ(line.mode(1), 0);
    EXPECT_EQ(line.status(), 0);
    EXPECT_EQ(line.shows("mode"), "RS-232");
    EXPECT_TRUE(line.host.write("no driver to turn on"));
    EXPECT_EQ(ops().term_drain(line.host.fd), 0);
    struct Case {
        int result, expected;
    };
    for (const Case &one :
         {Case{line.mode(2), -EINVAL}, Case{line.mode(0, 5), -ENODEV}, Case{line.direction(2), -EINVAL},
          Case{line.direction(0, 5), -ENODEV}, Case{line.status(5), -EINVAL}, Case{line.mode(0), 0}})
        EXPECT_EQ(one.result, one.expected);
    EXPECT_TRUE(line.here.board.take_misuses().empty());
}

TEST(SerialRs485, APlainPortHasNoDirectionAndStaysWhatItIs) {
    const Rs485 line("", "");
    EXPECT_EQ(line.direction(1), -EINVAL);
    EXPECT_EQ(line.mode(1), 0) << "RS-232 is what it is";
    EXPECT_EQ(line.mode(0), -EINVAL);
    EXPECT_EQ(line.status(), -EINVAL);
}

// ---- the wire ----

namespace {

Buffer bytes_of(std::initializer_list<int> values) {
    Buffer out;
    for (const int value : values) out.push_back(static_cast<uint8_t>(value));
    return out;
}

SerialFormat format(uint32_t baud, int data_bits = 8, SerialParity parity = SerialParity::kNone) {
    return {.baud = baud, .data_bits = static_cast<uint8_t>(data_bits), .parity = parity, .stop_bits = 1};
}

}  // namespace

TEST(SerialFormat, AReceiverOfAnotherFormatReadsWhatTheWireHolds) {
    const Buffer sent = bytes_of({0x41, 0x43, 0x00, 0x7F});
    EXPECT_EQ(received_as(sent, format(9600), format(9600)), sent);
    EXPECT_EQ(received_as(sent, format(9600), format(9700)), sent) << "1 % apart";
    EXPECT_EQ(received_as(sent, format(9600, 7, SerialParity::kEven), format(9600)),
              bytes_of({0x41, 0xC3, 0x00, 0xFF}))
        << "the parity bit is read as bit 7";
    EXPECT_EQ(received_as(bytes_of({0xC1}), format(9600, 7), format(9600, 7)), bytes_of({0x41}));
    // At half the rate every second bit is read: 0 0110 0110 1 from the left, from the third on.
    EXPECT_EQ(received_as(bytes_of({0x66}), format(19200), format(9600)), bytes_of({0xFD}));
    EXPECT_EQ(received_as(bytes_of({0x00}), format(1200), format(115200)), bytes_of({0x00}))
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

TEST(SerialFormat, AWrongRateGarblesOnTheLineToo) {
    OnBoard here("[chip.misc]\n" + tty("1", "peer = { kind = \"pty\", baud = 9600 }"));
    const Terminal host("/dev/ttyS1", B9600);
    const FarEnd far(here.board, "/dev/ttyS1");
    EXPECT_TRUE(host.write("hello"));
    EXPECT_EQ(far.read(5), "hello");
    host.set(B19200);
    EXPECT_TRUE(host.write("hello"));
    EXPECT_EQ(ops().term_drain(host.fd), 0);
    EXPECT_NE(read_all(far), "hello");
}

TEST(SerialFormat, SttyAtTheFarEndShowsTheSettingsOfTheLine) {
    OnBoard here("[chip.misc]\n" + tty("1"));
    const Terminal host("/dev/ttyS1");
    host.set(B57600, CS8 | CSTOPB);
    const FarEnd far(here.board, "/dev/ttyS1");
    std::string text;
    FILE *stty = popen(("stty -a -F " + far.path).c_str(), "r");
    ASSERT_NE(stty, nullptr);
    for (int c = fgetc(stty); c != EOF; c = fgetc(stty)) text += static_cast<char>(c);
    ASSERT_EQ(pclose(stty), 0);
    EXPECT_NE(text.find("speed 57600 baud"), std::string::npos) << text;
    EXPECT_NE(text.find(" cstopb"), std::string::npos) << text;
    // What a pseudo-terminal cannot hold is kept for the processes of the board.
    host.set(B1200, CS7 | PARENB | PARODD);
    termios settings{};
    EXPECT_EQ(ops().term_get(host.fd, &settings), 0);
    EXPECT_EQ(settings.c_cflag & (CSIZE | PARENB | PARODD), static_cast<tcflag_t>(CS7 | PARENB | PARODD));
    EXPECT_EQ(shown(here.board, "/dev/ttyS1", "settings"), "1200 7O1");
}

// ---- faults ----

TEST(SerialFaults, LoseDoubleFlipAndDelayBytes) {
    struct Case {
        const char *fault;
        const char *at_far_end;
        const char *at_host;
    };
    for (const Case &one : {
             Case{"/dev/ttyS1 line:out lose every 3", "abdegh", "abcdefgh"},
             Case{"/dev/ttyS* line:in double at 2", "abcdefgh", "abbcdefgh"},
             Case{"/dev/ttyS1 line:out flip 0,1 at 1..2", "bacdefgh", "abcdefgh"},
             Case{"/dev/ttyS1 line:out delay 20 at 1", "abcdefgh", "abcdefgh"},
             Case{"chip 1 /dev/ttyS1 line lose", "abcdefgh", "abcdefgh"},
             Case{"/dev/ttyS2 line lose", "abcdefgh", "abcdefgh"},
         }) {
        OnBoard here("[chip.misc]\n" + tty("1"));
        here.board.add_fault(one.fault);
        const Terminal host("/dev/ttyS1");
        const FarEnd far(here.board, "/dev/ttyS1");
        EXPECT_TRUE(host.write("abcdefgh"));
        EXPECT_EQ(far.read(strlen(one.at_far_end)), one.at_far_end) << one.fault;
        EXPECT_TRUE(far.write("abcdefgh"));
        EXPECT_EQ(host.read(strlen(one.at_host)), one.at_host) << one.fault;
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
        here.board.add_fault("/dev/ttyS1 line:out hang-up at 3");
        EXPECT_TRUE(host.write("abcdef"));
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
