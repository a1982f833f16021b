// Serial lines through the gate: real pseudo-terminals, and the wiring of the ports.
#include <array>
#include <cstring>

#include "tests/board/serial_bench.h"

using namespace qel::test;

TEST(SerialTty, LosesWhatArrivesWhileNobodyHasItOpen) {
    OnBoard here("[chip.misc]\n" + tty("1"));
    const FarEnd far(here.board, "/dev/ttyS1");
    EXPECT_TRUE(far.write("early"));
    fcntl(far.fd, F_SETFL, O_RDWR | O_NONBLOCK);
    for (int i = 0; i < 100; ++i) {
        pollfd entry{far.fd, POLLOUT, 0};
        ASSERT_EQ(::poll(&entry, 1, kDeadlineMs), 1) << "it must not be held up either";
        EXPECT_GT(::write(far.fd, pattern(1000).data(), 1000), 0);
    }
    fcntl(far.fd, F_SETFL, O_RDWR);
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
    const std::pair<size_t, uint32_t> words[] = {{16, 12}, {20, 4},     {24, 1},  {28, 3},
                                                 {32, 7},  {76, 65535}, {80, 0},  {84, 0},
                                                 {88, 0},  {92, 65535}, {144, 10}};  // the end mark
    for (const auto &[at, expected] : words) {
        uint32_t value = 0;
        memcpy(&value, &map[at], sizeof value);
        EXPECT_EQ(value, expected) << at;
    }
    const std::pair<size_t, int> bytes[] = {{41, 1}, {48, 9}, {50, 0}, {109, 5}, {110, 1}};
    for (const auto &[at, expected] : bytes) EXPECT_EQ(map[at], expected) << at;
    EXPECT_EQ(map[692], 0xAA);
}
