// com.cpp - the tty layer: a Linux tty per port, raw, with the direction line of RS-485 driven around
// every frame.
#include "comm/com.h"

#include <fcntl.h>
#include <cstdio>

#include "comm/com_attribute.h"
#include "comm/com_console.h"
#include "comm/com_slot.h"
#include "comm/com_tty.h"
#include "comm/port_board.h"
#include "frame/log.h"

struct ComObject : qel::comm::Slot {
    int boot_fd QEL_GUARDED_BY(life) = -1;
    termios saved QEL_GUARDED_BY(life) = {};  // the line's settings before it was raw
    unsigned users QEL_GUARDED_BY(life) = 0;  // of a line that is no tty, as the console knows it
};

namespace qel::comm {

namespace {

constexpr int kUsbBaud = 115200;
constexpr uint32_t kConsolePort = 0;
constexpr const char *kShellTty = "QEL_shellTty";
constexpr const char *kUsbNodes[] = {"/dev/ttyXRUSB0", "/dev/ttyUSB0"};

constinit ComObject objects[QEL_COM_MAX_PORTS];

// ---- settings ----

// Settings that were kept and not put back since are still the line's own.
int make_raw(const char *function, ComObject &com, int fd) QEL_REQUIRES(com.life) {
    termios before{};
    if (make_line_raw(function, fd, before) != 0) return OSA_EFAIL;
    if (!is_raw_done(com)) com.saved = before;
    set_raw_done(com, true);
    return 0;
}

// A line that hung up cannot be set any more, nor does it need to be.
void restore(ComObject &com, int fd) QEL_REQUIRES(com.life) {
    if (is_raw_done(com)) os::term_set(fd, TCSANOW, com.saved);
    set_raw_done(com, false);
}

// ---- opening and closing ----

bool is_nonblocking(const ComObject &com) { return opens_nonblocking(product_rules(), com.port); }

int open_flags(const ComObject &com) { return O_RDWR | O_NOCTTY | (is_nonblocking(com) ? O_NONBLOCK : 0); }

int open_tty(const char *, ComObject &com) {
    const NameFacts facts = name_facts(com.port);
    const TtyName name = tty_name(facts);
    char path[32];
    snprintf(path, sizeof(path), "%s%u", name.prefix, name.number);
    if (facts.tty_given) QEL_INFO("tty_port:[%d]; tty_name:[%s]\n", static_cast<int>(com.port), path);
    const int fd = os::open(path, open_flags(com));
    if (fd < 0) QEL_ERROR_SHORT("Open device %s failed\n ", path);
    return fd;
}

int open_usb(const char *function, ComObject &com) {
    const int flags = open_flags(com);
    os::Fd fd(os::open(kUsbNodes[0], flags));
    if (!fd.is_open()) {
        QEL_WARN_SHORT("Open device %s failed\n ", kUsbNodes[0]);
        fd.reset(os::open(kUsbNodes[1], flags));
    }
    if (!fd.is_open()) {
        QEL_ERROR_SHORT("Open device %s failed\n ", kUsbNodes[1]);
        return -1;
    }
    if (QEL_setTtyUsbSpeed(fd.get(), kUsbBaud) != 0) {
        QEL_ERROR_AS(function, "set_USB speed failed\n");
        return -1;
    }
    if (QEL_setTtyUsbParity(fd.get(), 8, 1, 's') != 0) {
        QEL_ERROR_AS(function, "set no parity failed\n");
        return -1;
    }
    return fd.release();
}

int tell_console_of(ComObject &com, int fd) QEL_REQUIRES(com.life) {
    return tell_console(kShellTty, &com.boot_fd, fd);
}

// What fails here is in the log, and the line works without it.
void take_from_console(ComObject &com, int fd) QEL_REQUIRES(com.life) {
    tell_console_of(com, fd);
    os::term_flush(fd, TCIOFLUSH);
    if (!product_rules().hardware_direction) QEL_ChangeCtl(com.port, 1);
}

// Settings stay with a line, but for the console's: it is an echoing terminal again. Not under the requests
// that are still under way, which would have the line talk to itself.
void leave_line(ComObject &com, int fd) QEL_REQUIRES(com.life) {
    if (com.port != kConsolePort) return;
    if (is_idle(com)) restore(com, fd);
    tell_console_of(com, -1);
}

int start_line(const char *function, ComObject &com, int opened) QEL_REQUIRES(com.life) {
    os::Fd fd(opened);
    if (make_raw("QEL_TtyRaw", com, fd.get()) != 0) QEL_ERROR_SHORT("tty_raw error!!\n");
    if (com.port == kConsolePort) take_from_console(com, fd.get());
    const SetDirection direction = direction_control(is_half_duplex(com));
    if (direction != nullptr && direction(com.port, kReceive) != 0) {
        QEL_ERROR_AS(function, " \n");
        leave_line(com, fd.get());
        return OSA_EFAIL;
    }
    const NewLine line{.fd = fd.get(),
                       .direction = direction,
                       .polls_line_status = board_polls_line_status(),
                       .nonblocking = is_nonblocking(com)};
    if (attach(com, line) != 0) {
        QEL_ERROR_AS(function, "malloc(sizeof(OpenLine))\n");
        leave_line(com, fd.get());
        return OSA_EFAIL;
    }
    fd.release();
    QEL_INFO("-->>-----QEL_comOpen:  %d  -Successed----->>\n", static_cast<int>(com.port));
    return 0;
}

int open_object(const char *function, ComObject &com, int (*open_device)(const char *, ComObject &)) {
    const MutexLock life(com.life);
    if (open_again(com)) return 0;
    const MutexLock line(com.line_mutex);
    const Discard discard(com);  // requests may still be under way on the line as it was opened before
    const int fd = open_device(function, com);
    return fd < 0 ? OSA_EFAIL : start_line(function, com, fd);
}

void close_object(ComObject &com, OpenLine *line) QEL_REQUIRES(com.life) {
    if (line == nullptr) return;
    leave_line(com, line->fd);
    abandon(line);
}

// ---- exported functions' checks ----

bool is_missing(const char *function, ComHandle com) {
    if (com != nullptr) return false;
    QEL_ERROR_AS(function, "Para: hCom is NULL!\n");
    return true;
}

bool has_illegal_id(const char *function, int port) {
    if (port >= 0 && port < static_cast<int>(QEL_COM_MAX_PORTS)) return false;
    QEL_ERROR_AS(function, "com  id = %d >%d illegal\n", port, static_cast<int>(QEL_COM_MAX_PORTS));
    return true;
}

}  // namespace

void prepare_com_objects() {
    uint32_t port = 0;
    for (ComObject &com : objects) prepare_slot(com, port++);
}

void destroy_com_objects() {
    for (ComObject &com : objects) {
        {
            const MutexLock life(com.life);
            if (com.boot_fd >= 0) os::close(com.boot_fd);
            com.boot_fd = -1;
            com.users = 0;
        }
        destroy_slot(com);
    }
}

void add_console_user(int port, int fd) {
    if (has_illegal_id(kShellTty, port)) return;
    ComObject &com = objects[port];
    const MutexLock life(com.life);
    ++com.users;
    tell_console_of(com, fd);
}

void drop_console_user(int port) {
    if (has_illegal_id(kShellTty, port)) return;
    ComObject &com = objects[port];
    const MutexLock life(com.life);
    if (com.users > 0 && --com.users == 0) tell_console_of(com, -1);
}

}  // namespace qel::comm

using namespace qel;
using namespace qel::comm;

extern "C" {

int QEL_comCreate(ComHandle *hCom, const ComObjDesc *desc) {
    if (hCom == nullptr || desc == nullptr) {
        QEL_ERROR("Para: hCom is NULL!\n");
        return OSA_EFAIL;
    }
    *hCom = nullptr;
    if (desc->port >= QEL_COM_MAX_PORTS) {
        QEL_ERROR("id >= MAX_COMM_NUM\n");
        return OSA_EFAIL;
    }
    ComObject &com = objects[desc->port];
    const Created created = create_slot(com, *desc);
    if (created == Created::kFailed) {
        QEL_ERROR_SHORT("Fail to create mutex!\n");
        return OSA_EFAIL;
    }
    *hCom = &com;
    if (created == Created::kShared) return OSA_EFAIL;
    QEL_INFO("-->>-----ComObj-port: %d Create Successed----->>\n", static_cast<int>(desc->port));
    return 0;
}

int QEL_comDelete(ComHandle hCom) {
    if (is_missing(__func__, hCom)) return OSA_EFAIL;
    const MutexLock life(hCom->life);
    OpenLine *line = nullptr;
    if (delete_slot(*hCom, &line) != 0) {
        QEL_ERROR("com%u has been deleted\n", hCom->port);
        return OSA_EFAIL;
    }
    close_object(*hCom, line);
    return 0;
}

int QEL_comOpen(ComHandle hCom) {
    return is_missing(__func__, hCom) ? OSA_EFAIL : open_object(__func__, *hCom, open_tty);
}

int QEL_comOpen_usb(ComHandle hCom) {
    return is_missing(__func__, hCom) ? OSA_EFAIL : open_object(__func__, *hCom, open_usb);
}

int QEL_comClose(ComHandle hCom) {
    if (is_missing(__func__, hCom)) return OSA_EFAIL;
    const MutexLock life(hCom->life);
    OpenLine *line = nullptr;
    if (detach(*hCom, &line) != 0) {
        QEL_ERROR("com%u is not open\n", hCom->port);
        return OSA_EFAIL;
    }
    close_object(*hCom, line);
    return 0;
}

int QEL_comSetAttribute(ComHandle hCom, const ComAttribute *attribute) {
    return is_missing(__func__, hCom) ? OSA_EFAIL : tty_set_attribute(__func__, *hCom, attribute);
}

int QEL_comGetAttribute(ComHandle hCom, ComAttribute *attribute) {
    if (is_missing(__func__, hCom)) return OSA_EFAIL;
    if (attribute == nullptr) {
        QEL_ERROR("para pComAttrbute  is null\n");
        return OSA_EFAIL;
    }
    const LineUse use(*hCom);
    termios settings{};
    if (os::term_get(use.fd(), &settings) < 0) {
        QEL_ERROR("tcgetattr  error!! \n");
        return OSA_EFAIL;
    }
    *attribute = attribute_of(__func__, settings);
    return 0;
}

int QEL_comRead(ComHandle hCom, ComIoParam *request) {
    if (is_missing(__func__, hCom)) return OSA_EFAIL;
    if (request == nullptr) {
        QEL_ERROR("para is NULL");
        return OSA_EFAIL;
    }
    return tty_read(__func__, *hCom, *request);
}

int QEL_comWrite(ComHandle hCom, ComIoParam *request) {
    if (is_missing(__func__, hCom)) return OSA_EFAIL;
    if (request == nullptr) {
        QEL_ERROR("para is NULL");
        return OSA_EFAIL;
    }
    return tty_write(__func__, *hCom, *request);
}

int QEL_comPurge(ComHandle hCom, uint32_t flag) {
    return is_missing(__func__, hCom) ? OSA_EFAIL : tty_purge(__func__, *hCom, flag);
}

int QEL_setComType(ComHandle hCom, uint32_t port, uint32_t rs232) {
    if (is_missing(__func__, hCom)) return OSA_EFAIL;
    if (QEL_ChangeCtl(port, rs232 != 0 ? 1 : 0) != 0) {
        QEL_ERROR("com change type failed \n");
        return OSA_EFAIL;
    }
    set_rs485(*hCom, rs232 == 0);
    return 0;
}

int QEL_comGetPriv(ComHandle hCom, ComPriv *out) {
    if (is_missing(__func__, hCom)) return OSA_EFAIL;
    if (out == nullptr) {
        QEL_ERROR("para is NULL");
        return OSA_EFAIL;
    }
    describe(*hCom, out);
    return 0;
}

int QEL_TtyRaw(int port) {
    if (has_illegal_id(__func__, port)) return OSA_EFAIL;
    ComObject &com = objects[port];
    const MutexLock life(com.life);
    const LineUse use(com);
    const Discard discard(com);
    return make_raw(__func__, com, use.fd());
}

int QEL_TtyExit(int port) {
    if (has_illegal_id(__func__, port)) return OSA_EFAIL;
    ComObject &com = objects[port];
    const MutexLock life(com.life);
    OpenLine *line = detach_all(com);
    if (line == nullptr) return 0;
    restore(com, line->fd);
    close_object(com, line);
    return 0;
}

int QEL_shellTty(int port, unsigned status, int fd) {
    if (has_illegal_id(__func__, port)) return OSA_EFAIL;
    if (status > 1) {
        QEL_ERROR("status = %d\n", static_cast<int>(status));
        return OSA_EFAIL;
    }
    ComObject &com = objects[port];
    const MutexLock life(com.life);
    return tell_console_of(com, status == 0 ? fd : -1);
}

}  // extern "C"
