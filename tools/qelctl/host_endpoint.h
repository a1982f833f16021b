// host_endpoint.h - where another program of this host meets a bridge: a TCP port on loopback or a
// pseudo-terminal.
#pragma once

#include <sys/types.h>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace qelctl {

// One user at a time; what comes while there is none is lost, as on a wire that ends in the air. One
// thread gives, one takes.
class HostEndpoint {
public:
    HostEndpoint() = default;
    virtual ~HostEndpoint() = default;
    HostEndpoint(const HostEndpoint &) = delete;
    HostEndpoint &operator=(const HostEndpoint &) = delete;

    // What the user connects to: "127.0.0.1:4001", "/dev/pts/7".
    virtual std::string address() const = 0;
    // Waits a little for bytes from the user; empty when there are none. Notices who comes and goes.
    virtual std::vector<uint8_t> take() = 0;
    // Waits for the user to have room as long as there is one and `goes_on` says so. How many it took.
    size_t give(const std::vector<uint8_t> &bytes, const std::function<bool()> &goes_on);
    bool has_user() const { return user_ >= 0; }
    // How many users have gone again.
    unsigned past_users() const { return past_users_; }

protected:
    // What can be read at once; empty with errno 0 at the end of the file.
    static std::vector<uint8_t> read_at_once(int fd);
    virtual ssize_t put(int fd, const uint8_t *bytes, size_t count) = 0;
    void user_is_gone() { ++past_users_; }

    std::atomic<int> user_{-1};  // the descriptor that reaches the user, non-blocking; -1: nobody is there
    std::mutex giving_;          // held while the giving thread uses it

private:
    std::atomic<unsigned> past_users_{0};
};

// Throw Failure(kFailed). `port` 0 = any that is free.
std::unique_ptr<HostEndpoint> listen_on_loopback(uint16_t port);
// `link`: also make this symbolic link to it, until the end; empty = none.
std::unique_ptr<HostEndpoint> make_pseudo_terminal(const std::string &link);

}  // namespace qelctl
