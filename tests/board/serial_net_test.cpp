// Serial lines of a board behind a server: every process opens the same ptys, and one that is killed leaves
// nothing behind.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <array>
#include <random>
#include <span>
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

// What comes over a socket is whatever a client makes up.
TEST(SerialNet, ModelsStandAnyRequest) {
    Board board("name = \"t\"\n[[chip]]\n" + kLines.substr(1) +
                    "[chip.mcu]\nrfid_reply = \"06\"\nraw = { peer = { kind = \"controller\" } }\n"
                    "channel = [{ number = 1, peer = { kind = \"script\", script = [\"expect ..\", \"reply "
                    "01\"] } }]\n",
                {.dir = "", .time_scale = 100});
    board.add_fault("/dev/* line delay 1 every 7");
    board.add_fault("/dev/* line double every 11");
    std::mt19937 generator(7);
    const auto random = [&](size_t below) { return static_cast<uint32_t>(generator() % below); };
    const auto bytes = [&](size_t count) {
        constexpr std::array<uint32_t, 8> kEdges = {0, 1, 3, 24, 1024, 65536, 0x7FFFFFFF, 0xFFFFFFFF};
        Buffer out(count + 3);
        for (size_t at = 0; at < count; at += 4) {
            const uint32_t word = random(2) == 0 ? kEdges[random(kEdges.size())] : random(12);
            memcpy(&out[at], &word, sizeof word);
        }
        out.resize(count);
        return out;
    };
    const uint32_t client = board.add_client(0, 1, "fuzz");
    const auto ask = [&](Request request) {
        request.client = client;
        request.nonblocking = true;
        Reply reply;
        int64_t deadline_ms = -1;
        board.execute(request, reply, deadline_ms);
        return reply;
    };
    for (const char *path : {"/dev/qecMcu", "/dev/qecUart3", "/dev/qecMisc", "/dev/ttyS1"}) {
        const std::span<const RequestSpec> specs = board.chip(0).find_node(path)->device_class->requests;
        Request open;
        open.op = Op::kOpen;
        open.path = path;
        const Reply opened = ask(open);
        ASSERT_EQ(opened.value, 0) << path;
        for (int i = 0; i < 10000; ++i) {
            Request request;
            request.handle = opened.handle;
            if (specs.empty()) {
                request.op = Op::kTerm;
                request.code = random(8);
                request.in = bytes(random(2) == 0 ? 24 : random(30));
            } else {
                const RequestSpec &spec = specs[random(specs.size())];
                request.op = Op::kIoctl;
                request.code = spec.code;
                request.in = bytes(spec.pack != nullptr ? random(60) : spec.in_bytes);
            }
            ask(request);
        }
        EXPECT_FALSE(board.show(false).empty());
    }
    board.take_events();
    board.take_misuses();
}
