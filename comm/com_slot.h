// com_slot.h - what the two device layers have in common: objects that all users of a port share, and
// the order of things around a read, a write and a frame on an RS-485 line.
//
// Locks, in the order in which they may be taken:
//   life     of an object: one open, close or change of settings at a time
//   line     of an object: on RS-485, a read, or a whole frame with its turn-rounds
//   take     of an object: taking bytes out, or discarding them
//   slots    of both layers: references, opens, descriptors; held for a few instructions
// While a thread waits for the far end it holds none of them, but for a frame that leaves the line.
#pragma once

#include <sys/types.h>
#include <cstddef>
#include <cstdint>

#include "frame/mutex.h"
#include "qel/serial.h"

namespace qel::comm {

using SetDirection = int (*)(uint32_t port, uint32_t state);  // as QEL_485SetCtl

constexpr uint32_t kReceive = 0;
constexpr uint32_t kTransmit = 1;

// An open descriptor. Whoever closes it takes it away from its slot; the descriptor itself goes with the
// last request that is still under way on it, so that its number is nobody else's before.
struct OpenLine {
    int fd;
    SetDirection direction;  // nullptr: nothing to turn round
    bool polls_line_status;  // tells when its last bit is out
    bool nonblocking;        // a read of nothing returns at once
    unsigned users;
    bool abandoned;
};

extern Mutex slots_mutex;

struct Slot {
    Mutex life;
    Mutex line_mutex;
    Mutex take_mutex;
    OSA_SemHandle reader = nullptr;  // of those who wait for bytes, one waits for the line
    bool has_locks = false;
    uint32_t port = 0;

    int32_t references QEL_GUARDED_BY(slots_mutex) = 0;
    uint32_t opens QEL_GUARDED_BY(slots_mutex) = 0;
    uint32_t requests QEL_GUARDED_BY(slots_mutex) = 0;  // under way, on this line or those before it
    OpenLine *line QEL_GUARDED_BY(slots_mutex) = nullptr;
    bool rs485 QEL_GUARDED_BY(slots_mutex) = false;
    bool half_duplex QEL_GUARDED_BY(slots_mutex) = false;
    bool raw_done QEL_GUARDED_BY(slots_mutex) = false;  // what the line's settings were is kept
    uint32_t discards QEL_GUARDED_BY(take_mutex) = 0;   // how often bytes were thrown away
};

// ---- life of the objects ----

int slots_init();
void slots_deinit();
// Makes the object's locks; without them it cannot be created.
void prepare_slot(Slot &slot, uint32_t port);

enum class Created { kFresh, kShared, kFailed };

// Shares the slot where its line is open, else starts it anew.
Created create_slot(Slot &slot, const ComObjDesc &desc);
// Gives up a reference; `*line` is the line where that was the last one, the caller abandons it. -1: none.
int delete_slot(Slot &slot, OpenLine **line);
// At the end of the library: closes what is left open.
void destroy_slot(Slot &slot);

// True: it was open already, and is so once more.
bool open_again(Slot &slot);
bool is_half_duplex(Slot &slot);
bool is_raw_done(Slot &slot);
void set_raw_done(Slot &slot, bool done);
bool is_idle(Slot &slot);  // no request is under way
void set_rs485(Slot &slot, bool rs485);
void describe(Slot &slot, ComPriv *out);

struct NewLine {
    int fd;
    SetDirection direction = nullptr;
    bool polls_line_status = false;
    bool nonblocking = false;
};
// Makes the slot's line of an open descriptor; -1 without memory.
int attach(Slot &slot, const NewLine &opened);
// Undoes one open; `*line` is the line where that was the last one, the caller abandons it. -1: not open.
int detach(Slot &slot, OpenLine **line);
// The line, however often it was opened.
OpenLine *detach_all(Slot &slot);
void abandon(OpenLine *line);

// ---- requests ----

// The slot's line for the time of one request.
class LineUse {
public:
    explicit LineUse(Slot &slot);
    ~LineUse();
    LineUse(const LineUse &) = delete;
    LineUse &operator=(const LineUse &) = delete;

    Slot &slot() const { return slot_; }
    int fd() const { return line_ != nullptr ? line_->fd : -1; }  // -1: closed
    // As it was when the request began.
    bool rs485() const { return rs485_; }
    SetDirection direction() const { return line_->direction; }
    bool polls_line_status() const { return line_->polls_line_status; }
    bool nonblocking() const { return line_->nonblocking; }
    // 0, or why there is no reason to wait any longer: -EBADF the line was closed, -ECANCELED the calling
    // thread is to end.
    int over() const;

private:
    Slot &slot_;
    OpenLine *line_ = nullptr;
    bool rs485_ = false;
};

// A wait that failed; one that ended with its thread is no failure.
void log_failed_wait(const char *function, int error);

// What is left of a request's time.
class TimeLeft {
public:
    explicit TimeLeft(int32_t timeout_ms);
    int ms() const;  // -1: without limit
    // The same, but no more than that: between the slices of a wait one looks whether it is over.
    int slice_ms(int most_ms) const;
    bool is_over() const { return ms() == 0; }

private:
    const int32_t timeout_ms_;
    const uint64_t end_ms_;
};

// A request without buffer, length or open line.
inline bool is_unfit(const LineUse &use, const ComIoParam &request) {
    return request.buffer == nullptr || static_cast<int32_t>(request.length) <= 0 || use.fd() < 0;
}

// While it lives no byte is taken out of the line, and readers look anew whether there are any.
class QEL_THREAD_ATTRIBUTE(scoped_lockable) Discard {
public:
    explicit Discard(Slot &slot) QEL_THREAD_ATTRIBUTE(acquire_capability(slot.take_mutex))
        : lock_(slot.take_mutex) {
        ++slot.discards;
    }
    ~Discard() QEL_THREAD_ATTRIBUTE(release_capability()) = default;
    Discard(const Discard &) = delete;
    Discard &operator=(const Discard &) = delete;

private:
    MutexLock lock_;
};

// How a layer does what receive and send_frame want. Results: 0 or more, or -errno.
struct LineOperations {
    // Waits for bytes; > 0 there are, 0 time over.
    int (*wait_readable)(int fd, const ComIoParam &request, int timeout_ms);
    ssize_t (*read)(int fd, const ComIoParam &request);
    // Whether a write would go on at once.
    bool (*is_writable)(int fd);
    ssize_t (*write)(int fd, const ComIoParam &request);
    // Waits until the last of `bytes` has left the line: > 0, or 0 time over.
    int (*wait_empty)(const LineUse &use, size_t bytes, int32_t timeout_ms);
    // What the log has of a write, or a wait for the empty line, that failed.
    const char *write_failed;
    const char *wait_empty_failed;
};

// 0, or a status that is logged under `function`; request.length is what was moved. The request has been
// checked and the line is open.
int receive(const char *function, const LineUse &use, const LineOperations &operations, ComIoParam &request);
// -EAGAIN, with nothing in the log: the line takes nothing now, so the frame was not begun.
int send_frame(const char *function, const LineUse &use, const LineOperations &operations,
               ComIoParam &request);

}  // namespace qel::comm
