// bench-serial - what a port costs beside bare calls on the same pseudo-terminal: bytes there and back, and
// the turn-rounds of an RS-485 frame. The bytes go through a terminal of this program's own: a line of the
// board would add what its wire, which knows when a byte has left, costs a drain. Prints rows as
// bench/CMakeLists.txt describes. Limits: 90 % of the bare rate for pieces of 1 KiB, 50 us for the
// turn-rounds beyond 1 ms and the drain.
#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <memory>

#include "bench/loaded_library.h"
#include "bench/measure.h"
#include "board/core/board.h"
#include "board/core/chip.h"
#include "board/core/description.h"
#include "os/hook.h"
#include "platform/include/osa.h"
#include "qel/qel.h"

namespace {

using namespace qel::bench;

constexpr const char *kBoard = R"(
name = "bench"
[[chip]]
[chip.hwid]
name = "BX-200"
[chip.misc]
[[chip.port]]
number = 1
[chip.own_tty]
[[chip.port]]
number = 2
direction_line = 5
[[chip.tty]]
node = "/dev/ttyS2"
port = 2
[[chip.tty]]
node = "/dev/ttyS3"
)";

// A terminal with its far end.
class OwnTerminal {
public:
    OwnTerminal() : far_(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {
        expect(far_ >= 0 && grantpt(far_) == 0 && unlockpt(far_) == 0, "posix_openpt");
        std::array<char, 64> name{};
        expect(ptsname_r(far_, name.data(), name.size()) == 0, "ptsname");
        path = name.data();
    }
    ~OwnTerminal() { close(far_); }
    OwnTerminal(const OwnTerminal &) = delete;
    OwnTerminal &operator=(const OwnTerminal &) = delete;

    // Sends back what comes, until that was so much.
    void echo(size_t bytes) const {
        std::array<uint8_t, 4096> piece;
        for (size_t done = 0; done < bytes;) {
            pollfd entry{far_, POLLIN, 0};
            expect(poll(&entry, 1, 1000) == 1, "far poll");
            const ssize_t got = read(far_, piece.data(), piece.size());
            expect(got > 0 && write(far_, piece.data(), static_cast<size_t>(got)) == got, "echo");
            done += static_cast<size_t>(got);
        }
    }

    std::string path;

private:
    const int far_;
};

OwnTerminal *own_terminal;

// "/dev/ttyS1" of the board: that terminal, and nothing more.
class OwnTty final : public qel::board::Device {
public:
    using Device::Device;
    std::string tty_path() const override { return own_terminal->path; }
    qel::board::Answer term(qel::board::Handle &, qel::board::TermOp op, qel::board::Bytes) override {
        return op == qel::board::TermOp::kGet ? qel::board::Answer::fail(ENODATA) : qel::board::Answer::ok();
    }
};

const qel::board::DeviceClass kOwnTtyClass = {"own_tty",
                                              "a terminal of this program's",
                                              {},
                                              [](qel::board::Chip &chip, const qel::board::Description &) {
                                                  chip.add("/dev/ttyS1", std::make_unique<OwnTty>(chip));
                                              }};

const ComAttribute kSettings = {115200, 8, QEL_COM_PARITY_NONE, QEL_COM_ONE_STOP_BIT, 0};

CommPort *open_port(const LoadedLibrary &library, uint32_t number) {
    CommPort *port = nullptr;
    const CommPortDesc desc{number};
    expect(CALL(library, createCommPort)(&desc, &port) == 0, "createCommPort");
    expect(port->open(port) == 0, "open");
    expect(port->setAttribute(port, &kSettings) == 0, "setAttribute");
    return port;
}

int open_bare(const qel_os_ops &os, const char *node) {
    const int fd = os.open(node, O_RDWR | O_NOCTTY, 0);
    expect(fd >= 0, "open of the bare line");
    termios settings{};
    expect(os.term_get(fd, &settings) == 0, "term_get");
    cfmakeraw(&settings);
    cfsetspeed(&settings, B115200);
    expect(os.term_set(fd, TCSANOW, &settings) == 0, "term_set");
    return fd;
}

// A piece to the echo and back.
void through_port(CommPort *port, size_t bytes) {
    std::array<uint8_t, 4096> piece{};
    expect(port->write(port, piece.data(), static_cast<uint32_t>(bytes)) == static_cast<int>(bytes), "write");
    own_terminal->echo(bytes);
    for (size_t got = 0; got < bytes;) {
        const int more = port->read(port, piece.data(), static_cast<uint32_t>(bytes - got));
        expect(more > 0, "read");
        got += static_cast<size_t>(more);
    }
}

void through_line(const qel_os_ops &os, int fd, size_t bytes) {
    std::array<uint8_t, 4096> piece{};
    expect(os.write(fd, piece.data(), bytes) == static_cast<ssize_t>(bytes), "bare write");
    own_terminal->echo(bytes);
    for (size_t got = 0; got < bytes;) {
        pollfd entry{fd, POLLIN, 0};
        expect(os.poll(&entry, 1, 1000) == 1, "bare poll");
        const ssize_t more = os.read(fd, piece.data(), bytes - got);
        expect(more > 0, "bare read");
        got += static_cast<size_t>(more);
    }
}

void rate_row(CommPort *port, const qel_os_ops &os, size_t bytes) {
    const int fd = open_bare(os, "/dev/ttyS1");
    // Short rounds: where the kernel runs what moves a pty's bytes changes from one moment to the next.
    const Rounds rounds =
        measure([&] { through_port(port, bytes); }, [&] { through_line(os, fd, bytes); }, 50, 301);
    const auto rate = [=](double cost_us) { return 2 * static_cast<double>(bytes) / cost_us; };
    printf(
        "| a port's write and read, pieces of %zu bytes | %.1f MB/s | bare on the same pty | %.1f MB/s | "
        "%.2f |\n",
        bytes, rate(rounds.cost_us()), rate(rounds.with_cost_us()), 1 / rounds.ratio());
    os.close(fd);
}

void turn_round_row(CommPort *port, const qel_os_ops &os) {
    constexpr int kFrames = 400;
    constexpr size_t kFrameBytes = 16;
    const std::array<uint8_t, kFrameBytes> frame{};
    const int fd = open_bare(os, "/dev/ttyS3");
    std::vector<double> frames_us;
    std::vector<double> bare_us;
    for (int i = 0; i < kFrames; ++i) {
        frames_us.push_back(us_per_call(1, [&] {
            expect(port->write(port, frame.data(), kFrameBytes) == static_cast<int>(kFrameBytes), "frame");
        }));
        bare_us.push_back(us_per_call(1, [&] {
            OSA_sleepMs(1);
            expect(os.write(fd, frame.data(), kFrameBytes) == static_cast<ssize_t>(kFrameBytes),
                   "bare frame");
            expect(os.term_drain(fd) == 0, "bare drain");
        }));
    }
    os.close(fd);
    const double overhead_us = median(frames_us) - median(bare_us);
    printf(
        "| RS-485 frame of %zu bytes: %.1f us over 1 ms, write and drain (at most 50) | %.2f us | bare | "
        "%.2f us | %.2f |\n",
        kFrameBytes, overhead_us, median(frames_us), median(bare_us), median(frames_us) / median(bare_us));
}

}  // namespace

int main() {
    OwnTerminal terminal;
    own_terminal = &terminal;
    qel::board::add_device_class(kOwnTtyClass);
    qel::board::Board board(kBoard);
    board.enter({.chip = 0, .as = "vesta"});
    const LoadedLibrary library;
    const qel_os_ops &os = *qel_world_hook()->os;
    CommPort *port = open_port(library, 1);
    CommPort *frames = open_port(library, 2);
    rate_row(port, os, 1024);
    rate_row(port, os, 64);
    turn_round_row(frames, os);
    port->release(port);
    frames->release(frames);
    return 0;
}
