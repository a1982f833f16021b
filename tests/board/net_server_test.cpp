// A board in another process: threads, signals, fork, kill and strangers at its socket.
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <atomic>
#include <csignal>
#include <functional>
#include <thread>

#include "board/net/wire.h"
#include "tests/board/served.h"

using namespace qel::test;

namespace {

short readiness(int fd) {
    pollfd one{fd, POLLIN, 0};
    return poll(&one, 1, 0) == 1 ? one.revents : 0;
}

// A handler that does nothing; `flags` as sigaction takes them.
class Handled {
public:
    explicit Handled(int flags) {
        struct sigaction action {};
        action.sa_handler = [](int) {};
        action.sa_flags = flags;
        sigaction(SIGUSR1, &action, &old_);
    }
    ~Handled() { sigaction(SIGUSR1, &old_, nullptr); }

private:
    struct sigaction old_ {};
};

// Sends the signal again and again until the body is done.
class Pestered {
public:
    explicit Pestered(const std::function<void()> &body)
        : thread_([this, body] {
              body();
              done_ = true;
          }) {}
    void pester() {
        while (!done_) {
            pthread_kill(thread_.native_handle(), SIGUSR1);
            usleep(200);
        }
        thread_.join();
    }

private:
    std::atomic<bool> done_{false};
    std::thread thread_;
};

}  // namespace

TEST(Server, ServesThreadsWhileOneWaits) {
    const Served board;
    const auto link = board.join();
    Session session(*link);
    std::atomic<int64_t> woken{-1};
    std::thread waiter([&] { woken = session.wait(); });
    std::vector<std::thread> others;
    std::atomic<int> answered{0};
    for (int i = 0; i < 4; ++i) {
        others.emplace_back([&] {
            Session own(*link);
            for (int n = 0; n < 200; ++n) answered += own.echo() == 8 && session.echo() == 8 ? 1 : 0;
        });
    }
    for (std::thread &thread : others) thread.join();
    EXPECT_EQ(answered, 800);
    EXPECT_EQ(woken, -1);
    board.poke({"wake"});
    waiter.join();
    EXPECT_EQ(woken, 1);
}

TEST(Server, KeepsTheDeadlinesOfDevicesInTheBoardsTime) {
    const Served board("", 100);
    const auto link = board.join();
    EXPECT_EQ(link->welcome().time_scale, 100u);
    Session session(*link);
    EXPECT_EQ(session.wait(5000), -ETIMEDOUT);
}

TEST(Server, WithdrawsARequestThatASignalInterrupts) {
    const Served board;
    const auto link = board.join();
    Session session(*link);
    board.poke({"wait-for-letters"});
    const Handled handled(0);
    int64_t interrupted = 0;
    Pestered([&] { interrupted = session.call(Op::kRead, 0, {}, 10).value; }).pester();
    EXPECT_EQ(interrupted, -EINTR);
    board.poke({"letters", "ab"});  // nobody waits for them any more
    EXPECT_EQ(session.call(Op::kRead, 0, {}, 10).out, (Buffer{'a', 'b'}));
}

// Device and signal race: whoever is first, no letter is lost and none comes twice.
TEST(Server, LosesNothingBetweenASignalAndAnAnswer) {
    constexpr int kLetters = 150;
    const Served board;
    const auto link = board.join();
    Session session(*link);
    board.poke({"wait-for-letters"});
    const Handled handled(0);
    std::atomic<int> got{0};
    std::thread writer([&] {
        for (int i = 0; i < kLetters; ++i) board.poke({"letters", "x"});
    });
    Pestered([&] {
        while (got < kLetters) {
            const Reply reply = session.call(Op::kRead, 0, {}, 1);
            if (reply.value > 0)
                got += static_cast<int>(reply.out.size());
            else if (reply.value != -EINTR)
                break;
        }
    }).pester();
    writer.join();
    EXPECT_EQ(got, kLetters);
    EXPECT_EQ(readiness(session.fd), 0);
}

TEST(Server, LetsARequestGoOnAfterAHandlerThatRestarts) {
    const Served board;
    const auto link = board.join();
    Session session(*link);
    const Handled handled(SA_RESTART);
    std::atomic<int64_t> result{-1};
    std::thread waiter([&] { result = session.wait(); });
    for (int i = 0; i < 20; ++i) {
        pthread_kill(waiter.native_handle(), SIGUSR1);
        usleep(500);
    }
    EXPECT_EQ(result, -1);
    board.poke({"wake"});
    waiter.join();
    EXPECT_EQ(result, 1);
}

TEST(Server, MakesTheDescriptorReadableExactlyWhileThereIsSomethingToRead) {
    const Served board;
    const auto link = board.join();
    Session first(*link);
    EXPECT_EQ(readiness(first.fd), 0);
    board.poke({"letters", "abc"});
    EXPECT_EQ(readiness(first.fd), POLLIN);
    Session late(*link);  // readable from its opening on
    EXPECT_EQ(readiness(late.fd), POLLIN);
    EXPECT_EQ(first.call(Op::kRead, 0, {}, 2).value, 2);
    EXPECT_EQ(readiness(first.fd), POLLIN);
    EXPECT_EQ(first.call(Op::kRead, 0, {}, 2).value, 1);
    EXPECT_EQ(readiness(first.fd), 0);
}

// The board is changed by a thread of its own process: tokens and answers still come in order.
TEST(Server, HearsOfChangesFromOtherThreads) {
    add_device_class(kProbeClass);
    const std::string dir = temporary_dir();
    Board board("name = \"test\"\n[[chip]]\n[chip.probe]\n");
    Server server(board, dir + "/server");
    std::thread loop([&] { server.run(); });
    std::string error;
    const auto link = connect_to_server(dir + "/server", 0, error);
    ASSERT_NE(link, nullptr) << error;
    {
        Session session(*link);
        board.poke(0, "/dev/probe", {"wait-for-letters"});
        for (int i = 0; i < 300; ++i) {
            std::thread writer([&] { board.poke(0, "/dev/probe", {"letters", "x"}); });
            EXPECT_EQ(session.call(Op::kRead, 0, {}, 1).value, 1);
            writer.join();
        }
        EXPECT_EQ(readiness(session.fd), 0);
    }
    server.stop();
    loop.join();
    std::filesystem::remove_all(dir);
}

TEST(Server, MovesPayloadsOfEverySize) {
    const Served board("bytes = 4194304");
    const auto link = board.join();
    Session session(*link);
    for (const size_t bytes :
         {size_t{1}, wire::kInlineBytes, wire::kInlineBytes + 1, size_t{1} << 20, size_t{1} << 22}) {
        Buffer sent(bytes);
        for (size_t i = 0; i < bytes; ++i) sent[i] = static_cast<uint8_t>(i * 13 + (i >> 9) + bytes);
        ASSERT_EQ(session.rewind(), 0);
        EXPECT_EQ(session.call(Op::kWrite, 0, sent).value, static_cast<int64_t>(bytes));
        ASSERT_EQ(session.rewind(), 0);
        const Reply reply = session.call(Op::kRead, 0, {}, static_cast<uint32_t>(bytes));
        EXPECT_EQ(reply.value, static_cast<int64_t>(bytes));
        EXPECT_TRUE(reply.out == sent) << bytes;
    }
    ASSERT_EQ(session.rewind(), 0);
    EXPECT_EQ(session.call(Op::kRead, 0, {}, 0xFFFFFFFF).value, 1 << 22);
    Request long_path;
    long_path.op = Op::kOpen;
    long_path.path.assign(5000, 'x');
    Reply reply;
    EXPECT_EQ(link->open(long_path, reply), -ENAMETOOLONG);
}

TEST(Server, AForkedChildUsesWhatItsParentOpened) {
    const Served board;
    const auto link = board.join();
    std::thread([&] { Session(*link).echo(); }).join();  // a second connection lies idle
    // The child opens, forks once more and is killed; the grandchild goes on with the descriptor.
    int done[2];
    ASSERT_EQ(pipe(done), 0);
    const int child = fork_child();
    if (child == 0) {
        Session session(*link);
        if (fork_child() == 0) {
            while (getppid() == child || getppid() == static_cast<int>(getpid())) usleep(1000);
            usleep(50000);
            const char result = session.echo() == 8 ? 'y' : 'n';
            _exit(write(done[1], &result, 1) == 1 ? 0 : 1);
        }
        kill(getpid(), SIGKILL);
    }
    EXPECT_EQ(wait_for_child(child, 10000), 128 + SIGKILL);
    EXPECT_GE(board.open_count(), 0);
    close(done[1]);
    char result = 0;
    EXPECT_EQ(read(done[0], &result, 1), 1);
    close(done[0]);
    EXPECT_EQ(result, 'y');
    EXPECT_TRUE(board.reaches_open_count(0));
    EXPECT_EQ(Session(*link).echo(), 8);  // the parent never noticed
}

TEST(Server, ForgetsWhatAKilledProcessHeld) {
    const Served board;
    for (int i = 0; i < 10; ++i) {
        const int child = fork_child();
        if (child == 0) {
            const auto link = board.join();
            const Session held(*link);
            Session waiting(*link);
            waiting.wait();
            _exit(0);
        }
        EXPECT_TRUE(board.reaches_open_count(2));
        kill(child, SIGKILL);
        EXPECT_EQ(wait_for_child(child, 10000), 128 + SIGKILL);
        EXPECT_TRUE(board.reaches_open_count(0));
    }
    board.poke({"wake"});  // asks parked requests again: there must be none
    const auto link = board.join();
    EXPECT_EQ(Session(*link).wait(), 1);
}

TEST(Server, EndsProcessesWhenThePowerIsCut) {
    const Served board;
    EXPECT_EQ(board.command({"fault", "/dev/probe power-cut at 2 torn 1"}), "");
    const int waiter = fork_child();
    if (waiter == 0) {
        const auto link = board.join();
        end_child(static_cast<int>(Session(*link).wait()));
    }
    EXPECT_TRUE(board.reaches_open_count(1));
    const int writer = fork_child();
    if (writer == 0) {
        const auto link = board.join();
        Session session(*link);
        for (int i = 0; i < 2; ++i) session.call(Op::kWrite, 0, {1, 2});
        end_child(0);
    }
    EXPECT_EQ(wait_for_child(writer, 10000), 128 + SIGKILL);
    EXPECT_EQ(wait_for_child(waiter, 10000), 128 + SIGKILL);
    EXPECT_NE(board.command({"power-on"}), "");
    EXPECT_EQ(board.command({"power-on"}), "");  // was on
    const auto link = board.join();
    Session session(*link);
    EXPECT_EQ(session.call(Op::kRead, 0, {}, 4).out, (Buffer{1, 2, 1, 0xFF}));
}

TEST(Server, ItsEndIsAnErrorForItsClients) {
    Served board;
    const auto link = board.join();
    Session session(*link);
    std::atomic<int64_t> result{-1};
    std::thread waiter([&] { result = session.wait(); });
    EXPECT_EQ(session.echo(), 8);
    board.stop();
    waiter.join();
    EXPECT_EQ(result, -ENODEV);
    EXPECT_EQ(session.echo(), -ENODEV);
    EXPECT_TRUE(readiness(session.fd) & POLLHUP);
    std::string error;
    EXPECT_EQ(connect_to_server(board.socket(), 0, error), nullptr);
    EXPECT_NE(error.find("no board answers at"), std::string::npos) << error;
}

TEST(Server, TwoBoardsDoNotMeet) {
    const Served one;
    const Served other(std::string(), 1, "/" + std::string(120, 'd'));  // more than a socket's name holds
    const auto link = one.join();
    const auto other_link = other.join();
    EXPECT_NE(link->welcome().run_dir, other_link->welcome().run_dir);
    EXPECT_NE(link->welcome().root_dir, other_link->welcome().root_dir);
    EXPECT_NE(link->welcome().ipc_salt, other_link->welcome().ipc_salt);
    Session session(*link);
    Session other_session(*other_link);
    one.poke({"wake"});
    EXPECT_EQ(session.wait(), 1);
    EXPECT_EQ(other_session.wait(1), -ETIMEDOUT);
}

TEST(Server, RefusesWhoDoesNotFit) {
    const Served board;
    std::string error;
    EXPECT_EQ(connect_to_server(board.socket(), 1, error), nullptr);
    EXPECT_EQ(error, "board test has no chip 1, its chips are 0 to 0");
    EXPECT_EQ(board.command({"open", "sesame"}).rfind("refused: \"open\" is no command", 0), 0u);
    EXPECT_EQ(board.command({"fault", "nonsense"}).rfind("refused: ", 0), 0u);
    EXPECT_EQ(board.command({"poke", "7", "/dev/probe", "wake"}).rfind("refused: there is no chip 7", 0), 0u);
    EXPECT_EQ(board.command({"poke", "0", "/dev/nothing", "wake"}).rfind("refused: ", 0), 0u);
}

// Whatever a stranger sends ends the stranger's connection and nothing else.
TEST(Server, OutlivesStrangers) {
    const Served board;
    const auto link = board.join();
    Session session(*link);

    wire::Hello hello;
    hello.fingerprint = class_fingerprint();
    OutPacket greeting;
    wire::put_hello(greeting, hello);
    OutPacket future;
    wire::put_hello(future, hello);
    future.bytes[12] ^= 1;  // another version
    Request waiting;
    waiting.op = Op::kIoctl;
    waiting.handle = session.handle;
    waiting.code = kWait;
    waiting.in = {0, 0, 0, 0};
    OutPacket wait;
    wire::put_request(wait, 1, waiting);
    OutPacket cut = OutPacket();
    cut.bytes.assign(wait.bytes.begin(), wait.bytes.end() - 1);
    OutPacket noise;
    for (int i = 0; i < 300; ++i) noise.bytes.push_back(static_cast<uint8_t>(i * 31));
    OutPacket huge;
    huge.bytes.assign(kPacketBytes + 1, 1);
    OutPacket control;
    const std::string words[] = {"stop"};
    wire::put_control(control, words);

    const std::vector<std::vector<const OutPacket *>> visits = {
        {},
        {&noise},
        {&huge},
        {&wait},     // before any greeting
        {&control},  // likewise: must not stop it
        {&future},
        {&greeting, &noise},
        {&greeting, &greeting},
        {&greeting, &cut},
        {&greeting, &huge},
        {&greeting, &wait, &wait},  // a second request while the first one waits
        {&greeting, &control},      // a process's connection takes no commands
    };
    for (const auto &visit : visits) {
        UniqueFd stranger(connect_socket(board.socket()));
        ASSERT_TRUE(stranger.is_open());
        for (const OutPacket *packet : visit) send_packet(stranger.get(), *packet);
        InPacket in;
        if (!visit.empty()) {
            while (receive_packet(stranger.get(), in) == 0) continue;  // a welcome or a refusal, then the end
        }
        EXPECT_EQ(session.echo(), 8);
    }
    EXPECT_EQ(board.open_count(), 1);
}
