// main.cpp - what a call to another chip costs, against a raw ping-pong between two processes.
//
// The slave hands each message from its receiving thread to a worker, as the library does: three
// hand-overs where the ping-pong has two. Both are measured in turns, so that what else the machine
// does meanwhile hits both. Prints rows as bench/CMakeLists.txt describes, medians over the rounds.
#include <sched.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "os/hook.h"
#include "platform/include/osa.h"
#include "platform/include/xcc.h"

namespace {

constexpr int kRounds = 15;
constexpr int kCallsPerRound = 3000;
constexpr int kBulkCallsPerRound = 40;
constexpr size_t kSmallBytes = 64;
constexpr size_t kBulkBytes = XCC_CHANNEL_BYTES;
constexpr int32_t kProcessId = 2;
constexpr unsigned kRecords = 64;

char run_dir[64];

[[noreturn]] void give_up(const char *what) {
    fprintf(stderr, "bench-forward: %s failed\n", what);
    _exit(1);  // a child leaves its parent's output alone
}

void expect(bool condition, const char *what) {
    if (!condition) give_up(what);
}

// The cores this program may use.
std::vector<int> own_cores() {
    cpu_set_t set;
    expect(sched_getaffinity(0, sizeof set, &set) == 0, "sched_getaffinity");
    std::vector<int> cores;
    for (int core = 0; core < CPU_SETSIZE; ++core) {
        if (CPU_ISSET(core, &set)) cores.push_back(core);
    }
    return cores;
}

void run_on(const std::vector<int> &cores) {
    cpu_set_t set;
    CPU_ZERO(&set);
    for (const int core : cores) CPU_SET(core, &set);
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
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }

private:
    pid_t pid_;
};

// ---- the ping-pong ----

class PingPong {
public:
    explicit PingPong(const std::vector<int> &cores)
        : sockets_(make_pair_of_sockets()), echo_([this, &cores] { echo(cores); }) {}
    ~PingPong() {
        close(sockets_[0]);
        close(sockets_[1]);
    }

    void call(void *message, size_t bytes) const {
        expect(send(sockets_[0], message, bytes, 0) == static_cast<ssize_t>(bytes), "send");
        expect(recv(sockets_[0], message, bytes, 0) == static_cast<ssize_t>(bytes), "recv");
    }

private:
    static std::vector<int> make_pair_of_sockets() {
        int pair[2];
        expect(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) == 0, "socketpair");
        return {pair[0], pair[1]};
    }

    void echo(const std::vector<int> &cores) const {
        run_on(cores);
        char message[kSmallBytes];
        for (;;) {
            const ssize_t got = recv(sockets_[1], message, sizeof message, 0);
            if (got <= 0 || send(sockets_[1], message, static_cast<size_t>(got), 0) != got) return;
        }
    }

    std::vector<int> sockets_;
    Child echo_;
};

// ---- the channel ----

struct Slave {
    uintptr_t channel = 0;
    OSA_QueHandle records = nullptr;
    OSA_SemHandle wanted = nullptr;
};

int answer_all(OSA_TskHandle self, void *first, void *arg) {
    const auto &slave = *static_cast<const Slave *>(arg);
    for (void *record = first;;) {
        expect(OSA_semPend(slave.wanted, OSA_WAIT_FOREVER) == 0, "OSA_semPend");
        if (record == nullptr) {
            unsigned command = 0;
            expect(OSA_tskWaitMsg(self, &command, &record, OSA_WAIT_FOREVER) == 0, "OSA_tskWaitMsg");
        }
        auto *const message = static_cast<XCC_BufInfo *>(record);
        static_cast<uint8_t *>(message->addr)[0] ^= 0xFF;
        expect(XCC_put(slave.channel, message, -1) == 0, "XCC_put on the slave");
        expect(OSA_quePut(slave.records, record, 0) == 0, "OSA_quePut");
        record = nullptr;
    }
}

uintptr_t open_channel(uint32_t chip, const char *name, uint32_t peer_chip, const char *peer_name) {
    const XCC_InitParams own{chip, kProcessId, 2};
    XCC_CreateParams params{};
    XCC_BindParams peer{peer_chip, kProcessId, {}};
    snprintf(params.name, sizeof params.name, "%s", name);
    snprintf(peer.peerName, sizeof peer.peerName, "%s", peer_name);
    params.size = XCC_CHANNEL_BYTES;
    uintptr_t channel = 0;
    expect(XCC_init(&own) == 0 && XCC_create(&params, &channel) == 0, "XCC_create");
    expect(XCC_bind(channel, &peer, -1) == 0, "XCC_bind");
    return channel;
}

void serve(const std::vector<int> &cores) {
    run_on(cores);
    static XCC_BufInfo records[kRecords];
    Slave slave;
    expect(OSA_queCreate(&slave.records, kRecords) == 0, "OSA_queCreate");
    for (XCC_BufInfo &record : records) OSA_quePut(slave.records, &record, 0);
    expect(OSA_semCreate(&slave.wanted, kRecords, 0) == 0, "OSA_semCreate");
    slave.channel = open_channel(1, "slave", 0, "master");
    OSA_TskHandle worker = nullptr;
    expect(OSA_tskCreate(&worker, answer_all, 1, 0, &slave, "worker") == 0, "OSA_tskCreate");
    for (;;) {
        XCC_BufInfo message{};
        void *record = nullptr;
        expect(XCC_get(slave.channel, &message, -1) == 0, "XCC_get");
        expect(OSA_queGet(slave.records, &record, OSA_WAIT_FOREVER) == 0, "OSA_queGet");
        memcpy(record, &message, sizeof message);
        expect(OSA_tskSendMsg(worker, 0, record, 0) == 0, "OSA_tskSendMsg");
        expect(OSA_semPost(slave.wanted) == 0, "OSA_semPost");
    }
}

class Forwarding {
public:
    explicit Forwarding(const std::vector<int> &cores)
        : slave_([&cores] { serve(cores); }), channel_(open_channel(0, "master", 1, "slave")) {}
    ~Forwarding() {
        XCC_delete(channel_);
        XCC_deInit();
    }

    void call(void *message, size_t bytes) const {
        XCC_BufInfo info{};
        info.addr = message;
        info.length = static_cast<uint32_t>(bytes);
        info.waitReply = 1;
        const uint8_t before = *static_cast<uint8_t *>(message);
        expect(XCC_put(channel_, &info, -1) == 0, "XCC_put");
        expect(*static_cast<uint8_t *>(message) == static_cast<uint8_t>(before ^ 0xFF), "the answer");
    }

private:
    Child slave_;
    uintptr_t channel_;
};

// ---- measuring ----

double median(std::vector<double> values) {
    std::nth_element(values.begin(), values.begin() + static_cast<long>(values.size() / 2), values.end());
    return values[values.size() / 2];
}

double us_per_call(int calls, const std::function<void()> &call) {
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < calls; ++i) call();
    return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count() /
           calls;
}

struct Measured {
    std::vector<double> cost_us;
    std::vector<double> against_us;

    void print(const char *what, const char *against, const std::string &where) const {
        std::vector<double> ratios;
        for (size_t i = 0; i < cost_us.size(); ++i) ratios.push_back(cost_us[i] / against_us[i]);
        printf("| %s, %s | %.2f us | %s | %.2f us | %.2f |\n", what, where.c_str(), median(cost_us), against,
               median(against_us), median(ratios));
    }
};

// Alternates two ways; the first round of each only warms up.
Measured measure(int calls, const std::function<void()> &way, const std::function<void()> &against) {
    Measured measured;
    for (int round = 0; round <= kRounds; ++round) {
        const double against_us = us_per_call(calls, against);
        const double cost_us = us_per_call(calls, way);
        if (round == 0) continue;
        measured.cost_us.push_back(cost_us);
        measured.against_us.push_back(against_us);
    }
    return measured;
}

void compare(const std::vector<int> &own, const std::vector<int> &others, const std::string &where) {
    run_on(own);
    const PingPong ping_pong(others);
    const Forwarding forwarding(others);
    alignas(64) char small[kSmallBytes] = {};
    std::vector<char> bulk(kBulkBytes);
    std::vector<char> copy(kBulkBytes);

    measure(
        kCallsPerRound, [&] { forwarding.call(small, sizeof small); },
        [&] { ping_pong.call(small, sizeof small); })
        .print("64-byte call and answer over a channel", "SOCK_SEQPACKET ping-pong", where);
    measure(
        kBulkCallsPerRound, [&] { forwarding.call(bulk.data(), bulk.size()); },
        [&] {
            memcpy(copy.data(), bulk.data(), bulk.size());
            memcpy(bulk.data(), copy.data(), copy.size());
        })
        .print("1 MiB call and answer over a channel", "memcpy there and back", where);
}

qel_world make_world() {
    qel_world world{};
    world.abi = QEL_WORLD_ABI;
    world.time_scale = 1;
    world.ipc_salt = static_cast<uint32_t>(getpid());
    world.run_dir = run_dir;
    return world;
}

}  // namespace

// A run directory of its own: no application of this machine is met.
extern "C" const qel_world *qel_world_hook() {
    static const qel_world world = make_world();
    return &world;
}

int main() {
    const std::filesystem::path temporary = std::filesystem::temp_directory_path() / "qel-bench-XXXXXX";
    expect(temporary.string().size() < sizeof run_dir, "temporary directory: its path is too long; TMPDIR");
    snprintf(run_dir, sizeof run_dir, "%s", temporary.c_str());
    expect(mkdtemp(run_dir) != nullptr, "mkdtemp");

    const std::vector<int> cores = own_cores();
    compare({cores[0]}, {cores[0]}, "one core");
    if (cores.size() > 1) {
        compare({cores[0], cores[1]}, {cores[0], cores[1]}, "two cores");
        compare({cores[0]}, {cores[1]}, "each on its own core");
    }
    std::filesystem::remove_all(run_dir);
    return 0;
}
