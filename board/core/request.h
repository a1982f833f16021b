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

// Operations on paths. What the board answers itself comes with Opened::kDevice; for a file it names
// the path of the host in `path` (Opened::kHostFile) and the process does the operation there.
//   kStat    of a node: value = its st_mode
//   kList    out = the nodes in the directory, each {u32 mode, u8 length, name}; path empty: no files
//   kRename  in = the second path; out = the host's path for it
//   kUnmount, kRun, kReboot (code of the command in `offset`): recorded, answered, never done
enum class PathOp : uint32_t { kStat, kList, kMakeDir, kRemove, kRename, kUnmount, kRun, kReboot };

// Terminal calls on a line. kSet: in = TermSettings, offset = when; the others: in = TermAction. kGet and
// kLineStatus answer in `out` (TermSettings, u32).
enum class TermOp : uint32_t { kGet, kSet, kFlush, kDrain, kFlow, kLineStatus };

struct TermSettings {
    uint32_t input_flags;  // as in termios
    uint32_t output_flags;
    uint32_t control_flags;  // without the speed
    uint32_t local_flags;
    uint32_t input_speed;  // B9600 ...: the same codes on every Linux we serve
    uint32_t output_speed;
};
static_assert(sizeof(TermSettings) == 24);

// What a process says beside the call. It writes to the pty itself, and what it wrote takes a while to come
// out at the board's end: the count tells the board what to wait for.
struct TermAction {
    uint32_t written_low;  // bytes written through this descriptor so far, 64 bits
    uint32_t written_high;
    uint32_t value;  // kFlush: the queue (TCIFLUSH ...), kFlow: the action (TCOOFF ...)
};
static_assert(sizeof(TermAction) == 12);

// What the board decided on a request when it came in. Stays in the process that serves; never sent.
struct Waiting {
    int64_t started_ms = -1;      // -1: not seen yet
    int64_t deadline_ms = -1;     // that the device asked for
    int64_t hold_until_ms = -1;   // a fault's delay
    int error = 0;                // a fault's errno
    int64_t short_bytes = -1;     // a fault's limit on the data
    std::vector<uint32_t> flips;  // bits to turn round in the data
};

struct Request {
    Op op{};
    uint32_t client = 0;  // the process: what Board::add_client answered
    uint32_t chip = 0;
    uint32_t handle = 0;       // what open answered; 0 for open and path operations
    uint32_t code = 0;         // ioctl request, open flags, whence, PathOp, terminal operation
    int64_t offset = 0;        // seek and map offset, open mode
    uint32_t out_bytes = 0;    // most bytes the process takes (read, map length)
    bool nonblocking = false;  // the descriptor's O_NONBLOCK at this moment
    std::string path;          // open and path operations
    Buffer in;                 // write: the bytes; ioctl: the packed record; rename: the second path
    Waiting waiting;
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
    int fd = -1;               // memory to map, from byte `value` on; owned by who receives the reply
    std::string path;
    Buffer out;
};

}  // namespace qel::board
