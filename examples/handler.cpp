// handler.cpp - a service of your own between the chips: the master asks the others how they are.
//
// The same program runs on every chip of the unit, under the same process name. On a slave it
// attaches a handler to a free module id and serves until it is told to stop; on the master it sends
// each slave one request. On the virtual board "twin":
//
//     qelboard run twin --dir twin.board --no-residents --chip 1 --as vesta -- qel-handler &
//     qelboard run twin --dir twin.board --no-residents --chip 0 --as vesta -- qel-handler
#include <qel/qel.h>

#include <sys/sysinfo.h>
#include <csignal>
#include <cstdio>
#include <cstring>

namespace {

// Ids above those of the library's own modules and below QEL_MODULE_IDS are free.
constexpr unsigned kStatusModule = 20;
constexpr uint32_t kReadStatus = 1;
constexpr int kAnswerTimeout_ms = 10000;

// Payload of the answer: fixed widths, since the chips need not be of one kind.
struct ChipStatus {
    uint32_t uptime_s;
    uint32_t processes;
    uint32_t memory_kib;
    uint32_t free_kib;
};
static_assert(sizeof(ChipStatus) == 16);

struct StatusRequest {
    AdapterMsg header;
    ChipStatus status;
};
static_assert(sizeof(StatusRequest) == QEL_ADAPTER_HEADER_BYTES + sizeof(ChipStatus));

// Runs on a thread of the library. Anything but 0 leaves the master without an answer.
int serve_status(AdapterMsg *message) {
    struct sysinfo facts = {};
    if (message->cmd != kReadStatus || message->length != sizeof(ChipStatus)) return -1;
    if (sysinfo(&facts) != 0) return -1;
    const auto kib = [&facts](unsigned long units) {
        return static_cast<uint32_t>(uint64_t{units} * facts.mem_unit / 1024);
    };
    const ChipStatus status = {static_cast<uint32_t>(facts.uptime), facts.procs, kib(facts.totalram),
                               kib(facts.freeram)};
    memcpy(QEL_ADAPTER_PAYLOAD(message), &status, sizeof status);
    return 0;
}

int run_on_slave(unsigned chip) {
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    sigprocmask(SIG_BLOCK, &stop, nullptr);
    if (QEL_adapterSlaveAttachProc(serve_status, kStatusModule) != 0) return 1;
    printf("chip %u serves; end it with SIGTERM\n", chip);
    fflush(stdout);
    int signal = 0;
    sigwait(&stop, &signal);
    return QEL_adapterSlaveDetachProc(kStatusModule) == 0 ? 0 : 1;
}

int run_on_master(unsigned chips) {
    int failed = 0;
    for (unsigned chip = 1; chip < chips; ++chip) {
        StatusRequest request = {};
        request.header.chip = chip;
        request.header.timeout = kAnswerTimeout_ms;
        request.header.needReply = 1;
        request.header.module = kStatusModule;
        request.header.cmd = kReadStatus;
        request.header.length = sizeof request.status;
        if (QEL_adapterMasterProc(&request.header) != 0) {
            printf("chip %u does not answer\n", chip);
            ++failed;
            continue;
        }
        printf("chip %u is up for %u s, runs %u processes, has %u of %u KiB free\n", chip,
               request.status.uptime_s, request.status.processes, request.status.free_kib,
               request.status.memory_kib);
    }
    return failed == 0 ? 0 : 1;
}

}  // namespace

int main() {
    unsigned char info[2] = {};
    if (QEL_productGetCfgNum() < 1 || QEL_getChipInfo(info) != 0 || info[0] < 2) {
        fprintf(stderr, "qel-handler: this needs a unit of several chips, such as the board twin\n");
        return 1;
    }
    if (QEL_adapterGetProcessID() < 0) {
        fprintf(stderr, "qel-handler: this needs a process name that has channels, such as vesta\n");
        return 1;
    }
    return info[1] == 0 ? run_on_master(info[0]) : run_on_slave(info[1]);
}
