// link.h - how the requests of one process reach its board: a direct call, or a socket to a server.
#pragma once

#include <cstdint>
#include <string>

#include "board/core/request.h"

namespace qel::board {

// What a process learns when it joins a board.
struct Welcome {
    uint32_t chip = 0;
    uint32_t time_scale = 1;
    uint32_t ipc_salt = 0;
    std::string run_dir;   // sockets of BND and XCC, list of System V objects; one per board
    std::string root_dir;  // of this chip's file tree on the host
    std::string name;      // of the board
};

// Thread-safe; usable in the child after fork().
class Link {
public:
    virtual ~Link() = default;
    virtual const Welcome &welcome() const = 0;

    // Runs one request and blocks as long as the device does. -EINTR in reply.value when a signal
    // handler ran; the request is then withdrawn and had no effect.
    virtual void call(Request &request, Reply &reply) = 0;

    // Opens a device: as call(), and on Opened::kDevice also makes the descriptor that stands for it
    // in this process. It polls readable while a token lies on it: the board puts one token on when
    // the device turns readable, and `Reply::drained` of a read or ioctl tells the reader to take
    // one off: one read() of 8 bytes, the descriptor is non-blocking. The board learns from its
    // closing (by the last process) that the handle is gone.
    // Returns the descriptor (kDevice), 0 (else), or -errno.
    virtual int open(Request &request, Reply &reply) = 0;

    // This process is about to close its descriptor of `handle`. For links that do not learn it from
    // the closing itself.
    virtual void closing(uint32_t /*handle*/) {}
};

}  // namespace qel::board
