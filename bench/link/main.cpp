// bench-link - the length-framed link: how fast its parser is, and what its threads cost a request and its
// reply beside the bare exchange on the same line.
#include <fcntl.h>
#include <poll.h>
#include <array>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <span>
#include <string>
#include <vector>

#include "bench/loaded_library.h"
#include "bench/measure.h"
#include "board/core/board.h"
#include "comm/commlen_frame.h"
#include "os/hook.h"
#include "qel/qel.h"

namespace {

using namespace qel::bench;
using namespace qel::commlen;

constexpr const char *kNode = "/dev/ttyS3";
constexpr const char *kBoard = R"(
name = "bench"
[[chip]]
[chip.hwid]
name = "BX-200"
[chip.misc]
[[chip.port]]
number = 3
usage = 26
[[chip.tty]]
node = "/dev/ttyS3"
port = 3
peer = { kind = "echo" }
)";

// ---- the parser ----

std::vector<uint8_t> stream_of(size_t payload_bytes) {
    constexpr size_t kStreamBytes = 1 << 20;
    std::vector<uint8_t> payload(payload_bytes);
    for (size_t i = 0; i < payload_bytes; ++i) payload[i] = static_cast<uint8_t>(i * 37);
    std::vector<uint8_t> stream;
    SequenceNumbers numbers;
    while (stream.size() < kStreamBytes) {
        std::array<uint8_t, kMaxFrameBytes> frame;
        const size_t bytes = build({numbers.next(), 0x21, payload}, frame);
        stream.insert(stream.end(), frame.begin(), frame.begin() + static_cast<ptrdiff_t>(bytes));
    }
    return stream;
}

// In the pieces in which the receive thread reads.
uint64_t parse(const std::vector<uint8_t> &stream, size_t piece_bytes) {
    Parser parser;
    uint64_t seen = 0;
    std::span<const uint8_t> rest = stream;
    while (!rest.empty()) {
        const std::span<const uint8_t> piece = rest.first(std::min(piece_bytes, rest.size()));
        parser.feed(piece, [&](const Frame &frame) { seen += frame.payload.size() + 1; });
        rest = rest.subspan(piece.size());
    }
    return seen;
}

void parser_row(size_t payload_bytes, size_t piece_bytes) {
    const std::vector<uint8_t> stream = stream_of(payload_bytes);
    std::vector<uint8_t> copy(stream.size());
    constexpr int kRounds = 15;
    std::vector<double> parse_us;
    std::vector<double> copy_us;
    std::vector<double> ratios;
    for (int round = 0; round <= kRounds; ++round) {
        copy_us.push_back(us_per_call(10, [&] {
            memcpy(copy.data(), stream.data(), stream.size());
            asm volatile("" : : "r"(copy.data()) : "memory");
        }));
        parse_us.push_back(us_per_call(10, [&] { expect(parse(stream, piece_bytes) > 0, "parse"); }));
        ratios.push_back(parse_us.back() / copy_us.back());
    }
    const auto megabytes = static_cast<double>(stream.size()) / 1e6;
    printf(
        "| link parser, payloads of %zu in pieces of %zu | %.0f MB/s | memcpy of the stream | %.0f MB/s | "
        "%.2f |\n",
        payload_bytes, piece_bytes, megabytes / median(parse_us) * 1e6, megabytes / median(copy_us) * 1e6,
        median(ratios));
}

// ---- request and reply ----

// How often a thread of this process has given up its core to wait.
long waits_of(const std::string &task) {
    std::ifstream status(task + "/status");
    for (std::string word; status >> word;) {
        if (word == "voluntary_ctxt_switches:") return status >> word ? std::stol(word) : 0;
    }
    return 0;
}

// The receive thread of the link.
std::string receive_task() {
    for (const auto &task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string name;
        std::ifstream(task.path() / "comm") >> name;
        if (name == "qel_lenRecvData") return task.path();
    }
    expect(false, "looking for the receive thread");
    return {};
}

// Of this thread and the receive thread; what the board's do is not the link's.
double waits_per_call(int calls, const std::function<void()> &call) {
    const std::string self = "/proc/thread-self";
    static const std::string receiver = receive_task();
    const long before = waits_of(self) + waits_of(receiver);
    for (int i = 0; i < calls; ++i) call();
    return static_cast<double>(waits_of(self) + waits_of(receiver) - before) / calls;
}

// The same bytes over the same line, written and waited for by one thread.
void bare_exchange(const qel_os_ops &os, int fd, const std::vector<uint8_t> &frame) {
    expect(os.write(fd, frame.data(), frame.size()) == static_cast<ssize_t>(frame.size()), "write");
    std::array<uint8_t, kMaxFrameBytes> reply;
    for (size_t got = 0; got < frame.size();) {
        pollfd entry{fd, POLLIN, 0};
        expect(os.poll(&entry, 1, 1000) == 1, "poll");
        const ssize_t more = os.read(fd, reply.data(), reply.size());
        expect(more > 0, "read");
        got += static_cast<size_t>(more);
    }
}

void exchange_rows() {
    qel::board::Board board(kBoard);
    board.enter({.chip = 0, .as = "vesta"});
    const LoadedLibrary library;
    CommLen *link = nullptr;
    expect(CALL(library, QEL_commlenCreate)(&link) == 0, "QEL_commlenCreate");
    auto *exchange = CALL(library, QEL_commlenExchange);
    CommLenMsg request{};
    request.command = 0x21;
    request.length = 8;
    const Way with_link = {"link: request and reply of 8 bytes", [&] {
                               CommLenMsg reply{};
                               reply.command = request.command;
                               expect(exchange(link, &request, &reply) == 0, "QEL_commlenExchange");
                           }};
    const qel_os_ops &os = *qel_world_hook()->os;
    const int fd = os.open(kNode, O_RDWR | O_NOCTTY, 0);
    expect(fd >= 0, "open");
    std::array<uint8_t, kMaxFrameBytes> out;
    const size_t bytes = build({1, 0x21, {request.payload, request.length}}, out);
    const std::vector<uint8_t> frame(out.begin(), out.begin() + static_cast<ptrdiff_t>(bytes));
    auto *lock = CALL(library, QEL_commlenSemLock);
    auto *unlock = CALL(library, QEL_commlenSemUnlock);
    const Way bare = {"write, poll, read", [&] { bare_exchange(os, fd, frame); }};

    constexpr int kRounds = 15;
    constexpr int kCalls = 200;
    std::vector<double> link_us, bare_us, link_waits, bare_waits;
    for (int round = 0; round <= kRounds; ++round) {
        expect(lock(link) == 0, "QEL_commlenSemLock");
        bare_waits.push_back(waits_per_call(kCalls, bare.call));
        bare_us.push_back(us_per_call(kCalls, bare.call));
        expect(unlock(link) == 0, "QEL_commlenSemUnlock");
        with_link.call();  // the receive thread is back in the port
        link_waits.push_back(waits_per_call(kCalls, with_link.call));
        link_us.push_back(us_per_call(kCalls, with_link.call));
    }
    // The library has said, without an end of line, that this board has no boot environment.
    printf("\n| %s | %.1f us | %s | %.1f us | %.2f |\n", with_link.name.c_str(), median(link_us),
           bare.name.c_str(), median(bare_us), median(link_us) / median(bare_us));
    printf("| link: waits per request and reply | %.2f | %s | %.2f | %.2f |\n", median(link_waits),
           bare.name.c_str(), median(bare_waits), median(link_waits) / median(bare_waits));
    os.close(fd);
}

}  // namespace

int main() {
    parser_row(0, 4096);
    parser_row(8, 128);
    parser_row(253, 128);
    exchange_rows();
    return 0;
}
