#include "comm/com_console.h"

#include <fcntl.h>
#include <cstdio>

#include "frame/log.h"

namespace qel::comm {

namespace {

constexpr const char *kBootFile = "/var/tmp/BootInfo/bootpara";
constexpr const char *kKernelBootFile = "/proc/BootInfo/bootpara";

}  // namespace

int tell_console(const char *function, int *boot_fd, int fd) {
    const char *path = os::exists(kBootFile) ? kBootFile : kKernelBootFile;
    if (*boot_fd < 0) *boot_fd = os::open(path, O_RDWR);
    if (*boot_fd < 0) {
        QEL_ERROR_AS(function, "open %s failed!\n", path);
        *boot_fd = -1;
        return OSA_EFAIL;
    }
    char text[16];
    const int length = snprintf(text, sizeof(text), "fd %d", fd);
    if (os::write_full(*boot_fd, text, static_cast<size_t>(length)) < 0) {
        QEL_ERROR_AS(function, "write %s failed !\n", path);
        return OSA_EFAIL;
    }
    return 0;
}

}  // namespace qel::comm
