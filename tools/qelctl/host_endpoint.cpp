#include "tools/qelctl/host_endpoint.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>

#include "tools/qelctl/exit_code.h"

namespace qelctl {

namespace {

constexpr int kLook_ms = 100;         // how long nobody notices that the bridge shall end
constexpr int64_t kAnswer_ms = 1000;  // how long a user that has sent all it has hears answers
constexpr size_t kUserPieceBytes = 1024;

[[noreturn]] void no_endpoint(const std::string &what) {
    const int error = errno;
    throw Failure(ExitCode::kFailed, "cannot make " + what + ": " + strerror(error) + ".");
}

int64_t steady_ms() {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

short events_of(int fd, short wanted) {
    struct pollfd one = {fd, wanted, 0};
    return poll(&one, 1, kLook_ms) > 0 ? one.revents : short{0};
}

class LoopbackEndpoint final : public HostEndpoint {
public:
    explicit LoopbackEndpoint(uint16_t port) {
        listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const int on = 1;
        struct sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        socklen_t size = sizeof address;
        auto *generic = reinterpret_cast<struct sockaddr *>(&address);
        if (listener_ < 0 || bind(listener_, generic, size) != 0 || listen(listener_, 1) != 0 ||
            getsockname(listener_, generic, &size) != 0) {
            const int error = errno;
            if (listener_ >= 0) close(listener_);
            errno = error;
            no_endpoint("a TCP port on loopback");
        }
        port_ = ntohs(address.sin_port);
    }
    ~LoopbackEndpoint() override {
        if (user_ >= 0) close(user_);
        close(listener_);
    }

    std::string address() const override { return "127.0.0.1:" + std::to_string(port_); }

    std::vector<uint8_t> take() override {
        if (user_ < 0) {
            if (events_of(listener_, POLLIN) != 0) welcome();
            return {};
        }
        if (said_all_) {
            if (steady_ms() >= leave_ms_) drop_user();
            usleep(kLook_ms * 1000);
            return {};
        }
        if (events_of(user_, POLLIN) == 0) return {};
        std::vector<uint8_t> bytes = read_at_once(user_);
        if (bytes.empty() && errno != EAGAIN && errno != EINTR) {
            said_all_ = true;
            leave_ms_ = steady_ms() + kAnswer_ms;
        }
        return bytes;
    }

protected:
    ssize_t put(int fd, const uint8_t *bytes, size_t count) override {
        return send(fd, bytes, count, MSG_NOSIGNAL);
    }

private:
    void welcome() {
        const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd < 0) return;
        const int on = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        said_all_ = false;
        user_ = fd;
    }
    void drop_user() {
        const int fd = user_.exchange(-1);
        const std::lock_guard<std::mutex> lock(giving_);
        close(fd);
        user_is_gone();
    }

    int listener_ = -1;
    uint16_t port_ = 0;
    bool said_all_ = false;  // the user ended its half, and hears answers until leave_ms_
    int64_t leave_ms_ = 0;
};

// The user opens the slave; the master tells by a hang-up that nobody has it open.
class TerminalEndpoint final : public HostEndpoint {
public:
    explicit TerminalEndpoint(const std::string &link) : link_(link) {
        master_ = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
        char name[128] = {};
        if (master_ < 0 || grantpt(master_) != 0 || unlockpt(master_) != 0 ||
            ptsname_r(master_, name, sizeof name) != 0 || !make_raw(name)) {
            const int error = errno;
            if (master_ >= 0) close(master_);
            errno = error;
            no_endpoint("a pseudo-terminal");
        }
        name_ = name;
        if (!link_.empty() && symlink(name, link_.c_str()) != 0) {
            const int error = errno;
            close(master_);
            errno = error;
            no_endpoint("the link " + link_);
        }
    }
    ~TerminalEndpoint() override {
        if (!link_.empty()) unlink(link_.c_str());
        close(master_);
    }

    std::string address() const override { return link_.empty() ? name_ : link_; }

    std::vector<uint8_t> take() override {
        const short events = events_of(master_, POLLIN);
        const bool here = (events & POLLHUP) == 0;
        user_ = here ? master_ : -1;
        const bool has_bytes = (events & POLLIN) != 0;
        if (here || has_bytes) was_here_ = true;
        if (has_bytes) return read_at_once(master_);
        if (!here) wait_for_the_next();
        return {};
    }

protected:
    ssize_t put(int fd, const uint8_t *bytes, size_t count) override { return ::write(fd, bytes, count); }

private:
    // As a line that carries any byte. The settings stay while the master is open.
    static bool make_raw(const char *name) {
        const int slave = open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
        if (slave < 0) return false;
        struct termios settings = {};
        bool done = tcgetattr(slave, &settings) == 0;
        cfmakeraw(&settings);
        done = done && tcsetattr(slave, TCSANOW, &settings) == 0;
        close(slave);
        return done;
    }

    void wait_for_the_next() {
        if (was_here_) {
            discard_unread();
            user_is_gone();
        }
        was_here_ = false;
        usleep(kLook_ms * 1000);  // a hang-up lasts, so polling does not wait
    }

    // What the last user has not read is not for the next one. The master's flush leaves it where it is.
    void discard_unread() const {
        const int slave = open(name_.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
        if (slave < 0) return;
        tcflush(slave, TCIFLUSH);
        close(slave);
    }

    std::string link_;
    std::string name_;
    int master_ = -1;
    bool was_here_ = false;  // also one that came, wrote and went between two looks
};

}  // namespace

std::vector<uint8_t> HostEndpoint::read_at_once(int fd) {
    std::vector<uint8_t> bytes(kUserPieceBytes);
    errno = 0;
    const ssize_t count = ::read(fd, bytes.data(), bytes.size());
    bytes.resize(count > 0 ? static_cast<size_t>(count) : 0);
    return bytes;
}

size_t HostEndpoint::give(const std::vector<uint8_t> &bytes, const std::function<bool()> &goes_on) {
    size_t done = 0;
    while (done < bytes.size() && goes_on()) {
        const std::lock_guard<std::mutex> lock(giving_);
        const int fd = user_;
        if (fd < 0) break;
        if ((events_of(fd, POLLOUT) & POLLOUT) == 0) continue;
        const ssize_t count = put(fd, bytes.data() + done, bytes.size() - done);
        if (count > 0) done += static_cast<size_t>(count);
        if (count < 0 && errno != EAGAIN && errno != EINTR) break;
    }
    return done;
}

std::unique_ptr<HostEndpoint> listen_on_loopback(uint16_t port) {
    return std::make_unique<LoopbackEndpoint>(port);
}

std::unique_ptr<HostEndpoint> make_pseudo_terminal(const std::string &link) {
    return std::make_unique<TerminalEndpoint>(link);
}

}  // namespace qelctl
