// main.cpp - what a request to a virtual device costs: through the server and within the process.
//
// Through the server it is held against a raw ping-pong of two processes over the same kind of
// socket, within the process against a system call. All are measured in turns, so that what else the
// machine does meanwhile hits all of them. Prints rows as bench/CMakeLists.txt describes, medians
// over the rounds. Limits: 20 us through the server on one core, 1 us within the process.
#include <fcntl.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "board/core/board.h"
#include "board/net/server.h"
#include "os/hook.h"
#include "qel/gpio_driver.h"

namespace {

constexpr int kRounds = 15;
constexpr int kCalls = 3000;
constexpr size_t kRecordBytes = 8;

[[noreturn]] void give_up(const char *what) {
    fprintf(stderr, "bench-board: %s failed\n", what);
    _exit(1);
}

void expect(bool condition, const char *what) {
    if (!condition) give_up(what);
}

std::vector<int> own_cores() {
    cpu_set_t set;
    expect(sched_getaffinity(0, sizeof set, &set) == 0, "sched_getaffinity");
    std::vector<int> cores;
    for (int core = 0; core < CPU_SETSIZE; ++core) {
        if (CPU_ISSET(core, &set)) cores.push_back(core);
    }
    return cores;
}

void run_on(int core) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(core, &set);
    expect(sched_setaffinity(0, sizeof set, &set) == 0, "sched_setaffinity");
}

// A forked process that ends with its parent.
class Child {
public:
    explicit Child(const std::function<void()> &body) : pid_(fork()) {
        expect(pid_ >= 0, "fork");
        if (pid_ != 0) return;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        body();
        _exit(0);
    }
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;
    ~Child() {
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
    }

private:
    pid_t pid_;
};

double median(std::vector<double> values) {
    std::ranges::nth_element(values, values.begin() + static_cast<ptrdiff_t>(values.size() / 2));
    return values[values.size() / 2];
}

// Microseconds of one call.
double time_of(const std::function<void()> &call) {
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < kCalls; ++i) call();
    const std::chrono::duration<double, std::micro> taken = std::chrono::steady_clock::now() - start;
    return taken.count() / kCalls;
}

void compare(const char *what, const std::function<void()> &call, const char *with,
             const std::function<void()> &bare) {
    std::vector<double> calls;
    std::vector<double> bares;
    for (int i = 0; i < kRounds; ++i) {
        calls.push_back(time_of(call));
        bares.push_back(time_of(bare));
    }
    const double cost = median(calls);
    const double bare_cost = median(bares);
    printf("| %s | %.2f us | %s | %.2f us | %.2f |\n", what, cost, with, bare_cost, cost / bare_cost);
    fflush(stdout);
}

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
    run_on(core);
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
            run_on(other_core);
            echo(pair[1]);
        });
        char byte = 0;
        expect(read(ready[0], &byte, 1) == 1, "the server");
        // A process joins one board in its life: each figure has its own.
        int status = 0;
        const pid_t client = fork();
        if (client == 0) {
            run_on(core);
            setenv("QELBOARD_SOCKET", socket.c_str(), 1);
            GpioLine line;
            compare((std::string("ioctl of a virtual device through the server, ") + where).c_str(),
                    [&] { line.read(); }, "raw ping-pong", [&] { ping(pair[0]); });
            _exit(0);
        }
        expect(waitpid(client, &status, 0) == client && status == 0, "the client");
    }
    unlink(socket.c_str());
    rmdir(dir.c_str());
}

void measure_in_process(int core) {
    run_on(core);
    qel::board::Board board(qel::board::find_board("box"));
    board.enter();
    GpioLine line;
    compare(
        "ioctl of a virtual device within the process", [&] { line.read(); }, "getppid system call",
        [] { syscall(SYS_getppid); });
}

}  // namespace

int main() {
    const std::vector<int> cores = own_cores();
    measure_through_server(cores[0], cores[0], "one core");
    if (cores.size() > 1) measure_through_server(cores[0], cores[1], "two cores");
    measure_in_process(cores[0]);
    return 0;
}
