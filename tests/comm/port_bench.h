// port_bench.h - a board with serial ports, the library on it, and ports that close themselves.
#pragma once

#include <cstdio>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "tests/board/serial_bench.h"
#include "tests/comm/comm_bench.h"

namespace qel::test {

// Runs `body(0)` to `body(count - 1)` at the same time, to their ends.
template <typename Body>
void at_once(int count, Body body) {
    std::vector<std::thread> threads;
    threads.reserve(static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) threads.emplace_back(body, i);
    for (std::thread &thread : threads) thread.join();
}

// A port created on the bench's library and released at the end.
class Port {
public:
    using Place = uint32_t;
    Port(CommBench &bench, uint32_t number) {
        const CommPortDesc desc{number};
        EXPECT_EQ(CALL(bench, createCommPort)(&desc, &port_), 0) << "port " << number;
    }
    ~Port() { release(); }
    Port(const Port &) = delete;
    Port &operator=(const Port &) = delete;
    // Open and at 115200 baud, 8 data bits: a raw line alone has five.
    int open() const {
        const ComAttribute attribute{115200, 8, 0, 0, 0};
        const int status = port_->open(port_);
        return status != 0 ? status : port_->setAttribute(port_, &attribute);
    }
    CommPort *operator->() const { return port_; }
    CommPort *get() const { return port_; }
    void release() {
        if (port_ != nullptr) port_->release(port_);
        port_ = nullptr;
    }
    int write(const std::string &text) const {
        return port_->write(port_, text.data(), static_cast<uint32_t>(text.size()));
    }
    // As many bytes as come while reads bring some, at most `bytes`.
    std::string read(size_t bytes) const {
        std::string text(bytes, '\0');
        size_t got = 0;
        while (got < bytes) {
            const int more = port_->read(port_, &text[got], static_cast<uint32_t>(bytes - got));
            if (more <= 0) break;
            got += static_cast<size_t>(more);
        }
        text.resize(got);
        return text;
    }
    // The same, however long they keep one waiting who reads while others write.
    std::string read_all(size_t bytes) const {
        std::string text;
        for (int reads = 0; reads < 40 && text.size() < bytes; ++reads) text += read(bytes - text.size());
        return text;
    }

private:
    CommPort *port_ = nullptr;
};

// An object of a device layer, deleted at the end.
template <typename Handle>
class LineObject {
public:
    using Place = ComObjDesc;
    LineObject(CommBench &bench, ComObjDesc desc) : bench_(bench) {
        result = function<int(Handle *, const ComObjDesc *)>("Create")(&handle, &desc);
    }
    ~LineObject() {
        if (handle != nullptr) call("Delete");
    }
    LineObject(const LineObject &) = delete;
    LineObject &operator=(const LineObject &) = delete;

    int open() const {
        const int status = open_raw();
        return status != 0 ? status : set({115200, 8, 0, 0, 0});
    }
    int open_raw() const { return call("Open"); }
    int close() const { return call("Close"); }
    int purge(uint32_t flag) const { return call("Purge", flag); }
    int set(const ComAttribute &attribute) const { return call("SetAttribute", &attribute); }
    int get(ComAttribute *attribute) const { return call("GetAttribute", attribute); }
    int read(void *buffer, uint32_t bytes, int32_t timeout_ms) {
        request = {buffer, bytes, timeout_ms};
        return call("Read", &request);
    }
    int write(const std::string &text, int32_t timeout_ms) {
        request = {const_cast<char *>(text.data()), static_cast<uint32_t>(text.size()), timeout_ms};
        return call("Write", &request);
    }
    ComPriv state() const {
        ComPriv state{};
        EXPECT_EQ(call("GetPriv", &state), 0);
        return state;
    }
    // A function of the layer, by the end of its name.
    template <typename... Arguments>
    int call(const char *name, Arguments... arguments) const {
        return function<int(Handle, Arguments...)>(name)(handle, arguments...);
    }

    Handle handle = nullptr;
    ComIoParam request{};  // as the last call left it
    int result = 0;

private:
    template <typename Function>
    Function *function(const char *name) const {
        const bool is_tty = std::is_same_v<Handle, ComHandle>;
        return bench_.function<Function>(((is_tty ? "QEL_com" : "QEL_uart") + std::string(name)).c_str());
    }
    CommBench &bench_;
};
using Com = LineObject<ComHandle>;
using Uart = LineObject<UartHandle>;

// One that is open from the start.
template <typename Object>
class Opened : public Object {
public:
    Opened(CommBench &bench, typename Object::Place place) : Object(bench, place) {
        EXPECT_EQ(this->open(), 0) << bench.log.all();
    }
};
using OpenPort = Opened<Port>;
using OpenCom = Opened<Com>;
using OpenUart = Opened<Uart>;

// The file by which the kernel's console is told whose a line is, of a board, and all that it was told.
constexpr const char *kBootFile = "[chip.files]\n\"/var/tmp/BootInfo/bootpara\" = \"\"\n";

inline std::string told_console() {
    char text[64] = {};
    const int fd = ops().open("/var/tmp/BootInfo/bootpara", O_RDONLY, 0);
    EXPECT_GE(ops().read(fd, text, sizeof(text) - 1), 0);
    ops().close(fd);
    return text;
}

// The value of a member of a trace line; "" where it has none.
inline std::string member_of(const std::string &line, const std::string &name) {
    const std::string key = "\"" + name + "\":";
    size_t at = line.find(key);
    if (at == std::string::npos) return "";
    at += key.size();
    if (line[at] == '"') return line.substr(at + 1, line.find('"', at + 1) - at - 1);
    return line.substr(at, line.find_first_of(",}", at) - at);
}

// The requests that reach the board, "NODE OPERATION [REQUEST] [DATA]", as its trace has them.
class Tracing {
public:
    explicit Tracing(Board &board) : board_(board), file_(std::tmpfile()) { board_.trace_to(file_); }
    ~Tracing() {
        board_.trace_to(nullptr);
        std::fclose(file_);
    }
    Tracing(const Tracing &) = delete;
    Tracing &operator=(const Tracing &) = delete;

    std::vector<std::string> lines() {
        board_.trace_to(nullptr);
        std::rewind(file_);
        std::vector<std::string> all;
        char line[1024];
        while (std::fgets(line, sizeof(line), file_) != nullptr) all.push_back(line);
        return all;
    }
    // The names of the driver's requests alone.
    std::vector<std::string> requests() {
        std::vector<std::string> names;
        for (const std::string &line : lines()) {
            if (const std::string name = member_of(line, "request"); !name.empty()) names.push_back(name);
        }
        return names;
    }

private:
    Board &board_;
    std::FILE *file_;
};

}  // namespace qel::test
