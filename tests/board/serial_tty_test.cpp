// Serial lines through the gate: real pseudo-terminals, honest drains, the wiring of the ports.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <array>
#include <cstring>
#include <thread>

#include "tests/board/serial_bench.h"
#include "tests/support/library.h"

using namespace qel::test;

TEST(SerialTty, CarriesBytesBothWaysAndToAnyProgram) {
    OnBoard here("[chip.misc]\n" + tty("1"));
    const Terminal host("/dev/ttyS1");
    const FarEnd far(here.board, "/dev/ttyS1");
    std::string sent;
    for (int i = 0; i < 256; ++i) sent += static_cast<char>(i);
    EXPECT_TRUE(host.write(sent));
    EXPECT_EQ(far.read(256), sent);
    EXPECT_TRUE(far.write(sent));
    EXPECT_EQ(host.read(256), sent);
}

TEST(SerialTty, MovesAMegabyteThroughAnEcho) {
    OnBoard here("[chip.misc]\n" + tty("1", "peer = { kind = \"echo\" }"));
    const Terminal host("/dev/ttyS1");
    const std::string sent = pattern(1 << 20);
    std::thread writer([&] { EXPECT_TRUE(host.write(sent)); });
    const std::string got = host.read(sent.size());
    writer.join();
    EXPECT_TRUE(got == sent) << "of " << sent.size() << " bytes " << got.size() << " came back";
}

TEST(SerialTty, ExchangesAMegabyteWithSocat) {
    if (system("socat -V > /dev/null 2>&1") != 0) GTEST_SKIP() << "this machine has no socat";
    OnBoard here("[chip.misc]\n" + tty("1"));
    const Terminal host("/dev/ttyS1");
    const std::string path = shown(here.board, "/dev/ttyS1", "far end");
    const pid_t socat = fork_child();
    if (socat == 0) {
        execlp("socat", "socat", (path + ",rawer").c_str(), "PIPE", nullptr);
        _exit(127);
    }
    // Until it has come: what is said before is for nobody.
    int said = 0;
    do {
        EXPECT_TRUE(host.write("?"));
        ++said;
    } while (!host.wait_readable(50) && said < 400);
    while (host.wait_readable(200)) host.read(1);
    const std::string sent = pattern(1 << 20);
    std::thread writer([&] { EXPECT_TRUE(host.write(sent)); });
    EXPECT_TRUE(host.read(sent.size()) == sent);
    writer.join();
    kill(socat, SIGTERM);
    EXPECT_GE(wait_for_child(socat, 10000), 0);
}

TEST(SerialTty, LosesWhatArrivesWhileNobodyHasItOpen) {
    OnBoard here("[chip.misc]\n" + tty("1"));
    const FarEnd far(here.board, "/dev/ttyS1");
    EXPECT_TRUE(far.write("early"));
    {
        const Terminal host("/dev/ttyS1");
        EXPECT_TRUE(far.write("a"));
        EXPECT_EQ(host.read(1), "a");
        EXPECT_TRUE(far.write("unread"));
        EXPECT_TRUE(host.wait_readable());
    }
    const Terminal host("/dev/ttyS1");
    EXPECT_TRUE(far.write("b"));
    EXPECT_EQ(host.read(1), "b");
}

TEST(SerialTty, AnswersThePortMapOfTheDescription) {
    OnBoard here(
        "[chip.misc]\n[[chip.port]]\nnumber = 1\nusage = 4\nkind = 3\ndirection_line = 12\nstatus_line = 7\n"
        "only_with_status = true\ntype = 9\n[[chip.port]]\nnumber = 0\ntty = 5\n");
    const int fd = ops().open("/dev/qecMisc", O_RDWR, 0);
    std::array<uint8_t, 693> map;
    map.fill(0xAA);
    ASSERT_EQ(ops().ioctl(fd, kGetPortMap, map.data()), 0);
    const auto u32 = [&](size_t item, size_t at) {
        uint32_t value = 0;
        memcpy(&value, &map[item * 60 + at], sizeof value);
        return value;
    };
    const uint32_t expected[2][5] = {{12, 4, 1, 3, 7}, {65535, 0, 0, 0, 65535}};
    for (size_t item = 0; item < 2; ++item) {
        for (size_t field = 0; field < 5; ++field)
            EXPECT_EQ(u32(item, 16 + field * 4), expected[item][field]);
    }
    EXPECT_EQ(map[41], 1);
    EXPECT_EQ(map[48], 9);
    EXPECT_EQ(map[50], 0);
    EXPECT_EQ(map[60 + 49], 5);
    EXPECT_EQ(map[60 + 50], 1);
    EXPECT_EQ(u32(2, 24), 10U) << "the end mark";
    EXPECT_EQ(map[692], 0xAA);
}
