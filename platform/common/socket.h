// socket.h - packet sockets between processes of one machine, met by name in the run directory.
//
// Every call returns its value or -errno. No call blocks unless it takes a deadline.
#pragma once

#include <sys/types.h>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "platform/common/world.h"

namespace qel::platform {

// A descriptor that closes itself.
class Fd {
public:
    Fd() = default;
    explicit Fd(int fd) : fd_(fd) {}
    Fd(Fd &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Fd &operator=(Fd &&other) noexcept {
        reset(std::exchange(other.fd_, -1));
        return *this;
    }
    ~Fd() { reset(); }
    int get() const { return fd_; }
    bool is_open() const { return fd_ >= 0; }
    void reset(int fd = -1);

private:
    int fd_ = -1;
};

// One packet: a header of ours, then a payload of the caller's. `fd` travels along, -1 = none.
struct Packet {
    void *header = nullptr;
    size_t header_bytes = 0;
    void *payload = nullptr;
    size_t payload_bytes = 0;
};

// Waits until the peer's queue has room.
int send_packet(int socket, const Packet &packet, int fd, Deadline deadline);
// The bytes that arrived, 0 when the peer is gone, -EAGAIN when there is nothing. `truncated`: the packet
// was longer than the payload has room for. A descriptor that came along goes to `fd`, if given.
ssize_t receive_packet(int socket, const Packet &packet, bool *truncated, Fd *fd);
// > 0 when there is something to read or the peer is gone, 0 when the time is over.
int wait_readable(int socket, Deadline deadline);

// Connects to whoever listens on `name`; -EAGAIN when its queue is full.
int connect_to(const char *name, Fd *out);
// True when the peer can no longer be reached, whichever call found out.
bool peer_is_gone(int error);

// A name to be met at. One live process at a time holds it; what a killed one left behind is replaced.
class Listener {
public:
    Listener() = default;
    ~Listener() { close(); }
    Listener(const Listener &) = delete;
    Listener &operator=(const Listener &) = delete;
    // -EADDRINUSE while another process, or another listener of this one, holds the name.
    int open(const char *name);
    void close();
    bool is_open() const { return socket_.is_open(); }
    int fd() const { return socket_.get(); }
    // -EAGAIN when nobody waits.
    int accept(Fd *out) const;

private:
    Fd lock_;
    Fd socket_;
    char path_[128] = {};
};

}  // namespace qel::platform
