// Requests that wait: woken, late, interrupted, and what other threads and processes do meanwhile.
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>
#include <atomic>
#include <csignal>
#include <thread>

#include "tests/board/probe.h"
#include "tests/support/library.h"

using namespace qel::test;

namespace {

int wait_for_wake(int fd, uint32_t timeout_ms) { return ops().ioctl(fd, kWait, &timeout_ms); }

class AWait : public testing::Test {
protected:
    OnBoard here_{"[chip.probe]\n", {.dir = "", .time_scale = 100}};
    const qel_os_ops &os_ = ops();
    int fd_ = os_.open("/dev/probe", O_RDWR, 0);

    void poke(std::vector<std::string> words) { here_.board.poke(0, "/dev/probe", words); }
    // As many tokens as lie on a descriptor, at most.
    static int readiness(int fd) {
        pollfd one{fd, POLLIN, 0};
        return ops().poll(&one, 1, 0);
    }
};

std::atomic<int> g_signals{0};

}  // namespace

TEST_F(AWait, EndsWhenTheDeviceChanges) {
    std::atomic<int> result{-1};
    std::thread waiter([&] { result = wait_for_wake(fd_, 0); });
    // Others go on meanwhile, on the same descriptor too.
    uint8_t record[8] = {};
    for (int i = 0; i < 1000; ++i) EXPECT_EQ(os_.ioctl(fd_, kEcho, record), 8);
    EXPECT_EQ(result, -1);
    poke({"wake"});
    waiter.join();
    EXPECT_EQ(result, 1);
}

TEST_F(AWait, EndsWhenItsTimeIsOver) {
    EXPECT_EQ(wait_for_wake(fd_, 2000), -ETIMEDOUT);  // of the board's time: a hundredth of it here
    poke({"wake"});
    EXPECT_EQ(wait_for_wake(fd_, 2000), 1);
}

TEST_F(AWait, DoesNotHappenOnANonBlockingDescriptor) {
    const int fd = os_.open("/dev/probe", O_RDWR | O_NONBLOCK, 0);
    EXPECT_EQ(wait_for_wake(fd, 0), -EAGAIN);
    poke({"wake"});
    EXPECT_EQ(wait_for_wake(fd, 0), 2);
}

TEST_F(AWait, EndsOnASignal) {
    struct sigaction action {};
    struct sigaction old {};
    action.sa_handler = [](int) { ++g_signals; };  // without SA_RESTART
    sigaction(SIGUSR1, &action, &old);
    for (const uint32_t timeout_ms : {0U, 60000U}) {
        std::atomic<bool> ended{false};
        int result = 0;
        std::thread waiter([&] {
            result = wait_for_wake(fd_, timeout_ms);
            ended = true;
        });
        // A signal may come before the thread waits; then another one does it.
        while (!ended) {
            pthread_kill(waiter.native_handle(), SIGUSR1);
            std::this_thread::yield();
        }
        waiter.join();
        EXPECT_EQ(result, -EINTR);
    }
    EXPECT_GT(g_signals, 0);
    sigaction(SIGUSR1, &old, nullptr);
    poke({"wake"});
    EXPECT_EQ(wait_for_wake(fd_, 0), 1);
}

TEST_F(AWait, TakesADelayIntoAccount) {
    here_.board.add_fault("/dev/probe ioctl:ECHO delay 2000 at 1");
    const int64_t before_ms = here_.board.now_ms();
    uint8_t record[8] = {};
    EXPECT_EQ(os_.ioctl(fd_, kEcho, record), 8);
    EXPECT_GE(here_.board.now_ms() - before_ms, 2000);
}

TEST_F(AWait, ShowsReadinessToPollUntilAllIsRead) {
    const int other = os_.open("/dev/probe", O_RDWR | O_NONBLOCK, 0);
    poke({"wait-for-letters"});
    EXPECT_EQ(readiness(fd_), 0);
    poke({"letters", "abc"});
    poke({"letters", "def"});
    EXPECT_EQ(readiness(fd_), 1);
    EXPECT_EQ(readiness(other), 1);
    char bytes[8] = {};
    EXPECT_EQ(os_.read(fd_, bytes, 4), 4);
    EXPECT_EQ(readiness(fd_), 1) << "two letters are left";
    EXPECT_EQ(os_.read(fd_, bytes, 4), 2);
    EXPECT_EQ(readiness(fd_), 0);
    // Somebody else was faster: the other descriptor finds nothing and then says so.
    EXPECT_EQ(os_.read(other, bytes, 4), -EAGAIN);
    EXPECT_EQ(readiness(other), 0);
    poke({"letters", "g"});
    EXPECT_EQ(readiness(fd_), 1);
    EXPECT_EQ(readiness(os_.open("/dev/probe", O_RDWR, 0)), 1) << "one opened late sees it too";
}

TEST_F(AWait, OfAReaderEndsWithTheFirstLetter) {
    poke({"wait-for-letters"});
    char bytes[8] = {};
    ssize_t got = 0;
    std::thread reader([&] { got = os_.read(fd_, bytes, sizeof(bytes)); });
    poke({"letters", "x"});
    reader.join();
    EXPECT_EQ(got, 1);
    EXPECT_EQ(bytes[0], 'x');
}

TEST_F(AWait, LeavesAForkedChildFreeToWork) {
    std::thread waiter([&] { wait_for_wake(fd_, 0); });
    std::atomic<bool> stop{false};
    std::thread busy([&] {
        uint8_t record[8] = {};
        while (!stop) os_.ioctl(fd_, kEcho, record);
    });
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(run_in_child([&] {
                      uint8_t record[8] = {};
                      const int fd = os_.open("/dev/probe", O_RDWR, 0);
                      const bool right =
                          os_.ioctl(fd_, kEcho, record) == 8 && os_.ioctl(fd, kEcho, record) == 8;
                      return right && wait_for_wake(fd, 100) == -ETIMEDOUT ? 0 : 1;
                  }),
                  0);
    }
    stop = true;
    busy.join();
    poke({"wake"});
    waiter.join();
}

TEST_F(AWait, WorksForManyThreadsAtOnce) {
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 300; ++i) {
                const int fd = os_.open("/dev/probe", O_RDWR, 0);
                uint8_t record[8] = {static_cast<uint8_t>(t), static_cast<uint8_t>(i), 0, 0, 0, 0, 0, 0};
                if (os_.ioctl(fd, kEcho, record) != 8 || record[7] != t || record[6] != i % 256) ++wrong;
                const int waited = wait_for_wake(fd, 10);
                if (waited != 1 && waited != -ETIMEDOUT) ++wrong;
                if (os_.close(fd) != 0) ++wrong;
            }
        });
    }
    for (int i = 0; i < 300; ++i) poke({i % 2 == 0 ? "wake" : "sleep"});
    poke({"wake"});
    for (std::thread &thread : threads) thread.join();
    EXPECT_EQ(wrong, 0);
}

TEST(BoardServing, TellsWhenToAskAgainAndForgetsItsClients) {
    OnBoard here("[chip.probe]\n");
    Board &board = here.board;
    int changes = 0;
    board.on_change({}, [&] { ++changes; });
    const uint32_t client = board.add_client(0, 77, "served");
    Request open;
    Reply reply;
    int64_t deadline_ms = 0;
    open.op = Op::kOpen;
    open.client = client;
    open.path = "/dev/probe";
    ASSERT_TRUE(board.execute(open, reply, deadline_ms));
    const uint32_t handle = reply.handle;

    Request wait;
    wait.op = Op::kIoctl;
    wait.client = client;
    wait.handle = handle;
    wait.code = kWait;
    wait.in = {0xFF, 0x7F, 0, 0};
    EXPECT_FALSE(board.execute(wait, reply, deadline_ms));
    EXPECT_GT(deadline_ms, board.now_ms());
    const int64_t first_deadline_ms = deadline_ms;
    EXPECT_FALSE(board.execute(wait, reply, deadline_ms));
    EXPECT_EQ(deadline_ms, first_deadline_ms) << "asking again does not win time";
    const int before = changes;
    board.poke(0, "/dev/probe", {"wake"});
    EXPECT_GT(changes, before);
    EXPECT_TRUE(board.execute(wait, reply, deadline_ms));
    EXPECT_EQ(reply.value, 1);

    Request stunted = wait;
    stunted.in = {1};
    stunted.waiting = {};
    EXPECT_TRUE(board.execute(stunted, reply, deadline_ms));
    EXPECT_EQ(reply.value, -EFAULT) << "a record of another size never reaches the device";

    board.remove_client(client);
    Request late;
    late.op = Op::kRead;
    late.handle = handle;
    EXPECT_TRUE(board.execute(late, reply, deadline_ms));
    EXPECT_EQ(reply.value, -EBADF);
    board.on_change({}, {});
}
