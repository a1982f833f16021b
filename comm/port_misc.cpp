#include "comm/port_misc.h"

#include <fcntl.h>

#include "frame/log.h"
#include "frame/mutex.h"
#include "os/os.h"
#include "qel/misc_driver.h"
#include "qel/serial.h"

namespace qel::comm {

namespace {

constexpr uint32_t kSetDirection = 0xC0044D04;  // LineState
constexpr uint32_t kGetPortMap = 0xC0044D08;    // ComMap
constexpr uint32_t kSetLineMode = 0xC0044D20;   // LineState
constexpr uint32_t kGetStatus = 0xC0044D29;     // u32: the port, replaced by its status

struct LineState {
    uint32_t port;
    uint32_t state;
};
static_assert(sizeof(LineState) == 8);
static_assert(sizeof(ComMapItem) == 60 && sizeof(ComMap) == 692);
static_assert(offsetof(ComMapItem, directionLine) == 16 && offsetof(ComMapItem, statusLine) == 32);
static_assert(offsetof(ComMapItem, countedIfRs485) == 41 && offsetof(ComMapItem, commType) == 48);

constinit Mutex misc_mutex;
constinit int misc_fd QEL_GUARDED_BY(misc_mutex) = -1;

int descriptor() {
    const MutexLock lock(misc_mutex);
    if (misc_fd < 0) misc_fd = os::open(QEL_MISC_DEVICE, O_RDWR);
    return misc_fd;
}

// 0 or more, or -errno.
int request(uint32_t code, void *record) {
    const int fd = descriptor();
    return fd < 0 ? fd : os::ioctl(fd, code, record);
}

}  // namespace

int misc_init() { return misc_mutex.create(); }

void misc_deinit() {
    {
        const MutexLock lock(misc_mutex);
        if (misc_fd >= 0) os::close(misc_fd);
        misc_fd = -1;
    }
    misc_mutex.destroy();
}

}  // namespace qel::comm

using namespace qel;
using namespace qel::comm;

extern "C" {

int QEL_comGetMapInfo(ComMap *out) {
    if (out == nullptr) {
        QEL_ERROR("Para: out is NULL!\n");
        return OSA_EFAIL;
    }
    return request(kGetPortMap, out) < 0 ? OSA_EFAIL : 0;
}

int QEL_485SetCtl(uint32_t port, uint32_t state) {
    LineState record{port, state};
    const int status = request(kSetDirection, &record);
    if (status >= 0) return 0;
    QEL_ERROR("Fail to set 485 direction of port %u to %u, errno=%d\n", port, state, -status);
    return OSA_EFAIL;
}

int QEL_ChangeCtl(uint32_t port, uint32_t rs232) {
    LineState record{port, rs232};
    if (request(kSetLineMode, &record) >= 0) return 0;
    QEL_ERROR("Fail to change 485/232 \n");
    return OSA_EFAIL;
}

int QEL_Get485Status(uint32_t port, uint32_t *status) {
    if (status == nullptr) {
        QEL_ERROR("Para: status is NULL!\n");
        return OSA_EFAIL;
    }
    uint32_t word = port;
    if (request(kGetStatus, &word) < 0) return OSA_EFAIL;  // the caller knows what it wanted it for
    *status = word;
    return 0;
}

}  // extern "C"
