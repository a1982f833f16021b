// serial_bench.h - a serial line from both ends, for tests: the process's through the gate, and the far one
// as any program of the host has it.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>
#include <sstream>
#include <string>

#include "tests/board/probe.h"

namespace qel::test {

constexpr uint32_t kSetDirection = 0xC0044D04;
constexpr uint32_t kGetPortMap = 0xC0044D08;
constexpr uint32_t kSetLineMode = 0xC0044D20;
constexpr uint32_t kGetRs485Status = 0xC0044D29;

constexpr int kDeadlineMs = 20000;  // of waits that a fault would make endless

// The tables of port NUMBER, a plain one or with what `port_keys` say, and of its line "/dev/ttySNUMBER".
inline std::string tty(const std::string &number, const std::string &line_keys = "",
                       const std::string &port_keys = "") {
    return "[[chip.port]]\nnumber = " + number + "\n" + port_keys + "\n[[chip.tty]]\nnode = \"/dev/ttyS" +
           number + "\"\nport = " + number + "\n" + line_keys + "\n";
}

inline std::string pattern(size_t bytes) {
    std::string text;
    uint32_t state = 1;
    for (size_t i = 0; i < bytes; ++i) {
        state = state * 1664525 + 1013904223;
        text += static_cast<char>(state >> 24);
    }
    return text;
}

// The value behind a name in what the board shows of a node.
inline std::string shown(const Board &board, const std::string &node, const std::string &name) {
    std::istringstream lines(board.show(false));
    std::string line;
    while (std::getline(lines, line) && line != "  " + node) continue;
    while (std::getline(lines, line) && line.rfind("    ", 0) == 0) {
        if (line.rfind("    " + name + " ", 0) != 0) continue;
        const size_t at = line.find_first_not_of(' ', 4 + name.size());
        return at == std::string::npos ? "" : line.substr(at);
    }
    return "";
}

// One end of a line: a descriptor with calls that give up when nothing comes.
template <typename Calls>
class LineEnd {
public:
    explicit LineEnd(int opened) : fd(opened) { EXPECT_GE(fd, 0); }
    ~LineEnd() { Calls::close(fd); }
    LineEnd(const LineEnd &) = delete;
    LineEnd &operator=(const LineEnd &) = delete;

    bool write(const std::string &text) const {
        for (size_t at = 0; at < text.size();) {
            const ssize_t put = Calls::write(fd, text.data() + at, text.size() - at);
            if (put <= 0) return false;
            at += static_cast<size_t>(put);
        }
        return true;
    }
    bool wait_readable(int timeout_ms = kDeadlineMs) const {
        pollfd entry{fd, POLLIN, 0};
        return ::poll(&entry, 1, timeout_ms) > 0;
    }
    // As many bytes as come, up to `bytes`.
    std::string read(size_t bytes) const {
        std::string text(bytes, '\0');
        size_t got = 0;
        while (got < bytes && wait_readable()) {
            const ssize_t more = Calls::read(fd, &text[got], bytes - got);
            if (more <= 0) break;
            got += static_cast<size_t>(more);
        }
        text.resize(got);
        return text;
    }

    const int fd;
};

struct GateCalls {
    static ssize_t write(int fd, const void *data, size_t bytes) { return ops().write(fd, data, bytes); }
    static ssize_t read(int fd, void *data, size_t bytes) { return ops().read(fd, data, bytes); }
    static void close(int fd) { ops().close(fd); }
};
struct HostCalls {
    static ssize_t write(int fd, const void *data, size_t bytes) { return ::write(fd, data, bytes); }
    static ssize_t read(int fd, void *data, size_t bytes) { return ::read(fd, data, bytes); }
    static void close(int fd) { ::close(fd); }
};

// The process's end of a tty, in raw mode.
class Terminal : public LineEnd<GateCalls> {
public:
    explicit Terminal(const std::string &node, speed_t speed = B9600)
        : LineEnd(ops().open(node.c_str(), O_RDWR | O_NOCTTY, 0)) {
        set(speed);
    }
    void set(speed_t speed, tcflag_t bits = CS8) const {
        termios settings{};
        EXPECT_EQ(ops().term_get(fd, &settings), 0);
        cfmakeraw(&settings);
        settings.c_cflag &= ~static_cast<tcflag_t>(CSIZE | PARENB | PARODD | CSTOPB);
        settings.c_cflag |= bits;
        cfsetspeed(&settings, speed);
        EXPECT_EQ(ops().term_set(fd, TCSANOW, &settings), 0);
    }
    bool is_empty() const {
        uint32_t status = 0;
        EXPECT_EQ(ops().line_status(fd, &status), 0);
        return (status & TIOCSER_TEMT) != 0;
    }
};

// A board with the line "/dev/ttyS1", and the process's end of it.
class OneLine {
public:
    explicit OneLine(const std::string &chip_tables, const Options &options = {}, speed_t speed = B9600)
        : here(chip_tables, options), host("/dev/ttyS1", speed) {}
    std::string shows(const std::string &name) const { return shown(here.board, "/dev/ttyS1", name); }
    bool comes_to_show(const std::string &name, const std::string &value) const {
        for (int i = 0; i < kDeadlineMs && shows(name) != value; ++i) usleep(1000);
        return shows(name) == value;
    }
    int64_t poke(const std::vector<std::string> &words) {
        return here.board.poke(0, "/dev/ttyS1", words).value;
    }

    OnBoard here;
    Terminal host;
};

// A program of the host at the far end.
class FarEnd : public LineEnd<HostCalls> {
public:
    FarEnd(const Board &board, const std::string &node) : FarEnd(shown(board, node, "far end")) {}
    explicit FarEnd(const std::string &path)
        : LineEnd(::open(path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC)), path(path) {}

    const std::string path;
};

}  // namespace qel::test
