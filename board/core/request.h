// request.h - one request as it crosses from a process to the board, by call or by socket.
//
// Everything in it has a fixed width and no pointers: a process packs the records that its library
// uses (native sizes, user pointers) into `in` and unpacks `out`, with the tables of the device
// class. So one server serves processes of any word size.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qel::board {

using Buffer = std::vector<uint8_t>;

enum class Op : uint8_t { kOpen, kClose, kRead, kWrite, kSeek, kIoctl, kMap, kTerm, kPath };

// Operations on paths that the board answers itself or turns into a path of the host.
enum class PathOp : uint32_t { kStat, kList, kMakeDir, kRemove, kRename, kUnmount, kRun, kReboot };

struct Request {
    Op op{};
    uint32_t client = 0;  // the process: pid of its own numbering
    uint32_t chip = 0;
    uint32_t handle = 0;       // what open answered; 0 for open and path operations
    uint32_t code = 0;         // ioctl request, open flags, whence, PathOp, terminal operation
    int64_t offset = 0;        // seek and map offset, open mode
    uint32_t out_bytes = 0;    // most bytes the process takes (read, map length)
    bool nonblocking = false;  // the descriptor's O_NONBLOCK at this moment
    std::string path;          // open and path operations
    Buffer in;                 // write: the bytes; ioctl: the packed record; rename: the second path
};

enum class Opened : uint8_t {
    kDevice,    // `handle` on the board; requests go through the board
    kHostFile,  // `path` is a file of the host that stands for it: the process opens that itself
    kTty,       // both: `path` is a pty the process reads and writes itself, terminal calls and
                // ioctls go through the board as well
};

struct Reply {
    int64_t value = 0;  // the call's result: 0 or more, or -errno
    Opened opened = Opened::kDevice;
    uint32_t handle = 0;
    uint16_t class_index = 0;  // of the device class in the registry: where the record tables stand
    bool drained = false;      // the process takes one readiness token off the handle (see link.h)
    bool killed = false;       // the power was cut: the process ends here and now
    int fd = -1;               // memory to map; owned by whoever receives the reply
    std::string path;
    Buffer out;
};

}  // namespace qel::board
