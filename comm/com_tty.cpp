#include "comm/com_tty.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <algorithm>
#include <cerrno>

#include "comm/com_attribute.h"
#include "frame/log.h"
#include "os/os.h"

namespace qel::comm {

namespace {

constexpr int32_t kWriteSlice_ms = 50;
// Of a write in pieces: what a line that polls writable takes without making the writer wait.
constexpr size_t kPieceBytes = 1024;
// Around the moment when a frame should be out the line is watched without pause.
constexpr uint64_t kWatchBefore_ms = 2;
constexpr uint64_t kWatchAfter_ms = 4;

int wait_for_bytes(int fd, const ComIoParam &, int timeout_ms) {
    return os::wait(fd, POLLIN | POLLPRI, timeout_ms);
}

ssize_t take_bytes(int fd, const ComIoParam &request) { return os::read(fd, request.buffer, request.length); }

bool is_writable(int fd) { return os::wait(fd, POLLOUT, 0) > 0; }

ssize_t put_bytes(int fd, const ComIoParam &request) { return os::write(fd, request.buffer, request.length); }

int drain(int fd) {
    const int status = os::term_drain(fd);
    return status < 0 ? status : 1;
}

// Sleeps while the frame cannot be out yet, and again when it is overdue; not around its end, for who
// turns the line round late loses the start of the reply.
void pause_until_empty(uint64_t end_ms, const TimeLeft &left) {
    const uint64_t now_ms = OSA_timeMs();
    const auto most_ms = static_cast<uint64_t>(left.slice_ms(kWriteSlice_ms));
    if (now_ms + kWatchBefore_ms < end_ms)
        OSA_sleepMs(static_cast<unsigned>(std::min(end_ms - kWatchBefore_ms - now_ms, most_ms)));
    else if (now_ms > end_ms + kWatchAfter_ms)
        OSA_sleepMs(1);
}

int watch_line_status(const LineUse &use, size_t bytes, int32_t timeout_ms) {
    const TimeLeft left(timeout_ms);
    termios settings{};
    os::term_get(use.fd(), &settings);
    const uint64_t end_ms = OSA_timeMs() + transmission_us(settings, bytes) / 1000;
    for (;;) {
        uint32_t status = 0;
        const int got = os::line_status(use.fd(), &status);
        if (got == -ENOTTY) return drain(use.fd());  // a line that cannot tell
        if (got < 0) return got;
        if ((status & TIOCSER_TEMT) != 0) return 1;
        if (left.is_over()) return 0;
        // A frame that is going out is not cut off by a close.
        if (timeout_ms < 0 && OSA_timeMs() > end_ms + kWatchAfter_ms) {
            if (const int over = use.over(); over != 0) return over;
        }
        pause_until_empty(end_ms, left);
    }
}

int wait_until_empty(const LineUse &use, size_t bytes, int32_t timeout_ms) {
    return use.polls_line_status() ? watch_line_status(use, bytes, timeout_ms) : drain(use.fd());
}

constexpr const char *kWriteFailed = "write failed\n";

constexpr LineOperations kTtyOperations = {.wait_readable = wait_for_bytes,
                                           .read = take_bytes,
                                           .is_writable = is_writable,
                                           .write = put_bytes,
                                           .wait_empty = wait_until_empty,
                                           .write_failed = kWriteFailed,
                                           .wait_empty_failed = kWriteFailed};

// ---- writing without direction control ----

// > 0 writable, 0 time over, -errno.
int wait_writable(const LineUse &use, const TimeLeft &left) {
    for (;;) {
        const int ready = os::wait(use.fd(), POLLOUT, left.slice_ms(kWriteSlice_ms));
        if (ready != 0) return ready;
        if (const int over = use.over(); over != 0) return over;
        if (left.is_over()) return 0;
    }
}

int no_room(const char *function, const LineUse &use) {
    QEL_ERROR_AS(function, "select wait timeout! fd = %d\n", use.fd());
    return QEL_ETIMEOUT;
}

// All of it, or what went out in time; a line that took nothing at all timed out.
int write_pieces(const char *function, const LineUse &use, const ComIoParam &wanted, const TimeLeft &left,
                 uint32_t *done) {
    const auto *bytes = static_cast<const uint8_t *>(wanted.buffer);
    for (;;) {
        const ssize_t put =
            os::write(use.fd(), bytes + *done, std::min<size_t>(wanted.length - *done, kPieceBytes));
        if (put < 0 && put != -EAGAIN) {
            QEL_ERROR_AS(function, "%s", kWriteFailed);
            return OSA_EFAIL;
        }
        if (put > 0) {
            *done += static_cast<uint32_t>(put);
            os::term_drain(use.fd());
        }
        if (*done == wanted.length) return 0;
        const int ready = left.is_over() ? 0 : wait_writable(use, left);
        if (ready == 0) return *done > 0 ? 0 : no_room(function, use);
        if (ready < 0) {
            log_failed_wait(function, ready);
            return OSA_EFAIL;
        }
    }
}

int write_once(const char *function, const LineUse &use, const ComIoParam &wanted, uint32_t *done) {
    const ssize_t put = put_bytes(use.fd(), wanted);
    if (put < 0) {
        QEL_ERROR_AS(function, "%s", kWriteFailed);
        return OSA_EFAIL;
    }
    *done = static_cast<uint32_t>(put);
    return 0;
}

// 0, or a status that is logged: the line took nothing in time, or failed.
int await_writable(const char *function, const LineUse &use, const TimeLeft &left) {
    const int ready = wait_writable(use, left);
    if (ready > 0) return 0;
    if (ready == 0) return no_room(function, use);
    log_failed_wait(function, ready);
    return OSA_EFAIL;
}

int transmit_frame(const char *function, const LineUse &use, ComIoParam &request, const TimeLeft &left) {
    for (;;) {
        const int status = send_frame(function, use, kTtyOperations, request);
        if (status != -EAGAIN) return status;
        const int ready = await_writable(function, use, left);
        if (ready == 0) continue;
        request.length = 0;
        return ready;
    }
}

int transmit(const char *function, const LineUse &use, ComIoParam &request) {
    const ComIoParam wanted = request;
    const TimeLeft left(wanted.timeoutMs);
    if (use.rs485()) return transmit_frame(function, use, request, left);
    request.length = 0;
    if (wanted.timeoutMs == 0) return write_once(function, use, wanted, &request.length);
    // A line that does not block says itself that it has no room; to ask it first costs as much as the write.
    const int ready = use.nonblocking() ? 0 : await_writable(function, use, left);
    return ready != 0 ? ready : write_pieces(function, use, wanted, left, &request.length);
}

bool has_unfit_timeout(const char *function, const ComIoParam &request) {
    if (request.timeoutMs >= -1) return false;
    QEL_ERROR_AS(function, "para: timeout invalid");
    return true;
}

bool is_closed(const char *function, const LineUse &use) {
    if (use.fd() >= 0) return false;
    QEL_ERROR_AS(function, "port %u is not open\n", use.slot().port);
    return true;
}

}  // namespace

int tty_read(const char *function, Slot &slot, ComIoParam &request) {
    const LineUse use(slot);
    if (is_unfit(use, request)) {
        QEL_ERROR_AS(function, "para invalid len = %d fd = %d", static_cast<int>(request.length), use.fd());
        return OSA_EFAIL;
    }
    if (has_unfit_timeout(function, request)) return OSA_EFAIL;
    return receive(function, use, kTtyOperations, request);
}

int tty_write(const char *function, Slot &slot, ComIoParam &request) {
    const LineUse use(slot);
    if (is_unfit(use, request)) {
        QEL_ERROR_AS(function, "para invalid buf=%p len=%d fd=%d\n", request.buffer,
                     static_cast<int>(request.length), use.fd());
        return OSA_EFAIL;
    }
    if (has_unfit_timeout(function, request)) return OSA_EFAIL;
    return transmit(function, use, request);
}

int tty_set_attribute(const char *function, Slot &slot, const ComAttribute *attribute) {
    if (attribute == nullptr) {
        QEL_ERROR_AS(function, "para pComAttrbute  is null\n");
        return OSA_EFAIL;
    }
    const MutexLock life(slot.life);
    const LineUse use(slot);
    if (is_closed(function, use)) return OSA_EFAIL;
    settle_line();
    const MutexLock line(slot.line_mutex);  // not in the middle of a frame
    const Discard discard(slot);
    return apply_line_attribute(function, use.fd(), *attribute);
}

int tty_purge(const char *function, Slot &slot, uint32_t flag) {
    const LineUse use(slot);
    if (is_closed(function, use)) return OSA_EFAIL;
    int status = 0;
    switch (flag) {
        case QEL_COM_SUSPEND_OUTPUT:
            status = os::term_flow(use.fd(), TCOOFF);
            break;
        case QEL_COM_SEND_STOP:
            status = os::term_flow(use.fd(), TCIOFF);
            break;
        case QEL_COM_DISCARD_OUTPUT:
            status = os::term_flush(use.fd(), TCOFLUSH);
            break;
        case QEL_COM_DISCARD_INPUT: {
            const Discard discard(slot);
            status = os::term_flush(use.fd(), TCIFLUSH);
            break;
        }
        default:
            QEL_ERROR_AS(function, "Unknow flag\n");
            return OSA_EFAIL;
    }
    if (status >= 0) return 0;
    QEL_ERROR_AS(function, "port %u: purge %u failed, errno=%d\n", slot.port, flag, -status);
    return OSA_EFAIL;
}

}  // namespace qel::comm
