// The tty layer: names, settings, waiting, and objects that outlive their openers.
#include <fcntl.h>
#include <sys/resource.h>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <thread>

#include "tests/comm/port_bench.h"

using namespace qel::test;

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr const char *kNode = "/dev/ttyS1";
constexpr ComObjDesc kRs232Port1{1, 0, 0};

// As the board shows settings: "9600 8N1".
std::string text_of(const ComAttribute &attribute) {
    return std::to_string(attribute.baud) + " " + std::to_string(attribute.dataBits) +
           std::string("NOE").at(attribute.parity) +
           (attribute.stopBits == QEL_COM_TWO_STOP_BITS ? "2" : "1");
}

std::string stty(const std::string &path) {
    std::string told(4096, '\0');
    std::FILE *program = popen(("stty -a -F " + path).c_str(), "r");
    told.resize(std::fread(told.data(), 1, told.size(), program));
    EXPECT_EQ(pclose(program), 0);
    return told;
}

termios settings_of(int fd) {
    termios settings{};
    EXPECT_EQ(ops().term_get(fd, &settings), 0);
    return settings;
}

}  // namespace

TEST(TtyName, OfABoardComesFromItsMapAndProperties) {
    CommBench bench("[chip.hwid.bytes]\n152 = \"34\"\n148 = \"01\"\n" + tty("5") +
                        "[[chip.port]]\nnumber = 2\n[[chip.port]]\nnumber = 7\ntty = 5\n",
                    {}, {"BX-200", 4});
    const Com crossed(bench, {2, 0, 0});
    EXPECT_EQ(crossed.open_raw(), 0);
    const Com given(bench, {7, 0, 0});
    EXPECT_EQ(given.open_raw(), 0);
    const Com missing(bench, {6, 0, 0});
    EXPECT_EQ(missing.open_raw(), -1);
    bench.expect_logged({"[libqel] tty_port:[7]; tty_name:[/dev/ttyS5]\n",
                         "[libqel] ERROR  : Open device /dev/ttyS6 failed\n "});
}

TEST(ComObject, OfAnOpenPortIsSharedThoughTheResultSaysNo) {
    CommBench bench(tty("1"));
    const Com first(bench, kRs232Port1);
    EXPECT_EQ(first.result, 0);
    ASSERT_EQ(first.open_raw(), 0);
    bench.expect_logged({"[libqel] -->>-----ComObj-port: 1 Create Successed----->>\n",
                         "[libqel] -->>-----QEL_comOpen:  1  -Successed----->>\n"});
    {
        const Com second(bench, {1, 1, 1});
        EXPECT_EQ(second.result, -1);
        EXPECT_EQ(second.handle, first.handle);
        const ComPriv state = first.state();
        EXPECT_EQ(state.references, 2);
        EXPECT_EQ(state.rs485, 0U) << "as the first wanted it";
        EXPECT_EQ(state.raw, 1U);
    }
    EXPECT_EQ(first.state().references, 1);
    EXPECT_EQ(first.open_raw(), 0);
    EXPECT_EQ(first.close(), 0);
    EXPECT_GE(first.state().fd, 0) << "opened twice, closed once";
    EXPECT_EQ(first.close(), 0);
    EXPECT_EQ(first.close(), -1);
    EXPECT_EQ(first.state().fd, -1);

    const Com anew(bench, {1, 1, 0});
    EXPECT_EQ(anew.result, 0) << "not open: it starts anew";
    const ComPriv state = anew.state();
    EXPECT_EQ(state.references, 1);
    EXPECT_EQ(state.rs485, 1U);
    EXPECT_EQ(state.raw, 0U);
    const Com tenth(bench, {10, 0, 0});
    EXPECT_EQ(tenth.result, -1);
    EXPECT_EQ(tenth.handle, nullptr);
    bench.expect_logged({"): id >= MAX_COMM_NUM\n"});
    EXPECT_EQ(anew.call("Delete"), 0);
    EXPECT_EQ(anew.call("Delete"), -1) << "nobody's any more";
}

TEST(ComObject, ThatAnotherThreadIsOpeningIsShared) {
    CommBench bench(tty("2", "", "direction_line = 6"));
    const Com first(bench, {2, 1, 1});
    bench.board.add_fault("/dev/qecMisc ioctl:SET_RS485_DIRECTION delay 300");
    std::thread opener([&] { EXPECT_EQ(first.open_raw(), 0); });
    while (first.state().raw == 0) std::this_thread::yield();
    const Com second(bench, {2, 1, 1});
    opener.join();
    EXPECT_EQ(second.result, -1);
    EXPECT_EQ(first.state().references, 2);
    EXPECT_EQ(first.state().raw, 1U) << "its settings can still be put back";
}

TEST(ComObject, IsRawUntilItsSettingsArePutBack) {
    CommBench bench(tty("1") + tty("0"));
    const int held = ops().open(kNode, O_RDWR | O_NOCTTY, 0);  // keeps the terminal
    termios cooked = settings_of(held);
    cooked.c_iflag |= BRKINT | INPCK | ISTRIP | ICRNL | IXON | IGNPAR;
    cooked.c_oflag |= OPOST;
    cooked.c_lflag |= ISIG | ICANON | ECHO | IEXTEN | ECHOK;
    ASSERT_EQ(ops().term_set(held, TCSANOW, &cooked), 0);
    const Com com(bench, kRs232Port1);
    ASSERT_EQ(com.open_raw(), 0);
    const termios raw = settings_of(held);
    EXPECT_EQ(raw.c_iflag & (BRKINT | INPCK | ISTRIP | ICRNL | IXON), 0U);
    EXPECT_NE(raw.c_iflag & IGNPAR, 0U) << "no more than that";
    EXPECT_EQ(raw.c_oflag & OPOST, 0U);
    EXPECT_EQ(raw.c_lflag & (ISIG | ICANON | ECHO | IEXTEN), 0U);
    EXPECT_NE(raw.c_lflag & ECHOK, 0U);
    EXPECT_EQ(raw.c_cc[VMIN], 1);
    EXPECT_EQ(raw.c_cc[VTIME], 0);
    EXPECT_EQ(raw.c_cflag & (CSIZE | PARENB), static_cast<tcflag_t>(CS5));
    EXPECT_EQ(com.close(), 0);
    EXPECT_EQ(settings_of(held).c_lflag & ECHO, 0U) << "settings stay with the line";
    ASSERT_EQ(com.open_raw(), 0);
    EXPECT_EQ(CALL(bench, QEL_TtyExit)(1), 0);
    EXPECT_EQ(settings_of(held).c_lflag, cooked.c_lflag) << "what it was before the first open";
    EXPECT_EQ(settings_of(held).c_iflag, cooked.c_iflag);
    EXPECT_EQ(com.state().fd, -1);
    EXPECT_EQ(CALL(bench, QEL_TtyRaw)(1), -1);
    EXPECT_EQ(CALL(bench, QEL_TtyRaw)(10), -1);
    bench.expect_logged({"(QEL_TtyRaw|", "): tcgetattr  error!! \n", "): com  id = 10 >10 illegal\n"});
    ops().close(held);

    const int console = ops().open("/dev/ttyS0", O_RDWR | O_NOCTTY, 0);
    const Com first(bench, {0, 0, 0});
    ASSERT_EQ(first.open_raw(), 0);
    EXPECT_EQ(first.close(), 0);
    EXPECT_NE(settings_of(console).c_lflag & ECHO, 0U) << "the console's is put back at once";
    ops().close(console);
}

TEST(ComAttributes, ReachTheLineAndComeBack) {
    CommBench bench(tty("1"), {.dir = "", .time_scale = 20});
    const OpenCom com(bench, kRs232Port1);
    const struct {
        ComAttribute wanted;
        const char *line;
        const char *warning = "";
    } settings[] = {
        {{1200, 8, 0, 0, 0}, "1200 8N1"},
        {{2400, 7, 1, 0, 0}, "2400 7O1"},
        {{4800, 6, 2, 2, 0}, "4800 6E2"},
        {{9600, 5, 0, 2, 0}, "9600 5N2"},
        {{19200, 8, 2, 0, 0}, "19200 8E1"},
        {{38400, 8, 0, 0, 0}, "38400 8N1"},
        {{57600, 8, 1, 2, 0}, "57600 8O2"},
        {{115200, 8, 0, 0, 0}, "115200 8N1"},
        {{230400, 8, 2, 0, 0}, "115200 8E1", "unsupported baudrate 230400\n"},
        {{9600, 8, 3, 0, 0}, "9600 8E1", "unsupported parity 3\n"},
        {{9600, 9, 0, 0, 0}, "9600 5N1", "unsupported data bits 9\n"},
        {{9600, 4, 0, 0, 0}, "9600 5N1", "unsupported data bits 4\n"},
        {{9600, 8, 0, 2, 0}, "9600 8N2"},
        {{9600, 8, 0, 1, 0}, "9600 8N1", "unsupported stop bits 1\n"},
        {{4800, 7, 2, 2, 0}, "4800 7E2"},
        {{4800, 7, 2, 2, 0}, "4800 7E2"},  // nothing new is no error
    };
    for (const auto &setting : settings) {
        bench.log.clear();
        EXPECT_EQ(com.set(setting.wanted), 0);
        EXPECT_EQ(shown(bench.board, kNode, "settings"), setting.line);
        EXPECT_EQ(bench.log.count("WARN  (QEL_comSetAttribute|"), setting.warning[0] != '\0' ? 1 : 0);
        EXPECT_NE(bench.log.all().find(setting.warning), std::string::npos) << setting.warning;
        ComAttribute told{1, 1, 1, 1, 1};
        EXPECT_EQ(com.get(&told), 0);
        EXPECT_EQ(text_of(told), setting.line);
    }
    EXPECT_EQ(com.call("SetAttribute", static_cast<const ComAttribute *>(nullptr)), -1);
    bench.expect_logged({"): para pComAttrbute  is null\n"});
}

TEST(ComAttributes, ThatTheLineDoesNotTakeOrTellAreNamed) {
    CommBench bench(tty("1"));
    const Com com(bench, kRs232Port1);
    ComAttribute attribute{9600, 8, 0, 0, 0};
    EXPECT_EQ(com.set(attribute), -1);
    EXPECT_TRUE(bench.log.contains("ERROR  (QEL_comSetAttribute|")) << "closed";
    ASSERT_EQ(com.open(), 0);
    bench.board.add_fault("/dev/ttyS1 term:tcsetattr fail EIO");
    testing::internal::CaptureStderr();
    EXPECT_EQ(com.set(attribute), -1);
    const std::string told = testing::internal::GetCapturedStderr();
    EXPECT_NE(told.find("tcsetattr: Input/output error\n"), std::string::npos) << told;
    bench.board.clear_faults();

    const int held = ops().open(kNode, O_RDWR | O_NOCTTY, 0);
    termios settings = settings_of(held);
    cfsetspeed(&settings, B230400);
    settings.c_iflag |= INPCK;
    ASSERT_EQ(ops().term_set(held, TCSANOW, &settings), 0);
    EXPECT_EQ(com.get(&attribute), 0);
    bench.expect_logged({"WARN  (QEL_comGetAttribute|", "): Unknown baudrate ", "): Unknown  parity\n"});
    EXPECT_EQ(attribute.baud, 0U);
    ops().close(held);
    EXPECT_EQ(bench.board.poke(0, kNode, {"hang-up"}).value, 0);
    // Who still waits on the terminal keeps it for a moment.
    for (int tries = 0; tries < kDeadlineMs && com.get(&attribute) == 0; ++tries) continue;
    EXPECT_EQ(com.set(attribute), -1);
    EXPECT_EQ(bench.log.count("): tcgetattr  error!! \n"), 2);
}

TEST(ComAttributes, OfAdaptersAreCheckedBeforeTheyReachTheLine) {
    CommBench bench(tty("1"));
    const Terminal line(kNode, B9600);
    const auto settings = [&] { return shown(bench.board, kNode, "settings"); };
    const struct {
        int data_bits, stop_bits, parity;
        const char *settings;  // nullptr: refused
    } formats[] = {{8, 1, 's', "9600 8N1"}, {7, 2, 'e', "9600 7E2"}, {6, 1, 'O', "9600 6O1"},
                   {5, 1, 'N', "9600 5N1"}, {9, 1, 'n', nullptr},    {4, 1, 'n', nullptr},
                   {8, 0, 'n', nullptr},    {8, 3, 'n', nullptr},    {8, 1, 'x', nullptr}};
    for (const auto &[data_bits, stop_bits, parity, set] : formats) {
        EXPECT_EQ(CALL(bench, QEL_setTtyUsbParity)(line.fd, data_bits, stop_bits, parity),
                  set != nullptr ? 0 : -1);
        EXPECT_EQ(settings(), set != nullptr ? set : "9600 5N1");
    }
    EXPECT_EQ(bench.log.count("WARN  (QEL_setTtyUsbParity|"), 5);
    for (const int baud : {230400, 0, -9600}) EXPECT_EQ(CALL(bench, QEL_setTtyUsbSpeed)(line.fd, baud), -1);
    EXPECT_EQ(bench.log.count("WARN  (QEL_setTtyUsbSpeed|"), 3);
    EXPECT_EQ(CALL(bench, QEL_setTtyUsbSpeed)(line.fd, 57600), 0);
    EXPECT_EQ(settings(), "57600 5N1");
    EXPECT_EQ(CALL(bench, QEL_setTtyUsbSpeed)(-1, 57600), -1);
    EXPECT_EQ(CALL(bench, QEL_setTtyUsbParity)(-1, 8, 1, 'n'), -1);
}

TEST(ComAttributes, AreThoseThatSttySeesAtBothEnds) {
    CommBench bench(tty("1"));
    const OpenCom com(bench, kRs232Port1);
    ASSERT_EQ(com.set({19200, 8, 0, QEL_COM_TWO_STOP_BITS, 0}), 0);
    const std::string near = stty(shown(bench.board, kNode, "terminal"));
    for (const char *setting : {"-icanon", "-echo ", "-opost", "-ixon", "min = 1"})
        EXPECT_NE(near.find(setting), std::string::npos) << setting << " in\n" << near;
    for (const std::string &end : {near, stty(shown(bench.board, kNode, "far end"))}) {
        for (const char *setting : {"speed 19200 baud", " cstopb"})
            EXPECT_NE(end.find(setting), std::string::npos) << setting << " in\n" << end;
    }
}

TEST(ComWaits, LastAsLongAsTheyAreTold) {
    constexpr unsigned kScale = 10;
    CommBench bench(tty("1"), {.dir = "", .time_scale = kScale});
    Com com(bench, kRs232Port1);
    char bytes[8];
    EXPECT_EQ(com.read(bytes, 1, 10), -1);
    bench.expect_logged({"): para invalid len = 1 fd = -1"});
    ASSERT_EQ(com.open(), 0);
    EXPECT_EQ(com.read(bytes, 1, 0), -1) << "port 1 does not block";
    const Clock::time_point before = Clock::now();
    EXPECT_EQ(com.read(bytes, 1, 300), -2);
    EXPECT_GE(Clock::now() - before, milliseconds(300 / kScale));
    EXPECT_EQ(com.request.length, 0U);
    const FarEnd far(bench.board, kNode);
    EXPECT_TRUE(far.write("abc"));
    EXPECT_EQ(com.read(bytes, 2, -1), 0);
    EXPECT_EQ(com.request.length, 2U);
    EXPECT_EQ(com.read(bytes, 8, -1), 0);
    EXPECT_EQ(com.request.length, 1U) << "what is there, no more";
    EXPECT_EQ(com.read(bytes, 1, -2), -1);
    EXPECT_EQ(com.read(bytes, 0, 10), -1);
    EXPECT_EQ(com.read(bytes, 0x80000000U, 10), -1);
    EXPECT_EQ(com.read(nullptr, 1, 10), -1);
    EXPECT_EQ(CALL(bench, QEL_comRead)(nullptr, &com.request), -1);
    EXPECT_EQ(CALL(bench, QEL_comRead)(com.handle, nullptr), -1);
    bench.expect_logged(
        {"): para: timeout invalid", "(QEL_comRead|", "): Para: hCom is NULL!\n", "): para is NULL"});
}

// Nothing leaves a suspended line. Port 1 does not block, port 3 does.
TEST(ComWaits, EndWhenTheLineHasNoRoom) {
    for (const uint32_t port : {1U, 3U}) {
        CommBench bench(tty(std::to_string(port).c_str()));
        OpenCom com(bench, {port, 0, 0});
        EXPECT_EQ(com.purge(QEL_COM_SUSPEND_OUTPUT), 0);
        EXPECT_EQ(com.write("abc", 50), -2) << port;
        EXPECT_EQ(com.request.length, 0U);
        bench.expect_logged({"(QEL_comWrite|", "): select wait timeout! fd = "});
    }
}

TEST(ComWaits, EndWhenTheLineIsClosed) {
    CommBench bench(tty("3"));  // opened blocking
    const OpenCom com(bench, {3, 0, 0});
    ASSERT_EQ(com.purge(QEL_COM_SUSPEND_OUTPUT), 0);
    const Clock::time_point before = Clock::now();
    const auto wait = [&](const char *what, int32_t timeout_ms) {
        char byte = 'x';
        ComIoParam request{&byte, 1, timeout_ms};
        EXPECT_EQ(com.call(what, &request), -1) << what;
    };
    std::thread reader(wait, "Read", -1);
    std::thread writer(wait, "Write", 60000);
    std::this_thread::sleep_for(milliseconds(50));  // they wait by then, or come too late
    EXPECT_EQ(com.close(), 0);
    reader.join();
    writer.join();
    EXPECT_LT(Clock::now() - before, std::chrono::seconds(30));
}

TEST(ComRead, GivesEachByteToOneOfSeveralReadersAndKeepsTheOthersTimeouts) {
    CommBench bench(tty("3"));  // opened blocking: a second read() would wait for ever
    const OpenCom com(bench, {3, 0, 0});
    const FarEnd far(bench.board, "/dev/ttyS3");
    EXPECT_TRUE(far.write("one"));
    std::atomic<int> served = 0;
    at_once(6, [&](int) {
        char bytes[16];
        ComIoParam request{bytes, sizeof bytes, 700};
        if (com.call("Read", &request) == 0) ++served;
    });
    EXPECT_GE(served, 1);
    EXPECT_LE(served, 3);
}

TEST(ComRead, GoesOnAfterSignals) {
    CommBench bench(tty("1"));
    OpenCom com(bench, kRs232Port1);
    struct sigaction action {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
    std::thread disturber([self = pthread_self()] {
        for (int i = 0; i < 10; ++i) {
            std::this_thread::sleep_for(milliseconds(10));
            pthread_kill(self, SIGUSR1);
        }
    });
    char byte = 0;
    const Clock::time_point before = Clock::now();
    EXPECT_EQ(com.read(&byte, 1, 200), -2);
    EXPECT_GE(Clock::now() - before, milliseconds(200));
    disturber.join();
}

TEST(ComRead, WorksOnDescriptorsOfAnyNumber) {
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_max < 1200) GTEST_SKIP() << "this machine lacks descriptors: " << limit.rlim_max;
    CommBench bench(tty("1", "peer = { kind = \"echo\" }"));
    std::vector<int> taken;
    while (taken.empty() || taken.back() < 1030) taken.push_back(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    OpenCom com(bench, kRs232Port1);
    EXPECT_GT(com.state().fd, 1023);
    char byte = 0;
    EXPECT_EQ(com.write("x", 1000), 0);
    EXPECT_EQ(com.read(&byte, 1, 5000), 0);
    for (const int fd : taken) ::close(fd);
}

// With the board's own echo, then with socat.
TEST(ComWrite, ExchangesAMegabyte) {
    for (const bool with_socat : {false, true}) {
        if (with_socat && system("socat -V > /dev/null 2>&1") != 0)
            GTEST_SKIP() << "this machine lacks socat";
        CommBench bench(tty("4", with_socat ? "" : "peer = { kind = \"echo\" }"));
        OpenCom com(bench, {4, 0, 0});
        char bytes[4096];
        pid_t socat = -1;
        if (with_socat) {
            const std::string far_end = shown(bench.board, "/dev/ttyS4", "far end");
            socat = fork_child();
            if (socat == 0) {
                execlp("socat", "socat", (far_end + ",rawer").c_str(), "PIPE", nullptr);
                _exit(127);
            }
            int said = 0;  // nobody hears it before socat has come
            do {
                EXPECT_EQ(com.write("?", 1000), 0);
            } while (com.read(bytes, sizeof(bytes), 100) == -2 && ++said < 200);
            while (com.read(bytes, sizeof(bytes), 300) == 0) continue;
        }
        const std::string sent = pattern(1 << 20);
        std::thread writer([&] {
            ComIoParam request{const_cast<char *>(sent.data()), static_cast<uint32_t>(sent.size()), -1};
            EXPECT_EQ(com.call("Write", &request), 0);
            EXPECT_EQ(request.length, sent.size());
        });
        std::string got;
        while (got.size() < sent.size() && com.read(bytes, sizeof(bytes), kDeadlineMs) == 0)
            got.append(bytes, com.request.length);
        writer.join();
        EXPECT_TRUE(got == sent) << got.size();
        if (with_socat) {
            kill(socat, SIGTERM);
            EXPECT_GE(wait_for_child(socat, 10000), 0);
        }
    }
}

TEST(ComPurge, DiscardsWhatItIsToldAndNothingElse) {
    CommBench bench(tty("1"));
    OpenCom com(bench, kRs232Port1);
    const FarEnd far(bench.board, kNode);
    char bytes[8];
    EXPECT_TRUE(far.write("old"));
    EXPECT_EQ(com.read(bytes, 1, 5000), 0);
    EXPECT_EQ(com.purge(QEL_COM_DISCARD_INPUT), 0);
    EXPECT_TRUE(far.write("new"));
    EXPECT_EQ(com.read(bytes, 1, 5000), 0);
    EXPECT_EQ(bytes[0], 'n');
    EXPECT_EQ(com.purge(QEL_COM_SEND_STOP), 0);
    EXPECT_EQ(com.write("z", 1000), 0);
    EXPECT_EQ(shown(bench.board, kNode, "bytes sent"), "2") << "the stop character went first";
    EXPECT_EQ(com.purge(QEL_COM_DISCARD_OUTPUT), 0);
    for (const uint32_t flag : {0U, 3U, QEL_COM_DISCARD_OUTPUT | QEL_COM_DISCARD_INPUT, 16U})
        EXPECT_EQ(com.purge(flag), -1) << flag;
    EXPECT_EQ(bench.log.count("): Unknow flag\n"), 4);
}

TEST(Console, IsToldWhoseTheFirstPortIs) {
    CommBench bench(tty("0", "", "status_line = 3") + kBootFile);
    Tracing tracing(bench.board);
    const OpenCom com(bench, {0, 0, 0});
    const std::string taken = "fd " + std::to_string(com.state().fd);
    EXPECT_EQ(told_console(), taken);
    EXPECT_EQ(com.close(), 0);
    EXPECT_EQ(told_console(), taken + "fd -1");
    ASSERT_EQ(com.open(), 0);
    EXPECT_EQ(CALL(bench, QEL_TtyExit)(0), 0);
    EXPECT_TRUE(told_console().ends_with("fd -1")) << "every way out tells it";
    bool switched = false;
    for (const std::string &line : tracing.lines())
        switched |=
            member_of(line, "request") == "SET_LINE_MODE" && member_of(line, "data") == "0000000001000000";
    EXPECT_TRUE(switched) << "to RS-232";
    EXPECT_EQ(CALL(bench, QEL_shellTty)(0, 2, 5), -1);
    bench.expect_logged({"(QEL_shellTty|", "): status = 2\n"});
}

TEST(Console, ThatCannotBeToldLeavesThePortUsable) {
    CommBench bench(tty("0"));
    OpenCom com(bench, {0, 0, 0});
    bench.expect_logged({"): open /proc/BootInfo/bootpara failed!\n"});
    EXPECT_EQ(com.write("x", 1000), 0);
}
