// The tty layer: names, settings, waiting, and objects that outlive their openers.
#include <fcntl.h>
#include <sys/resource.h>
#include <atomic>
#include <chrono>
#include <csignal>
#include <thread>

#include "comm/com_name.h"
#include "tests/comm/port_bench.h"

using namespace qel::test;
using qel::comm::NameFacts;

namespace {

using Clock = std::chrono::steady_clock;

constexpr ComObjDesc kRs232Port1{1, 0, 0};

NameFacts facts(uint32_t port, int board_type = 0, int category = 0) {
    NameFacts made;
    made.port = port;
    made.board_type = board_type;
    made.category = category;
    return made;
}

std::string name_of(const NameFacts &facts) {
    const qel::comm::TtyName name = qel::comm::tty_name(facts);
    return std::string(name.prefix).substr(8) + std::to_string(name.number);
}

// The settings of a line as its far end sees them in the pseudo-terminal itself.
termios settings_of(const CommBench &bench, const std::string &node) {
    const int fd = ::open(shown(bench.board, node, "terminal").c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    termios settings{};
    EXPECT_EQ(tcgetattr(fd, &settings), 0);
    ::close(fd);
    return settings;
}

}  // namespace

TEST(TtyName, FollowsTheFirstRuleThatFits) {
    struct Rule {
        NameFacts facts;
        const char *name;
    };
    NameFacts given = facts(3, 9);
    given.tty_given = true;
    given.tty_number = 7;
    NameFacts three_own = facts(2, 12);
    three_own.own_uarts = 3;
    NameFacts six_own = facts(6, 16);
    six_own.own_uarts = 6;
    NameFacts door = facts(2, 26);
    door.door_station = true;
    NameFacts no_third = facts(2, 1);
    no_third.no_third_tty = true;
    NameFacts no_third_4 = facts(4, 1);
    no_third_4.no_third_tty = true;
    NameFacts crossed_first = facts(1, 52, 4);
    crossed_first.second_port_rule = 1;
    NameFacts crossed_fourth = facts(4, 52, 4);
    crossed_fourth.second_port_rule = 1;
    const Rule rules[] = {
        {given, "S7"},           {facts(1, 9), "O1"},     {facts(2, 15), "M0"},    {facts(5, 16), "M3"},
        {three_own, "O2"},       {six_own, "M0"},         {facts(2, 27), "AMA2"},  {facts(2, 26), "S2"},
        {door, "AMA1"},          {no_third, "S1"},        {no_third_4, "S4"},      {facts(2, 54, 4), "S1"},
        {facts(2, 54, 3), "S2"}, {facts(1, 54, 4), "S1"}, {facts(2, 52, 4), "S5"}, {facts(4, 52, 4), "S2"},
        {facts(1, 52, 4), "S1"}, {crossed_first, "S2"},   {crossed_fourth, "S4"},  {facts(2, 52, 3), "S2"},
        {facts(9, 18), "S9"},
    };
    for (const Rule &rule : rules)
        EXPECT_EQ(name_of(rule.facts), rule.name)
            << "port " << rule.facts.port << " of " << rule.facts.board_type;
}

TEST(TtyName, OfABoardComesFromItsMapAndProperties) {
    CommBench bench("[chip.hwid.bytes]\n152 = \"34\"\n148 = \"01\"\n" + tty("5") +
                        "[[chip.port]]\nnumber = 2\n[[chip.port]]\nnumber = 7\ntty = 5\n",
                    {}, {"BX-200", 4});
    const Com crossed(bench, {2, 0, 0});
    EXPECT_EQ(CALL(*bench.library, QEL_comOpen)(crossed.handle), 0);
    const Com given(bench, {7, 0, 0});
    EXPECT_EQ(CALL(*bench.library, QEL_comOpen)(given.handle), 0);
    EXPECT_TRUE(bench.log.contains("[libqel] tty_port:[7]; tty_name:[/dev/ttyS5]\n"));
    const Com missing(bench, {6, 0, 0});
    EXPECT_EQ(CALL(*bench.library, QEL_comOpen)(missing.handle), -1);
    EXPECT_TRUE(bench.log.contains("[libqel] ERROR  : Open device /dev/ttyS6 failed\n "));
}

TEST(ComObject, OfAnOpenPortIsSharedThoughTheResultSaysNo) {
    CommBench bench(tty("1"));
    const Com first(bench, kRs232Port1);
    EXPECT_EQ(first.result, 0);
    ASSERT_EQ(CALL(*bench.library, QEL_comOpen)(first.handle), 0);
    EXPECT_TRUE(bench.log.contains("[libqel] -->>-----ComObj-port: 1 Create Successed----->>\n"));
    EXPECT_TRUE(bench.log.contains("[libqel] -->>-----QEL_comOpen:  1  -Successed----->>\n"));
    ComPriv state{};
    {
        const Com second(bench, {1, 1, 1});
        EXPECT_EQ(second.result, -1);
        EXPECT_EQ(second.handle, first.handle);
        EXPECT_EQ(CALL(*bench.library, QEL_comGetPriv)(first.handle, &state), 0);
        EXPECT_EQ(state.references, 2);
        EXPECT_EQ(state.rs485, 0U) << "as the first wanted it";
        EXPECT_EQ(state.raw, 1U);
        EXPECT_GE(state.fd, 0);
    }
    CALL(*bench.library, QEL_comGetPriv)(first.handle, &state);
    EXPECT_EQ(state.references, 1);
    EXPECT_EQ(CALL(*bench.library, QEL_comOpen)(first.handle), 0);
    EXPECT_EQ(CALL(*bench.library, QEL_comClose)(first.handle), 0);
    CALL(*bench.library, QEL_comGetPriv)(first.handle, &state);
    EXPECT_GE(state.fd, 0) << "opened twice, closed once";
    EXPECT_EQ(CALL(*bench.library, QEL_comClose)(first.handle), 0);
    EXPECT_EQ(CALL(*bench.library, QEL_comClose)(first.handle), -1);
    CALL(*bench.library, QEL_comGetPriv)(first.handle, &state);
    EXPECT_EQ(state.fd, -1);

    const Com anew(bench, {1, 1, 0});
    EXPECT_EQ(anew.result, 0) << "not open: it starts anew";
    CALL(*bench.library, QEL_comGetPriv)(anew.handle, &state);
    EXPECT_EQ(state.references, 1);
    EXPECT_EQ(state.rs485, 1U);
    ComHandle none = anew.handle;
    const ComObjDesc tenth{10, 0, 0};
    EXPECT_EQ(CALL(*bench.library, QEL_comCreate)(&none, &tenth), -1);
    EXPECT_EQ(none, nullptr);
    EXPECT_TRUE(bench.log.contains("): id >= MAX_COMM_NUM\n"));
    EXPECT_EQ(CALL(*bench.library, QEL_comDelete)(anew.handle), 0);
    EXPECT_EQ(CALL(*bench.library, QEL_comDelete)(anew.handle), -1) << "nobody's any more";
    CALL(*bench.library, QEL_comCreate)(&none, &kRs232Port1);  // for the two at the end of this test
    CALL(*bench.library, QEL_comOpen)(none);
    CALL(*bench.library, QEL_comCreate)(&none, &kRs232Port1);
}

TEST(ComObject, IsRawUntilItsSettingsArePutBack) {
    CommBench bench(tty("1") + tty("0"));
    const int held = ops().open("/dev/ttyS1", O_RDWR | O_NOCTTY, 0);  // keeps the terminal
    termios cooked{};
    ASSERT_EQ(ops().term_get(held, &cooked), 0);
    cooked.c_iflag |= BRKINT | INPCK | ISTRIP | ICRNL | IXON | IGNPAR;
    cooked.c_oflag |= OPOST;
    cooked.c_lflag |= ISIG | ICANON | ECHO | IEXTEN | ECHOK;
    ASSERT_EQ(ops().term_set(held, TCSANOW, &cooked), 0);
    const Com com(bench, kRs232Port1);
    ASSERT_EQ(CALL(*bench.library, QEL_comOpen)(com.handle), 0);
    termios raw = settings_of(bench, "/dev/ttyS1");
    EXPECT_EQ(raw.c_iflag & (BRKINT | INPCK | ISTRIP | ICRNL | IXON), 0U);
    EXPECT_NE(raw.c_iflag & IGNPAR, 0U) << "no more than that";
    EXPECT_EQ(raw.c_oflag & OPOST, 0U);
    EXPECT_EQ(raw.c_lflag & (ISIG | ICANON | ECHO | IEXTEN), 0U);
    EXPECT_NE(raw.c_lflag & ECHOK, 0U);
    EXPECT_EQ(raw.c_cc[VMIN], 1);
    EXPECT_EQ(raw.c_cc[VTIME], 0);
    ASSERT_EQ(ops().term_get(held, &raw), 0);
    EXPECT_EQ(raw.c_cflag & (CSIZE | PARENB), static_cast<tcflag_t>(CS5));
    EXPECT_EQ(CALL(*bench.library, QEL_comClose)(com.handle), 0);
    ASSERT_EQ(ops().term_get(held, &raw), 0);
    EXPECT_EQ(raw.c_lflag & ECHO, 0U) << "settings stay with the line";
    ASSERT_EQ(CALL(*bench.library, QEL_comOpen)(com.handle), 0);
    EXPECT_EQ(CALL(*bench.library, QEL_TtyExit)(1), 0);
    ASSERT_EQ(ops().term_get(held, &raw), 0);
    EXPECT_EQ(raw.c_lflag, cooked.c_lflag) << "what it was before the first open";
    EXPECT_EQ(raw.c_iflag, cooked.c_iflag);
    ComPriv state{};
    CALL(*bench.library, QEL_comGetPriv)(com.handle, &state);
    EXPECT_EQ(state.fd, -1);
    EXPECT_EQ(CALL(*bench.library, QEL_TtyRaw)(1), -1);
    EXPECT_TRUE(bench.log.contains("(QEL_TtyRaw|"));
    EXPECT_TRUE(bench.log.contains("): tcgetattr  error!! \n"));
    EXPECT_EQ(CALL(*bench.library, QEL_TtyRaw)(10), -1);
    EXPECT_TRUE(bench.log.contains("): com  id = 10 >10 illegal\n"));
    ops().close(held);

    const int console = ops().open("/dev/ttyS0", O_RDWR | O_NOCTTY, 0);
    const Com first(bench, {0, 0, 0});
    ASSERT_EQ(CALL(*bench.library, QEL_comOpen)(first.handle), 0);
    EXPECT_EQ(CALL(*bench.library, QEL_comClose)(first.handle), 0);
    ASSERT_EQ(ops().term_get(console, &raw), 0);
    EXPECT_NE(raw.c_lflag & ECHO, 0U) << "the console's is put back at once";
    ops().close(console);
}

TEST(ComAttributes, ReachTheLineAndComeBack) {
    CommBench bench(tty("1"), {.dir = "", .time_scale = 20});
    const Com com(bench, kRs232Port1);
    ASSERT_EQ(com.open(), 0);
    struct Setting {
        ComAttribute wanted;
        const char *line;
        ComAttribute told;
        const char *warning;
    };
    const Setting settings[] = {
        {{1200, 8, 0, 0, 0}, "1200 8N1", {1200, 8, 0, 0, 0}, ""},
        {{2400, 7, 1, 0, 0}, "2400 7O1", {2400, 7, 1, 0, 0}, ""},
        {{4800, 6, 2, 2, 0}, "4800 6E2", {4800, 6, 2, 2, 0}, ""},
        {{9600, 5, 0, 2, 0}, "9600 5N2", {9600, 5, 0, 2, 0}, ""},
        {{19200, 8, 2, 0, 0}, "19200 8E1", {19200, 8, 2, 0, 0}, ""},
        {{38400, 8, 0, 0, 0}, "38400 8N1", {38400, 8, 0, 0, 0}, ""},
        {{57600, 8, 1, 2, 0}, "57600 8O2", {57600, 8, 1, 2, 0}, ""},
        {{115200, 8, 0, 0, 0}, "115200 8N1", {115200, 8, 0, 0, 0}, ""},
        {{230400, 8, 2, 0, 0}, "115200 8E1", {115200, 8, 2, 0, 0}, "unsupported baudrate 230400\n"},
        {{9600, 8, 3, 0, 0}, "9600 8E1", {9600, 8, 2, 0, 0}, "unsupported parity 3\n"},
        {{9600, 9, 0, 0, 0}, "9600 5N1", {9600, 5, 0, 0, 0}, "unsupported data bits 9\n"},
        {{9600, 4, 0, 0, 0}, "9600 5N1", {9600, 5, 0, 0, 0}, "unsupported data bits 4\n"},
        {{9600, 8, 0, 2, 0}, "9600 8N2", {9600, 8, 0, 2, 0}, ""},
        {{9600, 8, 0, 1, 0}, "9600 8N1", {9600, 8, 0, 0, 0}, "unsupported stop bits 1\n"},
    };
    for (const Setting &setting : settings) {
        bench.log.clear();
        EXPECT_EQ(CALL(*bench.library, QEL_comSetAttribute)(com.handle, &setting.wanted), 0);
        EXPECT_EQ(shown(bench.board, "/dev/ttyS1", "settings"), setting.line);
        EXPECT_EQ(bench.log.count("WARN  (QEL_comSetAttribute|"), setting.warning[0] != '\0' ? 1 : 0);
        if (setting.warning[0] != '\0') {
            EXPECT_TRUE(bench.log.contains(setting.warning)) << setting.warning;
        }
        ComAttribute told{1, 1, 1, 1, 1};
        EXPECT_EQ(CALL(*bench.library, QEL_comGetAttribute)(com.handle, &told), 0);
        EXPECT_EQ(told.baud, setting.told.baud) << setting.line;
        EXPECT_EQ(told.dataBits, setting.told.dataBits) << setting.line;
        EXPECT_EQ(told.parity, setting.told.parity) << setting.line;
        EXPECT_EQ(told.stopBits, setting.told.stopBits) << setting.line;
    }
    const termios seen = settings_of(bench, "/dev/ttyS1");
    EXPECT_EQ(cfgetospeed(&seen), static_cast<speed_t>(B9600));
    EXPECT_EQ(CALL(*bench.library, QEL_comSetAttribute)(com.handle, nullptr), -1);
    EXPECT_TRUE(bench.log.contains("): para pComAttrbute  is null\n"));
}

TEST(ComAttributes, AreThoseThatSttySees) {
    CommBench bench(tty("1"));
    const Com com(bench, kRs232Port1);
    ASSERT_EQ(com.open(), 0);
    const ComAttribute wanted{19200, 8, 0, QEL_COM_TWO_STOP_BITS, 0};
    ASSERT_EQ(CALL(*bench.library, QEL_comSetAttribute)(com.handle, &wanted), 0);
    const std::string command = "stty -a -F " + shown(bench.board, "/dev/ttyS1", "terminal");
    std::FILE *stty = popen(command.c_str(), "r");
    ASSERT_NE(stty, nullptr);
    std::string told(4096, '\0');
    told.resize(std::fread(told.data(), 1, told.size(), stty));
    EXPECT_EQ(pclose(stty), 0);
    for (const char *setting :
         {"speed 19200 baud", " cstopb", "-icanon", "-echo ", "-opost", "-ixon", "min = 1"})
        EXPECT_NE(told.find(setting), std::string::npos) << setting << " in\n" << told;
}

TEST(ComRead, WaitsAsLongAsItIsTold) {
    constexpr unsigned kScale = 10;
    CommBench bench(tty("1"), {.dir = "", .time_scale = kScale});
    Com com(bench, kRs232Port1);
    char bytes[8];
    EXPECT_EQ(com.read(bytes, 1, 10), -1);
    EXPECT_TRUE(bench.log.contains("): para invalid len = 1 fd = -1"));
    ASSERT_EQ(com.open(), 0);
    EXPECT_EQ(com.read(bytes, 1, 0), -1) << "port 1 does not block";
    const Clock::time_point before = Clock::now();
    EXPECT_EQ(com.read(bytes, 1, 300), -2);
    EXPECT_GE(Clock::now() - before, std::chrono::milliseconds(300 / kScale));
    EXPECT_EQ(com.request.length, 0U);
    const FarEnd far(bench.board, "/dev/ttyS1");
    EXPECT_TRUE(far.write("abc"));
    EXPECT_EQ(com.read(bytes, 2, -1), 0);
    EXPECT_EQ(com.request.length, 2U);
    EXPECT_EQ(com.read(bytes, 8, -1), 0);
    EXPECT_EQ(com.request.length, 1U) << "what is there, no more";
    EXPECT_EQ(com.read(bytes, 1, -2), -1);
    EXPECT_TRUE(bench.log.contains("): para: timeout invalid"));
    EXPECT_EQ(com.read(bytes, 0, 10), -1);
    EXPECT_EQ(com.read(bytes, 0x80000000U, 10), -1);
    EXPECT_EQ(com.read(nullptr, 1, 10), -1);
    EXPECT_EQ(CALL(*bench.library, QEL_comRead)(nullptr, &com.request), -1);
    EXPECT_TRUE(bench.log.contains("(QEL_comRead|"));
    EXPECT_TRUE(bench.log.contains("): Para: hCom is NULL!\n"));
    EXPECT_EQ(CALL(*bench.library, QEL_comRead)(com.handle, nullptr), -1);
    EXPECT_TRUE(bench.log.contains("): para is NULL"));
}

TEST(ComRead, WithoutLimitEndsWhenTheLineIsClosed) {
    CommBench bench(tty("3"));
    Com com(bench, {3, 0, 0});
    ASSERT_EQ(com.open(), 0);
    std::atomic<int> result = 7;
    std::thread reader([&] {
        char byte = 0;
        result = com.read(&byte, 1, -1);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // it waits by then, or comes too late
    EXPECT_EQ(CALL(*bench.library, QEL_comClose)(com.handle), 0);
    reader.join();
    EXPECT_EQ(result, -1);
}

TEST(ComRead, GivesEachByteToOneOfSeveralReadersAndKeepsTheOthersTimeouts) {
    CommBench bench(tty("3"));  // opened blocking: a second read() would wait for ever
    const Com com(bench, {3, 0, 0});
    ASSERT_EQ(com.open(), 0);
    const FarEnd far(bench.board, "/dev/ttyS3");
    std::atomic<int> served = 0;
    std::atomic<int> over = 0;
    constexpr int kReaders = 6;
    std::vector<std::thread> readers;
    readers.reserve(kReaders);
    for (int i = 0; i < kReaders; ++i) {
        readers.emplace_back([&] {
            char bytes[16];
            ComIoParam request{bytes, sizeof bytes, 700};
            const int status = CALL(*bench.library, QEL_comRead)(com.handle, &request);
            ++(status == 0 ? served : over);
        });
    }
    EXPECT_TRUE(far.write("one"));
    for (std::thread &reader : readers) reader.join();
    EXPECT_EQ(served + over, kReaders);
    EXPECT_GE(served, 1);
    EXPECT_LE(served, 3);
}

TEST(ComRead, GoesOnAfterSignals) {
    CommBench bench(tty("1"));
    Com com(bench, kRs232Port1);
    ASSERT_EQ(com.open(), 0);
    struct sigaction action {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
    const pthread_t self = pthread_self();
    std::thread disturber([&] {
        for (int i = 0; i < 10; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
            pthread_kill(self, SIGUSR1);
        }
    });
    char byte = 0;
    const Clock::time_point before = Clock::now();
    EXPECT_EQ(com.read(&byte, 1, 200), -2);
    EXPECT_GE(Clock::now() - before, std::chrono::milliseconds(200));
    disturber.join();
}

TEST(ComRead, WorksOnDescriptorsOfAnyNumber) {
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_max < 1200) GTEST_SKIP() << "no more than " << limit.rlim_max << " descriptors here";
    CommBench bench(tty("1", "peer = { kind = \"echo\" }"));
    std::vector<int> taken;
    while (taken.empty() || taken.back() < 1030) taken.push_back(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    Com com(bench, kRs232Port1);
    ASSERT_EQ(com.open(), 0);
    ComPriv state{};
    CALL(*bench.library, QEL_comGetPriv)(com.handle, &state);
    EXPECT_GT(state.fd, 1023);
    char byte = 0;
    EXPECT_EQ(com.write("x", 1000), 0);
    EXPECT_EQ(com.read(&byte, 1, 5000), 0);
    for (const int fd : taken) ::close(fd);
}

TEST(ComWrite, StopsAtItsTimeAndTellsHowMuchWentOut) {
    CommBench bench(tty("1"), {.dir = "", .time_scale = 10});
    Com com(bench, kRs232Port1);
    ASSERT_EQ(com.open(), 0);
    EXPECT_EQ(CALL(*bench.library, QEL_comPurge)(com.handle, QEL_COM_SUSPEND_OUTPUT), 0);
    // Nothing leaves a suspended line: the first write finds no room.
    EXPECT_EQ(com.write("abc", 100), -2);
    EXPECT_TRUE(bench.log.contains("(QEL_comWrite|"));
    EXPECT_TRUE(bench.log.contains("): select wait timeout! fd = "));
    EXPECT_EQ(com.request.length, 0U);
}

TEST(ComWrite, MovesWhatNoBufferHolds) {
    CommBench bench(tty("4", "peer = { kind = \"echo\" }"));
    Com com(bench, {4, 0, 0});
    ASSERT_EQ(com.open(), 0);
    const std::string sent = pattern(1 << 18);
    std::string got;
    std::thread reader([&] {
        std::string piece(4096, '\0');
        ComIoParam request{};
        do {
            request = {piece.data(), static_cast<uint32_t>(piece.size()), 5000};
            if (CALL(*bench.library, QEL_comRead)(com.handle, &request) != 0) break;
            got.append(piece, 0, request.length);
        } while (got.size() < sent.size());
    });
    EXPECT_EQ(com.write(sent, -1), 0);
    EXPECT_EQ(com.request.length, sent.size());
    reader.join();
    EXPECT_TRUE(got == sent) << got.size();
}

TEST(ComPurge, DiscardsWhatItIsToldAndNothingElse) {
    CommBench bench(tty("1"));
    Com com(bench, kRs232Port1);
    ASSERT_EQ(com.open(), 0);
    const FarEnd far(bench.board, "/dev/ttyS1");
    char bytes[8];
    EXPECT_TRUE(far.write("old"));
    EXPECT_EQ(com.read(bytes, 1, 5000), 0);
    EXPECT_EQ(CALL(*bench.library, QEL_comPurge)(com.handle, QEL_COM_DISCARD_INPUT), 0);
    EXPECT_TRUE(far.write("new"));
    EXPECT_EQ(com.read(bytes, 1, 5000), 0);
    EXPECT_EQ(bytes[0], 'n');
    EXPECT_EQ(CALL(*bench.library, QEL_comPurge)(com.handle, QEL_COM_SEND_STOP), 0);
    EXPECT_EQ(com.write("z", 1000), 0);
    EXPECT_EQ(shown(bench.board, "/dev/ttyS1", "bytes sent"), "2") << "the stop character went first";
    EXPECT_EQ(CALL(*bench.library, QEL_comPurge)(com.handle, QEL_COM_DISCARD_OUTPUT), 0);
    for (const uint32_t flag : {0U, 3U, QEL_COM_DISCARD_OUTPUT | QEL_COM_DISCARD_INPUT, 16U})
        EXPECT_EQ(CALL(*bench.library, QEL_comPurge)(com.handle, flag), -1) << flag;
    EXPECT_EQ(bench.log.count("): Unknow flag\n"), 4);
}

TEST(Console, IsToldWhoseTheFirstPortIs) {
    CommBench bench(tty("0", "", "status_line = 3") +
                    "[chip.files]\n\"/var/tmp/BootInfo/bootpara\" = \"\"\n");
    const auto told = [] {
        char text[64] = {};
        const int fd = ops().open("/var/tmp/BootInfo/bootpara", O_RDONLY, 0);
        EXPECT_GE(ops().read(fd, text, sizeof(text) - 1), 0);
        ops().close(fd);
        return std::string(text);
    };
    Tracing tracing(bench.board);
    const Com com(bench, {0, 0, 0});
    ASSERT_EQ(com.open(), 0);
    ComPriv state{};
    CALL(*bench.library, QEL_comGetPriv)(com.handle, &state);
    const std::string taken = "fd " + std::to_string(state.fd);
    EXPECT_EQ(told(), taken);
    EXPECT_EQ(CALL(*bench.library, QEL_comClose)(com.handle), 0);
    EXPECT_EQ(told(), taken + "fd -1");
    bool switched = false;
    for (const std::string &line : tracing.lines())
        switched |=
            member_of(line, "request") == "SET_LINE_MODE" && member_of(line, "data") == "0000000001000000";
    EXPECT_TRUE(switched) << "to RS-232";
    EXPECT_EQ(CALL(*bench.library, QEL_shellTty)(0, 2, 5), -1);
    EXPECT_TRUE(bench.log.contains("(QEL_shellTty|"));
    EXPECT_TRUE(bench.log.contains("): status = 2\n"));
}

TEST(Console, ThatCannotBeToldLeavesThePortUsable) {
    CommBench bench(tty("0", "peer = { kind = \"echo\" }"));
    Com com(bench, {0, 0, 0});
    EXPECT_EQ(com.open(), 0);
    EXPECT_TRUE(bench.log.contains("): open /proc/BootInfo/bootpara failed!\n"));
    EXPECT_EQ(com.write("x", 1000), 0);
}
