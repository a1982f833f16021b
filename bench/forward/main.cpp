// main.cpp - what a call to another chip costs, against a raw ping-pong between two processes.
//
// The slave hands each message from its receiving thread to a worker, as the library does: three
// hand-overs where the ping-pong has two.
#include <sys/socket.h>
#include <unistd.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "bench/measure.h"
#include "os/hook.h"
#include "platform/include/osa.h"
#include "platform/include/xcc.h"

namespace {

using namespace qel::bench;

constexpr int kCallsPerRound = 3000;
constexpr int kBulkCallsPerRound = 40;
constexpr size_t kSmallBytes = 64;
constexpr size_t kBulkBytes = XCC_CHANNEL_BYTES;
constexpr int32_t kProcessId = 2;
constexpr unsigned kRecords = 64;

char run_dir[64];

// ---- the ping-pong ----

class PingPong {
public:
    explicit PingPong(const Cores &cores)
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

    void echo(const Cores &cores) const {
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

void serve(const Cores &cores) {
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
    explicit Forwarding(const Cores &cores)
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

void measure(const Cores &own, const Cores &others, const std::string &where) {
    run_on(own);
    const PingPong ping_pong(others);
    const Forwarding forwarding(others);
    alignas(64) char small[kSmallBytes] = {};
    std::vector<char> bulk(kBulkBytes);
    std::vector<char> copy(kBulkBytes);

    compare(
        {"64-byte call and answer over a channel, " + where, [&] { forwarding.call(small, sizeof small); }},
        {"SOCK_SEQPACKET ping-pong", [&] { ping_pong.call(small, sizeof small); }}, kCallsPerRound);
    const auto copy_there_and_back = [&] {
        memcpy(copy.data(), bulk.data(), bulk.size());
        memcpy(bulk.data(), copy.data(), copy.size());
    };
    compare({"1 MiB call and answer over a channel, " + where,
             [&] { forwarding.call(bulk.data(), bulk.size()); }},
            {"memcpy there and back", copy_there_and_back}, kBulkCallsPerRound);
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

    const Cores cores = own_cores();
    measure({cores[0]}, {cores[0]}, "one core");
    if (cores.size() > 1) {
        measure({cores[0], cores[1]}, {cores[0], cores[1]}, "two cores");
        measure({cores[0]}, {cores[1]}, "each on its own core");
    }
    std::filesystem::remove_all(run_dir);
    return 0;
}
