// os.h - the gate: libqel's only contact with the kernel.
//
// Every call returns its value (0 or more) or -errno; errno itself is never part of the contract.
// Interrupted calls are restarted with the time that is left. Descriptors are opened close-on-exec.
// Time-outs are milliseconds of the world the process lives in, -1 = for ever, 0 = no wait.
#pragma once

#include <sys/types.h>
#include <cstddef>
#include <cstdint>

#include "os/hook.h"

namespace qel::os {

using FileInfo = qel_os_file_info;

int open(const char *path, int flags, unsigned mode = 0);
int close(int fd);
ssize_t read(int fd, void *buffer, size_t bytes);
ssize_t write(int fd, const void *buffer, size_t bytes);
int64_t seek(int fd, int64_t offset, int whence);
int ioctl(int fd, uint32_t request, void *argument);

// Waits for any of `count` descriptors; 0 when the time is over.
int poll(pollfd *fds, unsigned count, int timeout_ms);
// Waits for one descriptor: > 0 ready (the revents), 0 time over.
int wait(int fd, short events, int timeout_ms);

int map(int fd, size_t bytes, int protection, int flags, int64_t offset, void **out);
int unmap(void *address, size_t bytes);
int sync(int fd);
int truncate(int fd, int64_t bytes);
int set_mode(int fd, unsigned mode);

int stat(const char *path, FileInfo *out);
bool exists(const char *path);
int list(const char *path, qel_os_visit visit, void *context);
int make_dir(const char *path, unsigned mode);
int remove(const char *path);
int rename(const char *from, const char *to);

int term_get(int fd, termios *out);
int term_set(int fd, int when, const termios &settings);
int term_flush(int fd, int queue);
int term_drain(int fd);
int term_flow(int fd, int action);
int line_status(int fd, uint32_t *out);

int unmount(const char *path);
int run(const char *command);
int reboot(int command);

// Reads until `bytes` or the end; the count read, or -errno if the first failure came before any byte.
ssize_t read_full(int fd, void *buffer, size_t bytes);
// Writes everything or fails: `bytes`, or -errno (-EIO when the device takes nothing more).
ssize_t write_full(int fd, const void *buffer, size_t bytes);
// The start of a file, at most `bytes` of it; the count read or -errno.
ssize_t read_file(const char *path, void *buffer, size_t bytes);

// A descriptor that closes itself. 0 is a valid descriptor, -1 is none.
class Fd {
public:
    Fd() = default;
    explicit Fd(int fd) : fd_(fd) {}
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    ~Fd() { reset(); }
    int get() const { return fd_; }
    bool is_open() const { return fd_ >= 0; }
    int release() {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }
    void reset(int fd = -1) {
        if (fd_ >= 0) os::close(fd_);
        fd_ = fd;
    }

private:
    int fd_ = -1;
};

// Of this process; a fork()ed child's differs from what its parent noted.
int process_id();

// Seconds since 1970, as the machine's clock has them now.
int64_t wall_clock_s();

// Plain text to the process's standard output and error streams.
void print_out(const char *format, ...) __attribute__((format(printf, 1, 2)));
void print_err(const char *format, ...) __attribute__((format(printf, 1, 2)));

// The table the gate was given when the library was loaded: the kernel's, or another world's.
const qel_os_ops &linux_ops();
// nullptr when the process lives on this machine.
const qel_world *world();

}  // namespace qel::os
