#include "board/net/packet.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace qel::board {

namespace {

struct alignas(cmsghdr) Control {
    std::array<char, CMSG_SPACE(kMostDescriptors * sizeof(int))> bytes{};
};

void take_descriptors(msghdr &message, std::vector<UniqueFd> &out) {
    for (cmsghdr *header = CMSG_FIRSTHDR(&message); header != nullptr;
         header = CMSG_NXTHDR(&message, header)) {
        if (header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS) continue;
        const size_t count = (header->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (size_t i = 0; i < count; ++i) {
            int fd = -1;
            memcpy(&fd, CMSG_DATA(header) + i * sizeof(int), sizeof fd);
            out.emplace_back(fd);
        }
    }
}

// A socket address holds about a hundred characters. The folder's descriptor stands in for the rest.
struct Address {
    sockaddr_un name{};
    UniqueFd folder;

    int resolve(const std::string &path) {
        name.sun_family = AF_UNIX;
        if (path.size() < sizeof name.sun_path) {
            path.copy(name.sun_path, path.size());
            return 0;
        }
        const size_t slash = path.rfind('/');
        if (slash == std::string::npos) return -ENAMETOOLONG;
        folder.reset(::open(path.substr(0, slash).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        if (!folder.is_open()) return -errno;
        const int length = snprintf(name.sun_path, sizeof name.sun_path, "/proc/self/fd/%d/%s", folder.get(),
                                    path.c_str() + slash + 1);
        return length < static_cast<int>(sizeof name.sun_path) ? 0 : -ENAMETOOLONG;
    }
    const sockaddr *get() const { return reinterpret_cast<const sockaddr *>(&name); }
};

// Room for a few packets, whatever the machine's default is.
void widen(int socket) {
    const int bytes = static_cast<int>(4 * kPacketBytes);
    setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
}

}  // namespace

void UniqueFd::reset(int fd) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
}

int send_packet(int socket, const OutPacket &packet, int flags) {
    iovec part{const_cast<uint8_t *>(packet.bytes.data()), packet.bytes.size()};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    Control control;
    if (!packet.descriptors.empty()) {
        if (packet.descriptors.size() > kMostDescriptors) return -E2BIG;
        const size_t bytes = packet.descriptors.size() * sizeof(int);
        message.msg_control = control.bytes.data();
        message.msg_controllen = CMSG_SPACE(bytes);
        cmsghdr *header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(bytes);
        unsigned char *to = CMSG_DATA(header);
        for (const UniqueFd &fd : packet.descriptors) {
            const int number = fd.get();
            memcpy(to, &number, sizeof number);
            to += sizeof number;
        }
    }
    for (;;) {
        if (::sendmsg(socket, &message, flags | MSG_NOSIGNAL) >= 0) return 0;
        if (errno != EINTR) return -errno;
    }
}

int receive_packet(int socket, InPacket &packet, int flags) {
    packet.descriptors.clear();
    packet.size_ = 0;
    iovec part{packet.memory_.get(), kPacketBytes};
    Control control;
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control.bytes.data();
    message.msg_controllen = control.bytes.size();
    const ssize_t received = ::recvmsg(socket, &message, flags | MSG_CMSG_CLOEXEC);
    if (received < 0) return errno == ECONNRESET ? -EPIPE : -errno;
    take_descriptors(message, packet.descriptors);
    if ((message.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) != 0) return -EMSGSIZE;
    packet.size_ = static_cast<size_t>(received);
    return received == 0 ? -EPIPE : 0;
}

UniqueFd to_memory_file(std::span<const uint8_t> bytes) {
    UniqueFd file(::memfd_create("qel-payload", MFD_CLOEXEC));
    size_t done = 0;
    while (file.is_open() && done < bytes.size()) {
        const ssize_t wrote = ::write(file.get(), bytes.data() + done, bytes.size() - done);
        if (wrote < 0 && errno == EINTR) continue;
        if (wrote <= 0) file.reset();
        done += static_cast<size_t>(std::max<ssize_t>(wrote, 0));
    }
    return file;
}

bool from_memory_file(int fd, size_t size, Buffer &out) {
    struct stat found {};
    // Only what cannot block: a pipe or a terminal in its place would hold up every other client.
    if (::fstat(fd, &found) != 0 || !S_ISREG(found.st_mode)) return false;
    if (found.st_size < 0 || static_cast<uint64_t>(found.st_size) < size) return false;
    out.resize(size);
    size_t done = 0;
    while (done < size) {
        const ssize_t got = ::pread(fd, out.data() + done, size - done, static_cast<off_t>(done));
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return false;
        done += static_cast<size_t>(got);
    }
    return true;
}

int connect_socket(const std::string &path) {
    Address address;
    if (const int error = address.resolve(path); error != 0) return error;
    UniqueFd socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (!socket.is_open()) return -errno;
    widen(socket.get());
    while (::connect(socket.get(), address.get(), sizeof address.name) != 0) {
        if (errno != EINTR) return -errno;
    }
    return socket.release();
}

int listen_socket(const std::string &path) {
    Address address;
    if (const int error = address.resolve(path); error != 0) return error;
    UniqueFd socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket.is_open()) return -errno;
    widen(socket.get());
    if (::bind(socket.get(), address.get(), sizeof address.name) != 0) return -errno;
    if (::listen(socket.get(), 128) != 0) return -errno;
    return socket.release();
}

}  // namespace qel::board
