// uart.cpp - the driver-UART layer: "/dev/qecUart%d", UARTs that the configuration driver keeps to itself
// and that are used by requests alone.
#include "comm/uart.h"

#include <fcntl.h>
#include <cerrno>
#include <cstdio>

#include "comm/com_slot.h"
#include "comm/port_board.h"
#include "frame/log.h"
#include "os/os.h"

struct UartObject : qel::comm::Slot {
    ComAttribute block QEL_GUARDED_BY(life) = {};  // the driver's settings as the first open found them
};

namespace qel::comm {

namespace {

constexpr uint32_t kGetAttributes = 0xC0044D01;
constexpr uint32_t kSetAttributes = 0xC0044D02;
constexpr uint32_t kDrain = 0xC0044D05;
constexpr uint32_t kRead = 0xC0044D70;
constexpr uint32_t kWrite = 0xC0044D71;
constexpr uint32_t kStart = 0xC0044D72;
constexpr uint32_t kWaitReadable = 0xC0044D80;

struct PurgeRequest {
    uint32_t flag;
    uint32_t request;
};
constexpr PurgeRequest kPurges[] = {
    {QEL_COM_SUSPEND_OUTPUT, 0xC0044D76},
    {QEL_COM_SEND_STOP, 0xC0044D78},
    {QEL_COM_DISCARD_OUTPUT, 0xC0044D75},
    {QEL_COM_DISCARD_INPUT, 0xC0044D74},
};

constexpr int32_t kUnlimited_ms = 50;  // what no limit means here

static_assert(sizeof(ComAttribute) == 8);
static_assert(sizeof(ComIoParam) == (sizeof(void *) == 4 ? 12 : 16));

constinit UartObject objects[QEL_COM_MAX_PORTS];

// ---- how a driver UART does it ----

// The driver writes into the record: it gets one of its own.
int ask(int fd, uint32_t request, ComIoParam record) { return os::ioctl(fd, request, &record); }

int uart_wait_readable(int fd, const ComIoParam &request, int timeout_ms) {
    const int ready = ask(fd, kWaitReadable, {request.buffer, request.length, timeout_ms});
    return ready == -ETIMEDOUT || ready == -EAGAIN ? 0 : ready;
}

ssize_t uart_read(int fd, const ComIoParam &request) {
    const int got = ask(fd, kRead, request);
    return got > static_cast<int64_t>(request.length) ? -EIO : got;
}

bool uart_is_writable(int) { return true; }  // the driver keeps to the request's time

ssize_t uart_write(int fd, const ComIoParam &request) {
    const int put = ask(fd, kWrite, request);
    if (put == 0 && request.timeoutMs != 0) return -ETIMEDOUT;
    return put > static_cast<int64_t>(request.length) ? -EIO : put;
}

int uart_wait_empty(const LineUse &use, size_t, int32_t) {
    const int status = os::ioctl(use.fd(), kDrain, nullptr);
    return status < 0 ? status : 1;
}

constexpr const char *kWriteFailed = "QEC_UART_WRITE failed\n";

constexpr LineOperations kUartOperations = {.wait_readable = uart_wait_readable,
                                            .read = uart_read,
                                            .is_writable = uart_is_writable,
                                            .write = uart_write,
                                            .wait_empty = uart_wait_empty,
                                            .write_failed = kWriteFailed,
                                            .wait_empty_failed = "QEC_UART_TCDRAIN failed\n"};

// ---- opening ----

int start_line(const char *function, UartObject &uart, int opened) QEL_REQUIRES(uart.life) {
    os::Fd fd(opened);
    const int started = os::ioctl(fd.get(), kStart, nullptr);
    if (started < 0) {
        QEL_ERROR_AS(function, "Fail to ioctl uart;status:%d\n", started);
        return OSA_EFAIL;
    }
    if (!is_raw_done(uart)) set_raw_done(uart, os::ioctl(fd.get(), kGetAttributes, &uart.block) >= 0);
    const SetDirection direction = direction_control(is_half_duplex(uart));
    if (direction != nullptr && direction(uart.port, kReceive) != 0) {
        QEL_ERROR_AS(function, " \n");
        return OSA_EFAIL;
    }
    if (attach(uart, {.fd = fd.get(), .direction = direction, .nonblocking = true}) != 0) {
        QEL_ERROR_AS(function, "malloc(sizeof(OpenLine))\n");
        return OSA_EFAIL;
    }
    fd.release();
    return 0;
}

int open_object(const char *function, UartObject &uart) {
    const MutexLock life(uart.life);
    if (open_again(uart)) return 0;
    const MutexLock line(uart.line_mutex);
    const Discard discard(uart);
    char path[32];
    snprintf(path, sizeof(path), "/dev/qecUart%u", uart.port);
    const int fd = os::open(path, O_RDWR);
    if (fd < 0) {
        QEL_ERROR_SHORT("Open device %s failed\n ", path);
        return OSA_EFAIL;
    }
    return start_line(function, uart, fd);
}

bool is_missing(const char *function, UartHandle uart) {
    if (uart != nullptr) return false;
    QEL_ERROR_AS(function, "Para: hUart is NULL!\n");
    return true;
}

// What both read and write refuse; else the request as the driver is to get it, in *fit.
int check(const char *function, const LineUse &use, const ComIoParam &request, ComIoParam *fit) {
    if (is_unfit(use, request)) {
        QEL_ERROR_AS(function, "para invalid buf=%p len=%d fd=%d\n", request.buffer,
                     static_cast<int>(request.length), use.fd());
        return OSA_EFAIL;
    }
    if (request.timeoutMs < -1) {
        QEL_ERROR_AS(function, "para: timeout invalid");
        return OSA_EFAIL;
    }
    *fit = request;
    if (fit->timeoutMs == -1) fit->timeoutMs = kUnlimited_ms;
    return 0;
}

int request_attribute(const char *function, UartHandle uart, uint32_t request, ComAttribute *record) {
    const LineUse use(*uart);
    const int status = os::ioctl(use.fd(), request, record);
    if (status >= 0) return 0;
    QEL_ERROR_AS(function, "uart%u: request %x failed, errno=%d\n", uart->port, request, -status);
    return OSA_EFAIL;
}

int transmit(const char *function, const LineUse &use, ComIoParam &request) {
    if (use.rs485()) return send_frame(function, use, kUartOperations, request);
    const ssize_t put = uart_write(use.fd(), request);
    request.length = put < 0 ? 0 : static_cast<uint32_t>(put);
    if (put >= 0) return 0;
    QEL_ERROR_AS(function, "%s", kWriteFailed);
    return put == -ETIMEDOUT ? QEL_ETIMEOUT : OSA_EFAIL;
}

}  // namespace

void prepare_uart_objects() {
    uint32_t port = 0;
    for (UartObject &uart : objects) prepare_slot(uart, port++);
}

void destroy_uart_objects() {
    for (UartObject &uart : objects) destroy_slot(uart);
}

}  // namespace qel::comm

using namespace qel;
using namespace qel::comm;

extern "C" {

int QEL_uartCreate(UartHandle *hUart, const ComObjDesc *desc) {
    if (hUart == nullptr || desc == nullptr) {
        QEL_ERROR("Para: hUart is NULL!\n");
        return OSA_EFAIL;
    }
    *hUart = nullptr;
    if (desc->port >= QEL_COM_MAX_PORTS) {
        QEL_ERROR("id >= MAX_COMM_NUM\n");
        return OSA_EFAIL;
    }
    UartObject &uart = objects[desc->port];
    const Created created = create_slot(uart, *desc);
    if (created == Created::kFailed) {
        QEL_ERROR_SHORT("Fail to malloc uart object!\n");
        return OSA_EFAIL;
    }
    *hUart = &uart;
    if (created == Created::kShared) return OSA_EFAIL;
    QEL_INFO(">>-----UartObj-port:%d-Create Successed----->>\n", static_cast<int>(desc->port));
    return 0;
}

int QEL_uartDelete(UartHandle hUart) {
    if (is_missing(__func__, hUart)) return OSA_EFAIL;
    const MutexLock life(hUart->life);
    OpenLine *line = nullptr;
    if (delete_slot(*hUart, &line) != 0) {
        QEL_ERROR("uart%u has been deleted\n", hUart->port);
        return OSA_EFAIL;
    }
    if (line != nullptr) abandon(line);
    return 0;
}

int QEL_uartOpen(UartHandle hUart) {
    return is_missing(__func__, hUart) ? OSA_EFAIL : open_object(__func__, *hUart);
}

int QEL_uartClose(UartHandle hUart) {
    if (is_missing(__func__, hUart)) return OSA_EFAIL;
    const MutexLock life(hUart->life);
    OpenLine *line = nullptr;
    if (detach(*hUart, &line) != 0) {
        QEL_ERROR("uart%u is not open\n", hUart->port);
        return OSA_EFAIL;
    }
    if (line != nullptr) abandon(line);
    return 0;
}

int QEL_uartSetAttribute(UartHandle hUart, const ComAttribute *attribute) {
    if (is_missing(__func__, hUart)) return OSA_EFAIL;
    if (attribute == nullptr) {
        QEL_ERROR("para pComAttrbute  is null\n");
        return OSA_EFAIL;
    }
    ComAttribute record = *attribute;
    return request_attribute(__func__, hUart, kSetAttributes, &record);
}

int QEL_uartGetAttribute(UartHandle hUart, ComAttribute *attribute) {
    if (is_missing(__func__, hUart)) return OSA_EFAIL;
    if (attribute == nullptr) {
        QEL_ERROR("para pComAttrbute  is null\n");
        return OSA_EFAIL;
    }
    return request_attribute(__func__, hUart, kGetAttributes, attribute);
}

int QEL_uartRead(UartHandle hUart, ComIoParam *request) {
    if (is_missing(__func__, hUart)) return OSA_EFAIL;
    if (request == nullptr) {
        QEL_ERROR("para is NULL");
        return OSA_EFAIL;
    }
    const LineUse use(*hUart);
    ComIoParam fit{};
    if (check(__func__, use, *request, &fit) != 0) return OSA_EFAIL;
    const int status = receive(__func__, use, kUartOperations, fit);
    request->length = fit.length;
    return status;
}

int QEL_uartWrite(UartHandle hUart, ComIoParam *request) {
    if (is_missing(__func__, hUart)) return OSA_EFAIL;
    if (request == nullptr) {
        QEL_ERROR("para is NULL");
        return OSA_EFAIL;
    }
    const LineUse use(*hUart);
    ComIoParam fit{};
    if (check(__func__, use, *request, &fit) != 0) return OSA_EFAIL;
    const int status = transmit(__func__, use, fit);
    request->length = fit.length;
    return status;
}

int QEL_uartPurge(UartHandle hUart, uint32_t flag) {
    if (is_missing(__func__, hUart)) return OSA_EFAIL;
    for (const PurgeRequest &purge : kPurges) {
        if (purge.flag != flag) continue;
        const LineUse use(*hUart);
        const Discard discard(*hUart);
        const int status = os::ioctl(use.fd(), purge.request, nullptr);
        if (status >= 0) return 0;
        QEL_ERROR("uart%u: purge %u failed, errno=%d\n", hUart->port, flag, -status);
        return OSA_EFAIL;
    }
    QEL_ERROR("Unknow flag\n");
    return OSA_EFAIL;
}

}  // extern "C"
