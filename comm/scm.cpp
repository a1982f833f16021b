#include "comm/scm.h"

#include <fcntl.h>
#include <cstdio>
#include <new>

#include "comm/com_attribute.h"
#include "comm/com_tty.h"
#include "frame/log.h"
#include "os/os.h"
#include "qel/serial_driver.h"

struct ScmLine : qel::comm::Slot {
    explicit ScmLine(const char *node_prefix) : prefix(node_prefix) {}
    const char *const prefix;
};

namespace qel::comm {

namespace {

bool is_missing(const char *function, ScmHandle line) {
    if (line != nullptr) return false;
    QEL_ERROR_AS(function, "Para: hScm is NULL!\n");
    return true;
}

bool is_missing(const char *function, ScmHandle line, const void *record) {
    if (line != nullptr && record != nullptr) return false;
    QEL_ERROR_AS(function, "para is NULL");
    return true;
}

// Non-blocking: nobody waits on the line but with a limit.
int open_line(const char *function, ScmLine &own) {
    const MutexLock life(own.life);
    if (open_again(own)) return 0;
    char path[32];
    snprintf(path, sizeof(path), "%s%u", own.prefix, own.port);
    os::Fd fd(os::open(path, O_RDWR | O_NOCTTY | O_NONBLOCK));
    if (!fd.is_open()) {
        QEL_ERROR_SHORT("Open device %s failed\n ", path);
        return OSA_EFAIL;
    }
    termios before{};
    if (make_line_raw(function, fd.get(), before) != 0) QEL_ERROR_SHORT("tty_raw error!!\n");
    if (attach(own, {.fd = fd.get(), .nonblocking = true}) != 0) {
        QEL_ERROR_AS(function, "malloc(sizeof(OpenLine))\n");
        return OSA_EFAIL;
    }
    fd.release();
    return 0;
}

}  // namespace

ScmHandle create_own_line(const char *function, const char *prefix, uint32_t port) {
    void *memory = OSA_memCalloc(sizeof(ScmLine));
    if (memory != nullptr) {
        auto *line = new (memory) ScmLine(prefix);
        prepare_slot(*line, port);
        if (create_slot(*line, {port, 0, 0}) == Created::kFresh) return line;
        destroy_slot(*line);
        OSA_memFree(line);
    }
    QEL_ERROR_AS(function, "malloc(sizeof(ScmLine))\n");
    return nullptr;
}

}  // namespace qel::comm

using namespace qel;
using namespace qel::comm;

extern "C" {

int QEL_scmCreate(ScmHandle *hScm, uint32_t port) {
    if (hScm == nullptr) {
        QEL_ERROR("Para: hScm is NULL!\n");
        return OSA_EFAIL;
    }
    *hScm = create_own_line(__func__, QEL_SCM_DEVICE_PREFIX, port);
    return *hScm != nullptr ? 0 : OSA_EFAIL;
}

int QEL_scmDelete(ScmHandle hScm) {
    if (is_missing(__func__, hScm)) return OSA_EFAIL;
    destroy_slot(*hScm);
    OSA_memFree(hScm);
    return 0;
}

int QEL_scmOpen(ScmHandle hScm) {
    return is_missing(__func__, hScm) ? OSA_EFAIL : open_line(__func__, *hScm);
}

int QEL_scmClose(ScmHandle hScm) {
    if (is_missing(__func__, hScm)) return OSA_EFAIL;
    const MutexLock life(hScm->life);
    OpenLine *line = nullptr;
    if (detach(*hScm, &line) != 0) {
        QEL_ERROR("port %u is not open\n", hScm->port);
        return OSA_EFAIL;
    }
    if (line != nullptr) abandon(line);
    return 0;
}

int QEL_scmSetAttribute(ScmHandle hScm, const ComAttribute *attribute) {
    return is_missing(__func__, hScm) ? OSA_EFAIL : tty_set_attribute(__func__, *hScm, attribute);
}

int QEL_scmRead(ScmHandle hScm, ComIoParam *request) {
    return is_missing(__func__, hScm, request) ? OSA_EFAIL : tty_read(__func__, *hScm, *request);
}

int QEL_scmWrite(ScmHandle hScm, ComIoParam *request) {
    return is_missing(__func__, hScm, request) ? OSA_EFAIL : tty_write(__func__, *hScm, *request);
}

int QEL_scmPurge(ScmHandle hScm, uint32_t flag) {
    return is_missing(__func__, hScm) ? OSA_EFAIL : tty_purge(__func__, *hScm, flag);
}

}  // extern "C"
