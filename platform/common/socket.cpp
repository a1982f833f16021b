#include "platform/common/socket.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace qel::platform {

namespace {

constexpr int kBacklog = 64;

int path_in_run_dir(const char *name, const char *suffix, char *out, size_t out_bytes) {
    const int failure = run_dir(out, out_bytes);
    if (failure != 0) return failure;
    const size_t used = strlen(out);
    const int length = snprintf(out + used, out_bytes - used, "/%s%s", name, suffix);
    return length >= 0 && static_cast<size_t>(length) < out_bytes - used ? 0 : -ENAMETOOLONG;
}

int address_of(const char *name, sockaddr_un *out) {
    *out = {};
    out->sun_family = AF_UNIX;
    return path_in_run_dir(name, "", out->sun_path, sizeof out->sun_path);
}

int new_socket(Fd *out) {
    out->reset(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    return out->is_open() ? 0 : -errno;
}

// Repeats after signals; the value or -errno.
template <typename Call>
auto retrying(Call call) {
    decltype(call()) result;
    do {
        result = call();
    } while (result < 0 && errno == EINTR);
    return result < 0 ? -errno : result;
}

int wait_for(int socket, short events, Deadline deadline) {
    pollfd one{socket, events, 0};
    return static_cast<int>(retrying([&] { return poll(&one, 1, deadline.left_ms()); }));
}

}  // namespace

void Fd::reset(int fd) {
    if (fd_ >= 0) close(fd_);
    fd_ = fd;
}

int send_packet(int socket, const Packet &packet, int fd, Deadline deadline) {
    iovec parts[2] = {{packet.header, packet.header_bytes}, {packet.payload, packet.payload_bytes}};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = packet.payload_bytes != 0 ? 2 : 1;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    if (fd >= 0) {
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        cmsghdr *const rights = CMSG_FIRSTHDR(&message);
        rights->cmsg_level = SOL_SOCKET;
        rights->cmsg_type = SCM_RIGHTS;
        rights->cmsg_len = CMSG_LEN(sizeof(int));
        memcpy(CMSG_DATA(rights), &fd, sizeof fd);
    }
    for (;;) {
        const auto sent = retrying([&] { return sendmsg(socket, &message, MSG_NOSIGNAL | MSG_DONTWAIT); });
        if (sent >= 0) return 0;
        if (sent != -EAGAIN) return static_cast<int>(sent);
        const int ready = wait_for(socket, POLLOUT, deadline);
        if (ready < 0) return ready;
        if (ready == 0 && deadline.passed()) return -ETIMEDOUT;
    }
}

ssize_t receive_packet(int socket, const Packet &packet, bool *truncated, Fd *fd) {
    iovec parts[2] = {{packet.header, packet.header_bytes}, {packet.payload, packet.payload_bytes}};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = packet.payload_bytes != 0 ? 2 : 1;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    if (fd != nullptr) {
        message.msg_control = control;
        message.msg_controllen = sizeof control;
    }
    const auto got = retrying([&] { return recvmsg(socket, &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC); });
    if (got < 0) return got;
    *truncated = (message.msg_flags & MSG_TRUNC) != 0;
    const cmsghdr *const rights = fd != nullptr ? CMSG_FIRSTHDR(&message) : nullptr;
    if (rights != nullptr && rights->cmsg_level == SOL_SOCKET && rights->cmsg_type == SCM_RIGHTS &&
        rights->cmsg_len == CMSG_LEN(sizeof(int))) {
        int received = -1;
        memcpy(&received, CMSG_DATA(rights), sizeof received);
        fd->reset(received);
    }
    return got;
}

int wait_readable(int socket, Deadline deadline) { return wait_for(socket, POLLIN, deadline); }

int connect_to(const char *name, Fd *out) {
    sockaddr_un address;
    int failure = address_of(name, &address);
    if (failure == 0) failure = new_socket(out);
    if (failure != 0) return failure;
    const auto *const to = reinterpret_cast<const sockaddr *>(&address);
    const int connected = static_cast<int>(retrying([&] { return connect(out->get(), to, sizeof address); }));
    if (connected != 0) out->reset();
    return connected;
}

bool peer_is_gone(int error) {
    return error == -EPIPE || error == -ECONNRESET || error == -ENOTCONN || error == -ECONNREFUSED ||
           error == -ENOENT;
}

int Listener::open(const char *name) {
    close();
    char lock_path[sizeof path_ + 8];
    sockaddr_un address;
    int failure = address_of(name, &address);
    if (failure == 0) failure = path_in_run_dir(name, ".lock", lock_path, sizeof lock_path);
    if (failure != 0) return failure;
    // The lock ends with its holder, whatever ends that, and outlives nobody. Its file stays.
    Fd lock(::open(lock_path, O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (!lock.is_open()) return -errno;
    if (flock(lock.get(), LOCK_EX | LOCK_NB) != 0) return errno == EWOULDBLOCK ? -EADDRINUSE : -errno;
    Fd socket;
    failure = new_socket(&socket);
    if (failure != 0) return failure;
    unlink(address.sun_path);
    if (bind(socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) return -errno;
    if (listen(socket.get(), kBacklog) != 0) return -errno;
    snprintf(path_, sizeof path_, "%s", address.sun_path);
    lock_ = std::move(lock);
    socket_ = std::move(socket);
    return 0;
}

void Listener::close() {
    if (!socket_.is_open()) return;
    unlink(path_);
    socket_.reset();
    lock_.reset();
}

int Listener::accept(Fd *out) const {
    const int fd = static_cast<int>(
        retrying([&] { return accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK); }));
    if (fd < 0) return fd;
    out->reset(fd);
    return 0;
}

}  // namespace qel::platform
