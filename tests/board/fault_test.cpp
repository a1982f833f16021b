// Breaking a board on purpose: the grammar of faults and what each does to requests.
#include "board/core/fault.h"

#include <gtest/gtest.h>
#include <array>
#include <cerrno>
#include <csignal>
#include <filesystem>

#include "tests/board/probe.h"
#include "tests/support/library.h"

using namespace qel::test;

TEST(BoardFault, SaysWhichWordIsWrong) {
    const struct {
        const char *text;
        const char *says;
    } kWrong[] = {
        {"", "a node"},
        {"/dev/x", "an operation"},
        {"/dev/x grow fail EIO", "\"grow\" is not an operation"},
        {"/dev/x read:ALL fail EIO", "only an ioctl"},
        {"/dev/x ioctl: fail EIO", "no request"},
        {"/dev/x term:tcslip fail EIO", "\"tcslip\" is not a terminal call"},
        {"/dev/x read burn", "\"burn\" is none of"},
        {"/dev/x read fail", "the name of an error"},
        {"/dev/x read fail EBROKEN", "\"EBROKEN\""},
        {"/dev/x read fail OK", "\"OK\""},
        {"/dev/x read short -1", "\"-1\""},
        {"/dev/x read flip 1,x", "\"x\""},
        {"/dev/x read fail EIO at 0", "\"0\""},
        {"/dev/x read fail EIO at 5..4", "\"4\""},
        {"/dev/x read fail EIO every 0", "\"0\""},
        {"/dev/x read fail EIO at 1 please", "\"please\" is one word too many"},
        {"chip x /dev/x read fail EIO", "\"x\""},
        {"power-cut", "at N"},
        {"power-cut at 99999999999999999999", "99999999999999999999"},
    };
    for (const auto &wrong : kWrong) {
        try {
            parse_fault(wrong.text);
            ADD_FAILURE() << wrong.text << ": was taken";
        } catch (const FaultError &error) {
            EXPECT_NE(std::string(error.what()).find(wrong.says), std::string::npos) << error.what();
        }
    }
}

TEST(BoardFault, StrikesTheRequestsItNames) {
    const struct {
        const char *when;
        const char *struck;  // of eight requests
    } kWhen[] = {
        {"", "xxxxxxxx"},       {"at 1", "x-------"},    {"at 8", "-------x"},    {"at 2..3", "-xx-----"},
        {"from 4", "---xxxxx"}, {"every 3", "--x--x--"}, {"every 1", "xxxxxxxx"},
    };
    for (const auto &when : kWhen) {
        Fault fault = parse_fault(std::string("* * fail EIO ") + when.when);
        std::string struck;
        for (int i = 0; i < 8; ++i) struck += fault.strikes() ? 'x' : '-';
        EXPECT_EQ(struck, when.struck) << when.when;
    }
}

TEST(BoardFault, MatchesNodesAsPatternsAndRequestsByNameOrCode) {
    const RequestView view{1, "/dev/mtd/3", "ioctl", "MEMERASE", 0x40084D02};
    for (const char *text : {"* * fail EIO", "/dev/mtd/? ioctl fail EIO", "/dev/*3 * fail EIO",
                             "chip 1 /dev/mtd/3 ioctl:MEMERASE fail EIO", "*m*d* ioctl:0x40084D02 fail EIO"})
        EXPECT_TRUE(matches(parse_fault(text), view)) << text;
    for (const char *text : {"chip 0 * * fail EIO", "/dev/mtd ioctl fail EIO", "/dev/mtd/3? * fail EIO",
                             "* read fail EIO", "* ioctl:MEMGETINFO fail EIO", "* ioctl:0x40084D0 fail EIO",
                             "* ioctl:0x40084D02x fail EIO", "power-cut at 1"})
        EXPECT_FALSE(matches(parse_fault(text), view)) << text;
}

class BrokenProbe : public testing::Test {
protected:
    OnBoard here_{"[chip.probe]\nbytes = 16\n[chip.files]\n\"/mnt/pd/x\" = \"\"\n"};
    const qel_os_ops &os_ = ops();
    int fd_ = os_.open("/dev/probe", O_RDWR, 0);
    std::array<uint8_t, 16> bytes_{};
};

TEST_F(BrokenProbe, FailsWithoutReachingTheDevice) {
    here_.board.add_fault("/dev/probe write fail ENOSPC at 2");
    EXPECT_EQ(os_.write(fd_, "ab", 2), 2);
    EXPECT_EQ(os_.write(fd_, "cd", 2), -ENOSPC);
    EXPECT_EQ(os_.write(fd_, "ef", 2), 2);
    EXPECT_EQ(os_.seek(fd_, 0, SEEK_SET), 0);
    EXPECT_EQ(os_.read(fd_, bytes_.data(), 5), 5);
    EXPECT_EQ(memcmp(bytes_.data(), "abef\xFF", 5), 0);
}

TEST_F(BrokenProbe, ShortensReadsWritesAndAnswers) {
    here_.board.add_fault("/dev/probe * short 3");
    EXPECT_EQ(os_.write(fd_, "abcdef", 6), 3);
    EXPECT_EQ(os_.seek(fd_, 0, SEEK_SET), 0);
    EXPECT_EQ(os_.read(fd_, bytes_.data(), bytes_.size()), 3);
    uint8_t record[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    EXPECT_EQ(os_.ioctl(fd_, kEcho, record), 8);
    EXPECT_EQ(memcmp(record, "\x08\x07\x06\x04\x05\x06\x07\x08", 8), 0) << "the rest must stay as it was";
}

TEST_F(BrokenProbe, TurnsBitsRoundOnTheirWay) {
    here_.board.add_fault("/dev/probe write flip 0,15 at 1");
    here_.board.add_fault("/dev/probe read flip 7,9999 at 1");
    EXPECT_EQ(os_.write(fd_, "\0\0", 2), 2);
    EXPECT_EQ(os_.seek(fd_, 0, SEEK_SET), 0);
    EXPECT_EQ(os_.read(fd_, bytes_.data(), 2), 2);
    EXPECT_EQ(bytes_[0], 0x81);
    EXPECT_EQ(bytes_[1], 0x80);
}

TEST_F(BrokenProbe, FailsPathsAndFilesToo) {
    here_.board.add_fault("/mnt/* open fail EROFS");
    here_.board.add_fault("/dev/probe stat fail EACCES");
    here_.board.add_fault("/dev/probe close fail EIO");
    qel_os_file_info info{};
    EXPECT_EQ(os_.open("/mnt/pd/x", O_RDWR, 0), -EROFS);
    EXPECT_EQ(os_.stat("/mnt/pd/x", &info), 0);
    EXPECT_EQ(os_.stat("/dev/probe", &info), -EACCES);
    EXPECT_EQ(os_.close(fd_), 0) << "the descriptor is gone whatever the device says";
    here_.board.clear_faults();
    EXPECT_GE(os_.open("/mnt/pd/x", O_RDWR, 0), 0);
}

TEST(BoardPowerCut, EndsTheProcessAndLeavesWhatHadReachedTheMedium) {
    char dir[] = "/tmp/qel-power-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const int code = run_in_child([&] {
        OnBoard here("[chip.probe]\nbytes = 8\n", {.dir = dir, .time_scale = 1});
        here.board.add_fault("/dev/probe power-cut at 2 torn 1");
        const int fd = ops().open("/dev/probe", O_RDWR, 0);
        ops().write(fd, "abc", 3);
        ops().write(fd, "def", 3);
        return 1;
    });
    EXPECT_EQ(code, 128 + SIGKILL);
    const int after = run_in_child([&] {
        OnBoard here("[chip.probe]\nbytes = 8\n", {.dir = dir, .time_scale = 1});
        char bytes[8];
        const int fd = ops().open("/dev/probe", O_RDWR, 0);
        const bool right = ops().read(fd, bytes, 8) == 8 && memcmp(bytes, "abcd\xFF\xFF\xFF\xFF", 8) == 0;
        return right ? 0 : 1;
    });
    EXPECT_EQ(after, 0);
    std::filesystem::remove_all(dir);
}

TEST(BoardPowerCut, TellsEveryOtherRequestUntilThePowerIsBack) {
    OnBoard here("[chip.probe]\n");
    here.board.add_fault("power-cut at 1");
    Request request;
    Reply reply;
    int64_t deadline_ms = 0;
    request.client = here.board.add_client(0, 1, "other");
    request.op = Op::kOpen;
    request.path = "/dev/probe";
    ASSERT_TRUE(here.board.execute(request, reply, deadline_ms));
    Request write;
    write.op = Op::kWrite;
    write.handle = reply.handle;
    write.in = {1, 2, 3};
    ASSERT_TRUE(here.board.execute(write, reply, deadline_ms));
    EXPECT_TRUE(reply.killed);
    reply = {};
    EXPECT_TRUE(here.board.execute(request, reply, deadline_ms));
    EXPECT_TRUE(reply.killed);
    here.board.power_on();
    reply = {};
    EXPECT_TRUE(here.board.execute(request, reply, deadline_ms));
    EXPECT_FALSE(reply.killed);
    EXPECT_GE(reply.value, 0);
}
