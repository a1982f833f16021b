// served.h - a board with the probe on it, served by a child process.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <span>
#include <sstream>
#include <string>
#include <vector>

#include "board/net/client.h"
#include "board/net/server.h"
#include "tests/board/probe.h"
#include "tests/support/library.h"

namespace qel::test {

inline std::string temporary_dir() {
    std::string path = (std::filesystem::temp_directory_path() / "qelnet-XXXXXX").string();
    if (mkdtemp(path.data()) == nullptr) abort();
    return path;
}

// Make it before this process starts threads.
class Served {
public:
    explicit Served(const std::string &probe_keys = "", uint32_t time_scale = 1,
                    const std::string &folder = "")
        : dir_(temporary_dir()), socket_(dir_ + folder + "/server") {
        add_device_class(kProbeClass);
        std::filesystem::create_directories(dir_ + folder);
        int ready[2];
        if (pipe(ready) != 0) abort();
        server_ = fork_child();
        if (server_ == 0) {
            Board board("name = \"test\"\n[[chip]]\n[chip.probe]\n" + probe_keys + "\n",
                        {.dir = "", .time_scale = time_scale});
            Server server(board, socket_);
            if (write(ready[1], "r", 1) != 1) _exit(1);
            server.run();
            end_child(0);
        }
        close(ready[1]);
        char byte = 0;
        EXPECT_EQ(read(ready[0], &byte, 1), 1) << "the server did not start";
        close(ready[0]);
    }
    ~Served() {
        stop();
        std::filesystem::remove_all(dir_);
    }
    Served(const Served &) = delete;
    Served &operator=(const Served &) = delete;

    void stop() {
        if (server_ < 0) return;
        EXPECT_EQ(command({"stop"}), "");
        EXPECT_EQ(wait_for_child(server_, 10000), 0);
        server_ = -1;
    }
    const std::string &socket() const { return socket_; }
    std::unique_ptr<Link> join() const {
        std::string error;
        auto link = connect_to_server(socket_, 0, error);
        EXPECT_NE(link, nullptr) << error;
        return link;
    }
    std::string command(const std::vector<std::string> &words) const {
        std::string text;
        const auto link = ControlLink::connect(socket_, text);
        if (link == nullptr) return text;
        std::string answer;
        return link->call(words, answer) ? answer : "refused: " + answer;
    }
    void poke(std::vector<std::string> words) const {
        words.insert(words.begin(), {"poke", "0", "/dev/probe"});
        EXPECT_EQ(command(words), "0");
    }
    // Open handles of the probe, as the board counts them.
    int open_count() const {
        std::istringstream lines(command({"show"}));
        for (std::string line; std::getline(lines, line);) {
            if (line.find("a test's device") != std::string::npos)
                return atoi(line.substr(line.rfind(' ')).c_str());
        }
        return -1;
    }
    // True once it has become so.
    bool reaches_open_count(int wanted) const {
        for (int i = 0; i < 1000 && open_count() != wanted; ++i) usleep(5000);
        return open_count() == wanted;
    }

private:
    std::string dir_;
    std::string socket_;
    pid_t server_ = -1;
};

// One open of the probe over a link, with calls as the gate would make them.
class Session {
public:
    explicit Session(Link &link) : link_(link) {
        Request request;
        request.op = Op::kOpen;
        request.path = "/dev/probe";
        request.code = O_RDWR;
        Reply reply;
        fd = link.open(request, reply);
        handle = reply.handle;
    }
    ~Session() {
        if (fd >= 0) close(fd);
    }
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

    Reply call(Op op, uint32_t code = 0, Buffer in = {}, uint32_t out_bytes = 0) {
        Request request;
        request.op = op;
        request.handle = handle;
        request.code = code;
        request.in = std::move(in);
        request.out_bytes = out_bytes;
        Reply reply;
        link_.call(request, reply);
        uint64_t token = 0;
        if (reply.drained && read(fd, &token, sizeof token) != sizeof token)
            ADD_FAILURE() << "no token to take off";
        return reply;
    }
    int64_t echo() { return call(Op::kIoctl, kEcho, {1, 2, 3, 4, 5, 6, 7, 8}).value; }
    int64_t wait(uint16_t timeout_ms = 0) {
        return call(Op::kIoctl, kWait,
                    {static_cast<uint8_t>(timeout_ms), static_cast<uint8_t>(timeout_ms >> 8), 0, 0})
            .value;
    }
    int64_t rewind() { return call(Op::kSeek, SEEK_SET).value; }

    int fd = -1;
    uint32_t handle = 0;

private:
    Link &link_;
};

}  // namespace qel::test
