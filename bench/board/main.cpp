// main.cpp - what a request to a virtual device costs: through the server and within the process.
//
// Through the server it is held against a raw ping-pong of two processes over the same kind of
// socket, within the process against a system call. Limits: 20 us through the server on one core, 1 us
// within the process.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <csignal>
#include <cstdlib>
#include <string>

#include "bench/measure.h"
#include "board/core/board.h"
#include "board/net/server.h"
#include "os/hook.h"
#include "qel/gpio_driver.h"

namespace {

using namespace qel::bench;

constexpr int kCallsPerRound = 3000;
constexpr size_t kRecordBytes = 8;

// One request of the gate: an output line is read, 8 bytes each way.
class GpioLine {
public:
    GpioLine() : fd_(os_.open(QEL_GPIO_DEVICE, O_RDWR, 0)) { expect(fd_ >= 0, "opening " QEL_GPIO_DEVICE); }
    void read() {
        qel_gpio_line line{1, 0};
        expect(os_.ioctl(fd_, QEL_GPIO_READ, &line) == 0, "QEL_GPIO_READ");
    }

private:
    const qel_os_ops &os_ = *qel_world_hook()->os;
    const int fd_;
};

void ping(int socket) {
    char message[kRecordBytes] = {};
    expect(send(socket, message, sizeof message, 0) == sizeof message, "send");
    expect(recv(socket, message, sizeof message, 0) == sizeof message, "recv");
}

void echo(int socket) {
    char message[kRecordBytes];
    for (;;) {
        const ssize_t got = recv(socket, message, sizeof message, 0);
        if (got <= 0 || send(socket, message, static_cast<size_t>(got), 0) != got) return;
    }
}

// Serves a board until it is killed, then cleans up.
qel::board::Server *g_server = nullptr;

void serve(const std::string &socket, int core, int ready) {
    run_on({core});
    qel::board::Board board(qel::board::find_board("box"));
    qel::board::Server server(board, socket);
    g_server = &server;
    signal(SIGTERM, [](int) { g_server->stop(); });
    expect(write(ready, "r", 1) == 1, "write");
    server.run();
}

void measure_through_server(int core, int other_core, const char *where) {
    std::string dir = "/tmp/bench-board-XXXXXX";
    expect(mkdtemp(dir.data()) != nullptr, "mkdtemp");
    const std::string socket = dir + "/server";
    int ready[2];
    int pair[2];
    expect(pipe(ready) == 0 && socketpair(AF_UNIX, SOCK_SEQPACKET, 0, pair) == 0, "pipe");
    {
        const Child server([&] { serve(socket, other_core, ready[1]); });
        const Child echoing([&] {
            run_on({other_core});
            echo(pair[1]);
        });
        char byte = 0;
        expect(read(ready[0], &byte, 1) == 1, "the server");
        // A process joins one board in its life: each figure has its own.
        int status = 0;
        const pid_t client = fork();
        if (client == 0) {
            run_on({core});
            setenv("QELBOARD_SOCKET", socket.c_str(), 1);
            GpioLine line;
            compare(
                {std::string("ioctl of a virtual device through the server, ") + where, [&] { line.read(); }},
                {"raw ping-pong", [&] { ping(pair[0]); }}, kCallsPerRound);
            _exit(0);
        }
        expect(waitpid(client, &status, 0) == client && status == 0, "the client");
    }
    unlink(socket.c_str());
    rmdir(dir.c_str());
}

void measure_in_process(int core) {
    run_on({core});
    qel::board::Board board(qel::board::find_board("box"));
    board.enter();
    GpioLine line;
    compare({"ioctl of a virtual device within the process", [&] { line.read(); }},
            {"getppid system call", [] { syscall(SYS_getppid); }}, kCallsPerRound);
}

}  // namespace

int main() {
    const Cores cores = own_cores();
    measure_through_server(cores[0], cores[0], "one core");
    if (cores.size() > 1) measure_through_server(cores[0], cores[1], "two cores");
    measure_in_process(cores[0]);
    return 0;
}
