#include "comm/com_slot.h"

#include <algorithm>
#include <cerrno>

#include "frame/log.h"
#include "os/os.h"

namespace qel::comm {

constinit Mutex slots_mutex;

namespace {

constexpr uint64_t kClockStep_ms = 1;  // a moment may be this much later than the clock says
constexpr int kReadSlice_ms = 100;
constexpr unsigned kTransmitLead_ms = 1;  // for the line driver to turn round

OpenLine *take_line(Slot &slot) QEL_REQUIRES(slots_mutex) {
    OpenLine *line = slot.line;
    slot.line = nullptr;
    slot.opens = 0;
    return line;
}

void close_line(OpenLine *line) {
    os::close(line->fd);
    OSA_memFree(line);
}

uint32_t discards_so_far(Slot &slot) {
    const MutexLock lock(slot.take_mutex);
    return slot.discards;
}

// Becomes the one reader that waits for the line: > 0, 0 time over, -errno as of LineUse::over().
int become_reader(const LineUse &use, const TimeLeft &left) {
    for (;;) {
        const auto slice_ms = static_cast<unsigned>(left.slice_ms(kReadSlice_ms));
        if (OSA_semPend(use.slot().reader, slice_ms) == 0) return 1;
        if (const int over = use.over(); over != 0) return over;
        if (left.is_over()) return 0;
    }
}

int wait_readable(const LineUse &use, const LineOperations &operations, const ComIoParam &request,
                  const TimeLeft &left) {
    for (;;) {
        const int ready = operations.wait_readable(use.fd(), request, left.slice_ms(kReadSlice_ms));
        if (ready != 0) return ready;
        if (const int over = use.over(); over != 0) return over;
        if (left.is_over()) return 0;
    }
}

ssize_t take(const LineUse &use, const LineOperations &operations, const ComIoParam &request,
             uint32_t discards_before) {
    // Nobody has looked whether there is something, and the line does not block.
    if (request.timeoutMs == 0) return operations.read(use.fd(), request);
    Slot &slot = use.slot();
    const MutexLock lock(slot.take_mutex);
    // What was there may be gone: reading would wait, and keep everybody else off the line.
    if (slot.discards != discards_before) return -EAGAIN;
    return operations.read(use.fd(), request);
}

ssize_t take_in_turn(const LineUse &use, const LineOperations &operations, const ComIoParam &request,
                     uint32_t discards_before) {
    if (!use.rs485()) return take(use, operations, request, discards_before);
    const MutexLock lock(use.slot().line_mutex);
    return take(use, operations, request, discards_before);
}

int receive_as_reader(const char *function, const LineUse &use, const LineOperations &operations,
                      ComIoParam &request, const ComIoParam &wanted, const TimeLeft &left) {
    for (;;) {
        const uint32_t discards = discards_so_far(use.slot());
        if (wanted.timeoutMs != 0) {
            const int ready = wait_readable(use, operations, wanted, left);
            if (ready == 0) return QEL_ETIMEOUT;
            if (ready < 0) {
                log_failed_wait(function, ready);
                return OSA_EFAIL;
            }
        }
        const ssize_t got = take_in_turn(use, operations, wanted, discards);
        if (got > 0) {
            request.length = static_cast<uint32_t>(got);
            return 0;
        }
        if (got == -EAGAIN) {
            if (wanted.timeoutMs == 0) return OSA_EFAIL;
            // Others were quicker; or it never gives what it says is there.
            if (left.is_over()) return QEL_ETIMEOUT;
            if (const int over = use.over(); over != 0) {
                log_failed_wait(function, over);
                return OSA_EFAIL;
            }
            continue;
        }
        // Without a wait nothing is no failure of the line.
        if (got < 0 || wanted.timeoutMs != 0)
            QEL_ERROR_AS(function, "read failed, errno=%d\n", static_cast<int>(-got));
        return OSA_EFAIL;
    }
}

}  // namespace

// ---- life of the objects ----

int slots_init() { return slots_mutex.create(); }

void slots_deinit() { slots_mutex.destroy(); }

void prepare_slot(Slot &slot, uint32_t port) {
    slot.port = port;
    slot.has_locks = slot.life.create() == 0 && slot.line_mutex.create() == 0 &&
                     slot.take_mutex.create() == 0 && OSA_semCreate(&slot.reader, 1, 1) == 0;
}

Created create_slot(Slot &slot, const ComObjDesc &desc) {
    const MutexLock life(slot.life);  // a line that is being opened is shared, too
    const MutexLock lock(slots_mutex);
    if (slot.line != nullptr) {
        ++slot.references;
        return Created::kShared;
    }
    if (!slot.has_locks) return Created::kFailed;
    slot.references = 1;
    slot.rs485 = desc.rs485 == 1;
    slot.half_duplex = desc.halfDuplex == 1;
    slot.raw_done = false;
    return Created::kFresh;
}

int delete_slot(Slot &slot, OpenLine **line) {
    const MutexLock lock(slots_mutex);
    *line = nullptr;
    if (slot.references < 1) return OSA_EFAIL;
    if (--slot.references == 0) *line = take_line(slot);
    return 0;
}

void destroy_slot(Slot &slot) {
    OpenLine *line = detach_all(slot);
    if (line != nullptr) abandon(line);
    slot.life.destroy();
    slot.line_mutex.destroy();
    slot.take_mutex.destroy();
    if (slot.reader != nullptr) OSA_semDelete(&slot.reader);
    slot.has_locks = false;
}

bool open_again(Slot &slot) {
    const MutexLock lock(slots_mutex);
    if (slot.line == nullptr) return false;
    ++slot.opens;
    return true;
}

bool is_half_duplex(Slot &slot) {
    const MutexLock lock(slots_mutex);
    return slot.half_duplex;
}

bool is_raw_done(Slot &slot) {
    const MutexLock lock(slots_mutex);
    return slot.raw_done;
}

void set_raw_done(Slot &slot, bool done) {
    const MutexLock lock(slots_mutex);
    slot.raw_done = done;
}

bool is_idle(Slot &slot) {
    const MutexLock lock(slots_mutex);
    return slot.requests == 0;
}

int attach(Slot &slot, const NewLine &opened) {
    auto *line = static_cast<OpenLine *>(OSA_memCalloc(sizeof(OpenLine)));
    if (line == nullptr) return OSA_EFAIL;
    line->fd = opened.fd;
    line->direction = opened.direction;
    line->polls_line_status = opened.polls_line_status;
    line->nonblocking = opened.nonblocking;
    const MutexLock lock(slots_mutex);
    slot.line = line;
    slot.opens = 1;
    return 0;
}

void set_rs485(Slot &slot, bool rs485) {
    const MutexLock lock(slots_mutex);
    slot.rs485 = rs485;
}

void describe(Slot &slot, ComPriv *out) {
    const MutexLock lock(slots_mutex);
    *out = {};
    out->references = slot.references;
    out->port = slot.port;
    out->fd = slot.line != nullptr ? slot.line->fd : -1;
    out->rs485 = slot.rs485 ? 1 : 0;
    out->halfDuplex = slot.half_duplex ? 1 : 0;
    out->raw = slot.raw_done ? 1 : 0;
    out->opens = slot.opens;
}

int detach(Slot &slot, OpenLine **line) {
    const MutexLock lock(slots_mutex);
    *line = nullptr;
    if (slot.line == nullptr) return OSA_EFAIL;
    if (--slot.opens == 0) *line = take_line(slot);
    return 0;
}

OpenLine *detach_all(Slot &slot) {
    const MutexLock lock(slots_mutex);
    return take_line(slot);
}

void abandon(OpenLine *line) {
    {
        const MutexLock lock(slots_mutex);
        line->abandoned = true;
        if (line->users > 0) return;
    }
    close_line(line);
}

// ---- requests ----

LineUse::LineUse(Slot &slot) : slot_(slot) {
    const MutexLock lock(slots_mutex);
    line_ = slot.line;
    rs485_ = slot.rs485;
    if (line_ == nullptr) return;
    ++line_->users;
    ++slot.requests;
}

LineUse::~LineUse() {
    if (line_ == nullptr) return;
    {
        const MutexLock lock(slots_mutex);
        --slot_.requests;
        if (--line_->users > 0 || !line_->abandoned) return;
    }
    close_line(line_);
}

int LineUse::over() const {
    if (OSA_thrStopping() != 0) return -ECANCELED;
    const MutexLock lock(slots_mutex);
    return line_->abandoned ? -EBADF : 0;
}

void log_failed_wait(const char *function, int error) {
    if (error != -ECANCELED) QEL_ERROR_AS(function, "select  error !!\n");
}

TimeLeft::TimeLeft(int32_t timeout_ms)
    : timeout_ms_(timeout_ms),
      end_ms_(timeout_ms > 0 ? OSA_timeMs() + static_cast<uint64_t>(timeout_ms) + kClockStep_ms : 0) {}

int TimeLeft::ms() const {
    if (timeout_ms_ <= 0) return timeout_ms_;
    const uint64_t now_ms = OSA_timeMs();
    if (now_ms >= end_ms_) return 0;
    return static_cast<int>(std::min<uint64_t>(end_ms_ - now_ms, static_cast<uint64_t>(timeout_ms_)));
}

int TimeLeft::slice_ms(int most_ms) const {
    const int left_ms = ms();
    return left_ms < 0 ? most_ms : std::min(left_ms, most_ms);
}

int receive(const char *function, const LineUse &use, const LineOperations &operations, ComIoParam &request) {
    ComIoParam wanted = request;
    // Where the line blocks a read without time waits as well: here, for in the read itself no close would
    // end it, and nobody could write meanwhile.
    if (wanted.timeoutMs == 0 && !use.nonblocking()) wanted.timeoutMs = -1;
    request.length = 0;
    const TimeLeft left(wanted.timeoutMs);
    const int turn = become_reader(use, left);
    if (turn < 0) log_failed_wait(function, turn);
    if (turn <= 0) return turn == 0 && wanted.timeoutMs != 0 ? QEL_ETIMEOUT : OSA_EFAIL;
    const int status = receive_as_reader(function, use, operations, request, wanted, left);
    OSA_semPost(use.slot().reader);
    return status;
}

int send_frame(const char *function, const LineUse &use, const LineOperations &operations,
               ComIoParam &request) {
    const ComIoParam wanted = request;
    Slot &slot = use.slot();
    const MutexLock lock(slot.line_mutex);
    // Others were before us. A write that blocks would keep even those away who could make room by reading.
    if (wanted.timeoutMs != 0 && !operations.is_writable(use.fd())) return -EAGAIN;
    request.length = 0;
    const SetDirection direction = use.direction();
    if (direction != nullptr && direction(slot.port, kTransmit) != 0) return OSA_EFAIL;
    OSA_sleepMs(kTransmitLead_ms);
    const char *failure = operations.write_failed;
    ssize_t result = operations.write(use.fd(), wanted);
    if (result > 0) {
        failure = operations.wait_empty_failed;
        request.length = static_cast<uint32_t>(result);
        result = operations.wait_empty(use, static_cast<size_t>(result), wanted.timeoutMs);
        if (result == 0) {
            // Turning round now would cut the frame off.
            QEL_ERROR_AS(function, "wait timeout! fd = %d\n", use.fd());
            return QEL_ETIMEOUT;
        }
    }
    const int turned = direction != nullptr ? direction(slot.port, kReceive) : 0;
    if (result < 0) {
        if (result != -ECANCELED) QEL_ERROR_AS(function, "%s", failure);
        return result == -ETIMEDOUT ? QEL_ETIMEOUT : OSA_EFAIL;
    }
    return turned;
}

}  // namespace qel::comm
