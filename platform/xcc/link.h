// link.h - the memory of a channel and the connection that tells whether the peer lives.
#pragma once

#include <cstdint>

#include "platform/common/socket.h"
#include "platform/xcc/layout.h"

namespace qel::xcc {

using platform::Deadline;
using platform::Fd;

class Memory {
public:
    Memory() = default;
    Memory(Memory &&other) noexcept
        : base_(std::exchange(other.base_, nullptr)), region_bytes_(std::exchange(other.region_bytes_, 0)) {}
    Memory &operator=(Memory &&) = delete;
    ~Memory();

    // Makes zeroed memory; its descriptor goes to `fd`.
    int create(uint32_t region_bytes, Fd *fd);
    // Maps the peer's. Fails unless it has the size named and can never shrink.
    int adopt(const Fd &fd, uint32_t region_bytes);

    Control &control() const { return *static_cast<Control *>(base_); }
    uint8_t *at(uint32_t offset) const { return static_cast<uint8_t *>(base_) + kRegionOffset + offset; }
    uint32_t region_bytes() const { return region_bytes_; }

private:
    int map(int fd, uint32_t region_bytes);

    void *base_ = nullptr;
    uint32_t region_bytes_ = 0;
};

// The connection to a peer, and the peer's process where the kernel can watch one: a child that the
// peer forked keeps the connection open, but not the process alive.
class Peer {
public:
    Peer() = default;
    explicit Peer(Fd socket);
    int socket() const { return socket_.get(); }
    int process() const { return process_.get(); }
    // Tells the peer that nobody is at this end any more.
    void hang_up() const;
    // Looks without waiting.
    bool is_gone() const;

private:
    Fd socket_;
    Fd process_;
};

}  // namespace qel::xcc
