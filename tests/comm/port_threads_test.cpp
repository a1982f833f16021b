// Ports under many threads: nobody's descriptor is closed under another's request, none is left behind.
#include <dirent.h>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>

#include "tests/comm/port_bench.h"

using namespace qel::test;

namespace {

constexpr int kThreads = 100;
constexpr uint32_t kPorts = 10;
constexpr auto kDuration = std::chrono::seconds(2);

// Odd ports RS-485, even ones RS-232, all with a peer that echoes.
std::string ten_ports() {
    std::string tables;
    for (uint32_t port = 0; port < kPorts; ++port)
        tables += tty(std::to_string(port), "peer = { kind = \"echo\" }",
                      port % 2 == 1 ? "direction_line = 3" : "");
    return tables;
}

int open_descriptors() {
    DIR *directory = opendir("/proc/self/fd");
    int count = 0;
    while (readdir(directory) != nullptr) ++count;
    closedir(directory);
    return count;
}

void run_threads(const std::function<void(uint32_t port, int thread)> &once) {
    const auto end = std::chrono::steady_clock::now() + kDuration;
    at_once(kThreads, [&](int i) {
        while (std::chrono::steady_clock::now() < end) once(static_cast<uint32_t>(i) % kPorts, i);
    });
}

}  // namespace

TEST(PortThreads, ThatShareOpenPortsNeverFail) {
    CommBench bench(ten_ports(), {.dir = "", .time_scale = 20});
    std::vector<std::unique_ptr<Port>> held;
    held.reserve(kPorts);
    for (uint32_t port = 0; port < kPorts; ++port) {
        held.push_back(std::make_unique<Port>(bench, port));
        ASSERT_EQ(held.back()->open(), 0);
    }
    std::atomic<int> failures = 0;
    std::atomic<int64_t> written = 0;
    std::atomic<int64_t> read = 0;
    run_threads([&](uint32_t number, int) {
        const Port port(bench, number);
        char bytes[64];
        if (port->open(port.get()) != 0) ++failures;
        const int put = port.write("twelve bytes");
        if (put != 12) ++failures;
        const int got = port->read(port.get(), bytes, sizeof bytes);
        if (got < 0) ++failures;
        if (port->close(port.get()) != 0) ++failures;
        written += put;
        read += got;
    });
    EXPECT_EQ(failures, 0) << bench.log.all().substr(0, 2000);
    // What no thread was there to read is still in the lines.
    for (const auto &port : held) {
        char bytes[256];
        for (int got = 0; (got = (*port)->read(port->get(), bytes, sizeof bytes)) > 0;) read += got;
    }
    EXPECT_GT(written, 0);
    EXPECT_EQ(read, written);
}

TEST(PortThreads, ThatOpenAndCloseUnderEachOtherLeaveNothingBehind) {
    CommBench bench(ten_ports(), {.dir = "", .time_scale = 20});
    for (uint32_t port = 0; port < kPorts; ++port) {
        const Port warm(bench, port);  // the board keeps its terminals, the library the driver's descriptor
        EXPECT_EQ(warm.open(), 0);
    }
    const int before = open_descriptors();
    std::atomic<int64_t> worked = 0;
    // Objects are created while others are about to open theirs: many requests fail, as they may.
    run_threads([&](uint32_t number, int thread) {
        const Port port(bench, number);
        char bytes[64];
        port->open(port.get());
        if (port.write("x") == 1) ++worked;
        if (thread % 3 == 0) port->purge(port.get(), QEL_COM_DISCARD_INPUT);
        port->read(port.get(), bytes, sizeof bytes);
        if (thread % 2 == 0) port->close(port.get());
    });
    EXPECT_GT(worked, 0);
    EXPECT_EQ(open_descriptors(), before);
    const OpenPort port(bench, 3);
    EXPECT_EQ(port.write("y"), 1) << "and the ports work on";
}
