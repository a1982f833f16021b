// linux.cpp - the kernel of this machine behind the gate.
#include <dirent.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/reboot.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "os/os.h"

namespace qel::os {

namespace {

template <typename T>
T or_errno(T result) {
    return result < 0 ? static_cast<T>(-errno) : result;
}

int linux_open(const char *path, int flags, unsigned mode) { return or_errno(::open(path, flags, mode)); }

int linux_close(int fd) { return or_errno(::close(fd)); }

ssize_t linux_read(int fd, void *buffer, size_t bytes) { return or_errno(::read(fd, buffer, bytes)); }

ssize_t linux_write(int fd, const void *buffer, size_t bytes) { return or_errno(::write(fd, buffer, bytes)); }

int64_t linux_seek(int fd, int64_t offset, int whence) {
    return or_errno(int64_t{::lseek64(fd, offset, whence)});
}

int linux_ioctl(int fd, uint32_t request, void *argument) {
    return or_errno(::ioctl(fd, static_cast<unsigned long>(request), argument));
}

int linux_poll(pollfd *fds, unsigned count, int timeout_ms) {
    return or_errno(::poll(fds, count, timeout_ms));
}

int linux_map(int fd, size_t bytes, int protection, int flags, int64_t offset, void **out) {
    void *address = ::mmap64(nullptr, bytes, protection, flags, fd, offset);
    if (address == MAP_FAILED) return -errno;
    *out = address;
    return 0;
}

int linux_unmap(void *address, size_t bytes) { return or_errno(::munmap(address, bytes)); }

int linux_sync(int fd) { return or_errno(::fsync(fd)); }

int linux_truncate(int fd, int64_t bytes) { return or_errno(::ftruncate64(fd, bytes)); }

int linux_set_mode(int fd, unsigned mode) { return or_errno(::fchmod(fd, mode)); }

void fill_info(const struct stat64 &from, qel_os_file_info *out) {
    out->size_bytes = from.st_size;
    out->mtime_ms = int64_t{from.st_mtim.tv_sec} * 1000 + from.st_mtim.tv_nsec / 1000000;
    out->mode = from.st_mode;
}

int linux_stat(const char *path, qel_os_file_info *out) {
    struct stat64 found {};
    if (::stat64(path, &found) != 0) return -errno;
    fill_info(found, out);
    return 0;
}

int linux_list(const char *path, qel_os_visit visit, void *context) {
    DIR *directory = ::opendir(path);
    if (directory == nullptr) return -errno;
    int result = 0;
    for (;;) {
        errno = 0;
        const dirent64 *entry = ::readdir64(directory);
        if (entry == nullptr) {
            result = -errno;
            break;
        }
        if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
        struct stat64 found {};
        if (::fstatat64(::dirfd(directory), entry->d_name, &found, AT_SYMLINK_NOFOLLOW) != 0)
            continue;  // removed since readdir saw it
        qel_os_file_info info{};
        fill_info(found, &info);
        if (visit(context, entry->d_name, &info) != 0) break;
    }
    ::closedir(directory);
    return result;
}

int linux_make_dir(const char *path, unsigned mode) { return or_errno(::mkdir(path, mode)); }

int linux_remove(const char *path) { return or_errno(::remove(path)); }

int linux_rename(const char *from, const char *to) { return or_errno(::rename(from, to)); }

int linux_term_get(int fd, termios *out) { return or_errno(::tcgetattr(fd, out)); }

int linux_term_set(int fd, int when, const termios *settings) {
    return or_errno(::tcsetattr(fd, when, settings));
}

int linux_term_flush(int fd, int queue) { return or_errno(::tcflush(fd, queue)); }

int linux_term_drain(int fd) { return or_errno(::tcdrain(fd)); }

int linux_term_flow(int fd, int action) { return or_errno(::tcflow(fd, action)); }

int linux_line_status(int fd, uint32_t *out) { return or_errno(::ioctl(fd, TIOCSERGETLSR, out)); }

int linux_unmount(const char *path) { return or_errno(::umount(path)); }

int linux_run(const char *command) {
    const int status = ::system(command);
    if (status < 0) return -errno;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int linux_reboot(int command) { return or_errno(::reboot(command)); }

constexpr qel_os_ops kLinuxOps = {
    linux_open,     linux_close,      linux_read,       linux_write,     linux_seek,        linux_ioctl,
    linux_poll,     linux_map,        linux_unmap,      linux_sync,      linux_truncate,    linux_set_mode,
    linux_stat,     linux_list,       linux_make_dir,   linux_remove,    linux_rename,      linux_term_get,
    linux_term_set, linux_term_flush, linux_term_drain, linux_term_flow, linux_line_status, linux_unmount,
    linux_run,      linux_reboot,
};

}  // namespace

const qel_os_ops &linux_ops() { return kLinuxOps; }

}  // namespace qel::os
