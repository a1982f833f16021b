// packet.h - packets with descriptors over Unix sockets: what client and server have in common.
//
// One message is one packet, so neither side ever waits for the rest of one. What does not fit into
// a packet travels as a memory file whose descriptor goes along.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "board/core/request.h"

namespace qel::board {

constexpr size_t kPacketBytes = size_t{64} * 1024;
constexpr size_t kMostDescriptors = 3;

class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(UniqueFd &&other) noexcept : fd_(other.release()) {}
    UniqueFd &operator=(UniqueFd &&other) noexcept {
        reset(other.release());
        return *this;
    }
    ~UniqueFd() { reset(); }
    int get() const { return fd_; }
    bool is_open() const { return fd_ >= 0; }
    int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1);

private:
    int fd_ = -1;
};

struct OutPacket {
    Buffer bytes;
    std::vector<UniqueFd> descriptors;  // the receiver gets copies; these stay ours

    void clear() {
        bytes.clear();
        descriptors.clear();
    }
};

// Received into memory of its own, allocated once and used again for every packet.
class InPacket {
public:
    std::span<const uint8_t> bytes() const { return {memory_.get(), size_}; }
    std::vector<UniqueFd> descriptors;

private:
    friend int receive_packet(int socket, InPacket &packet, int flags);
    std::unique_ptr<uint8_t[]> memory_{new uint8_t[kPacketBytes]};
    size_t size_ = 0;
};

// Sends one whole packet without ever raising SIGPIPE. 0 or -errno; -EAGAIN when `flags` hold
// MSG_DONTWAIT and the peer does not take its packets. Interrupted sends are repeated.
int send_packet(int socket, const OutPacket &packet, int flags = 0);

// Receives one packet. 0, or -errno: -EPIPE when the peer has gone, -EMSGSIZE when the packet or its
// descriptors were cut off, -EINTR, -EAGAIN.
int receive_packet(int socket, InPacket &packet, int flags = 0);

// A memory file that holds `bytes`, at its start; not open when the system has none left.
UniqueFd to_memory_file(std::span<const uint8_t> bytes);
// Reads exactly `size` bytes from the start of a peer's memory file. False when it is shorter.
bool from_memory_file(int fd, size_t size, Buffer &out);

// Sockets at a path of any length. The descriptor, or -errno.
int connect_socket(const std::string &path);
int listen_socket(const std::string &path);

}  // namespace qel::board
