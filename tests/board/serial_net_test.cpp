// Serial lines of a board behind a server: every process opens the same ptys, and one that is killed leaves
// nothing behind.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <thread>

#include "tests/board/serial_bench.h"
#include "tests/board/served.h"

using namespace qel::test;

namespace {

const std::string kLines = "\n[chip.misc]\n" + tty("1", "peer = { kind = \"echo\" }") + tty("2") +
                           "[[chip.uart]]\nnumber = 3\npeer = { kind = \"echo\" }\n";

// A line opened over a link, as the gate does it.
class RemoteLine : public LineEnd<HostCalls> {
public:
    RemoteLine(Link &link, const std::string &node) : RemoteLine(link, open(link, node)) {}
    ~RemoteLine() { link_.closing(handle_); }
    Reply term(TermOp op, uint64_t written = 0) {
        Request request;
        request.op = Op::kTerm;
        request.handle = handle_;
        request.code = static_cast<uint32_t>(op);
        const TermAction action{static_cast<uint32_t>(written), static_cast<uint32_t>(written >> 32), 0};
        const auto *first = reinterpret_cast<const uint8_t *>(&action);
        request.in.assign(first, first + sizeof action);
        Reply reply;
        link_.call(request, reply);
        return reply;
    }

private:
    struct Line {
        int fd;
        uint32_t handle;
    };
    RemoteLine(Link &link, const Line &opened) : LineEnd(opened.fd), handle_(opened.handle), link_(link) {}
    static Line open(Link &link, const std::string &node) {
        Request request;
        request.op = Op::kOpen;
        request.path = node;
        request.code = O_RDWR;
        Reply reply;
        EXPECT_EQ(link.open(request, reply), 0);
        EXPECT_EQ(reply.opened, Opened::kTty);
        const int fd = ::open(reply.path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
        termios settings{};
        EXPECT_EQ(tcgetattr(fd, &settings), 0);
        cfmakeraw(&settings);
        EXPECT_EQ(tcsetattr(fd, TCSANOW, &settings), 0);
        return {fd, reply.handle};
    }
    const uint32_t handle_;
    Link &link_;
};

// Opens of a node, as the board counts them.
int opens_of(const Served &served, const std::string &node) {
    std::istringstream lines(served.command({"show"}));
    for (std::string line; std::getline(lines, line);) {
        if (line.find(node + " ") != std::string::npos) return std::stoi(line.substr(line.rfind(' ')));
    }
    return -1;
}

}  // namespace

TEST(SerialNet, LinesWorkForEveryProcessAndOutliveAKilledOne) {
    const Served served(kLines);
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t killed = fork();
    if (killed == 0) {
        std::string error;
        const auto link = connect_to_server(served.socket(), 0, error);
        const RemoteLine one(*link, "/dev/ttyS1");
        const RemoteLine two(*link, "/dev/ttyS2");
        if (!two.write("from the one to be killed") || write(ready[1], "r", 1) != 1) _exit(1);
        for (;;) pause();
    }
    char byte = 0;
    ASSERT_EQ(read(ready[0], &byte, 1), 1);
    EXPECT_EQ(opens_of(served, "/dev/ttyS2"), 1);
    ASSERT_EQ(kill(killed, SIGKILL), 0);
    ASSERT_EQ(waitpid(killed, nullptr, 0), killed);
    for (int i = 0; i < 1000 && opens_of(served, "/dev/ttyS2") != 0; ++i) usleep(5000);
    EXPECT_EQ(opens_of(served, "/dev/ttyS1"), 0);
    EXPECT_EQ(opens_of(served, "/dev/ttyS2"), 0);

    const auto link = served.join();
    RemoteLine line(*link, "/dev/ttyS1");
    const std::string sent = pattern(200000);
    std::thread writer([&] { EXPECT_TRUE(line.write(sent)); });
    EXPECT_TRUE(line.read(sent.size()) == sent);
    writer.join();
    EXPECT_EQ(line.term(TermOp::kDrain, sent.size()).value, 0);
    const Reply status = line.term(TermOp::kLineStatus, sent.size());
    ASSERT_EQ(status.out.size(), 4U);
    EXPECT_EQ(status.out[0], 1);
    // More than was ever written: what a flush of another process discarded is not waited for without end.
    EXPECT_EQ(line.term(TermOp::kDrain, sent.size() + 5).value, 0);
    close(ready[0]);
    close(ready[1]);
}

TEST(SerialNet, AUartReadsWhatItsPeerSendsThroughTheServer) {
    const Served served(kLines);
    const auto link = served.join();
    Request request;
    request.op = Op::kOpen;
    request.path = "/dev/qecUart3";
    Reply reply;
    const int fd = link->open(request, reply);
    ASSERT_GE(fd, 0);
    const auto ask = [&](uint32_t code, Buffer in) {
        Request one;
        one.op = Op::kIoctl;
        one.handle = reply.handle;
        one.code = code;
        one.in = std::move(in);
        Reply answer;
        link->call(one, answer);
        return answer;
    };
    EXPECT_EQ(ask(0xC0044D72, {}).value, 0);
    EXPECT_EQ(ask(0xC0044D80, {1, 0, 0, 0, 20, 0, 0, 0}).value, 0) << "nothing there";
    EXPECT_EQ(ask(0xC0044D71, {2, 0, 0, 0, 0, 0, 0, 0, 'h', 'i'}).value, 2);
    std::string got;
    while (got.size() < 2 && ask(0xC0044D80, {1, 0, 0, 0, 0x20, 0x4E, 0, 0}).value > 0) {
        const Reply part = ask(0xC0044D70, {2, 0, 0, 0, 0, 0, 0, 0});
        got.append(part.out.begin(), part.out.end());
    }
    EXPECT_EQ(got, "hi");
    close(fd);
}
