// port_bench.h - a board with serial ports, the library on it, and ports that close themselves.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "tests/board/serial_bench.h"
#include "tests/comm/comm_bench.h"

namespace qel::test {

// A port created on the bench's library and released at the end.
class Port {
public:
    Port(CommBench &bench, uint32_t number) {
        const CommPortDesc desc{number};
        EXPECT_EQ(CALL(*bench.library, createCommPort)(&desc, &port_), 0) << "port " << number;
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

private:
    CommPort *port_ = nullptr;
};

// An object of the tty layer, deleted at the end.
class Com {
public:
    Com(CommBench &bench, ComObjDesc desc) : bench_(bench) {
        result = CALL(*bench.library, QEL_comCreate)(&handle, &desc);
    }
    ~Com() {
        if (handle != nullptr) CALL(*bench_.library, QEL_comDelete)(handle);
    }
    Com(const Com &) = delete;
    Com &operator=(const Com &) = delete;

    int open() const {
        const ComAttribute attribute{115200, 8, 0, 0, 0};
        const int status = CALL(*bench_.library, QEL_comOpen)(handle);
        return status != 0 ? status : CALL(*bench_.library, QEL_comSetAttribute)(handle, &attribute);
    }
    int read(void *buffer, uint32_t bytes, int32_t timeout_ms) {
        request = {buffer, bytes, timeout_ms};
        return CALL(*bench_.library, QEL_comRead)(handle, &request);
    }
    int write(const std::string &text, int32_t timeout_ms) {
        request = {const_cast<char *>(text.data()), static_cast<uint32_t>(text.size()), timeout_ms};
        return CALL(*bench_.library, QEL_comWrite)(handle, &request);
    }

    ComHandle handle = nullptr;
    ComIoParam request{};  // as the last call left it
    int result = 0;

private:
    CommBench &bench_;
};

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

private:
    Board &board_;
    std::FILE *file_;
};

// The value of a member of a trace line; "" where it has none.
inline std::string member_of(const std::string &line, const std::string &name) {
    const std::string key = "\"" + name + "\":";
    size_t at = line.find(key);
    if (at == std::string::npos) return "";
    at += key.size();
    if (line[at] == '"') return line.substr(at + 1, line.find('"', at + 1) - at - 1);
    return line.substr(at, line.find_first_of(",}", at) - at);
}

}  // namespace qel::test
