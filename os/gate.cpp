// gate.cpp - chooses the world behind the gate once, restarts what a signal interrupted, and turns
// the world's time into the machine's.
#include <fcntl.h>
#include <unistd.h>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <ctime>

#include "os/os.h"

namespace qel::os {

namespace {

int64_t monotonic_ms() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

const qel_os_ops &choose_ops() {
    const qel_world *w = world();
    return w != nullptr ? *w->os : linux_ops();
}

const qel_os_ops &ops() {
    static const qel_os_ops &chosen = choose_ops();
    return chosen;
}

int real_timeout_ms(int timeout_ms) {
    const qel_world *w = world();
    if (timeout_ms <= 0 || w == nullptr || w->time_scale <= 1) return timeout_ms;
    const int scaled = static_cast<int>(static_cast<unsigned>(timeout_ms) / w->time_scale);
    return scaled > 0 ? scaled : 1;
}

template <typename Call>
auto restarting(Call call) {
    auto result = call();
    while (result == -EINTR) result = call();
    return result;
}

}  // namespace

const qel_world *world() {
    static const qel_world *const found = [] {
        const qel_world *w = qel_world_hook != nullptr ? qel_world_hook() : nullptr;
        return w != nullptr && w->abi == QEL_WORLD_ABI ? w : nullptr;
    }();
    return found;
}

int open(const char *path, int flags, unsigned mode) {
    return restarting([&] { return ops().open(path, flags | O_CLOEXEC, mode); });
}

int close(int fd) { return ops().close(fd); }  // never restarted: the descriptor is gone either way

ssize_t read(int fd, void *buffer, size_t bytes) {
    return restarting([&] { return ops().read(fd, buffer, bytes); });
}

ssize_t write(int fd, const void *buffer, size_t bytes) {
    return restarting([&] { return ops().write(fd, buffer, bytes); });
}

int64_t seek(int fd, int64_t offset, int whence) { return ops().seek(fd, offset, whence); }

int ioctl(int fd, uint32_t request, void *argument) {
    return restarting([&] { return ops().ioctl(fd, request, argument); });
}

int poll(pollfd *fds, unsigned count, int timeout_ms) {
    const int real_ms = real_timeout_ms(timeout_ms);
    if (real_ms <= 0) return restarting([&] { return ops().poll(fds, count, real_ms); });
    const int64_t deadline = monotonic_ms() + real_ms;
    int left_ms = real_ms;
    for (;;) {
        const int ready = ops().poll(fds, count, left_ms);
        if (ready != -EINTR) return ready;
        const int64_t left = deadline - monotonic_ms();
        left_ms = left > 0 ? static_cast<int>(left) : 0;
    }
}

int wait(int fd, short events, int timeout_ms) {
    pollfd one{fd, events, 0};
    const int ready = os::poll(&one, 1, timeout_ms);
    return ready > 0 ? one.revents : ready;
}

int map(int fd, size_t bytes, int protection, int flags, int64_t offset, void **out) {
    return ops().map(fd, bytes, protection, flags, offset, out);
}

int unmap(void *address, size_t bytes) { return ops().unmap(address, bytes); }

int sync(int fd) {
    return restarting([&] { return ops().sync(fd); });
}

int truncate(int fd, int64_t bytes) {
    return restarting([&] { return ops().truncate(fd, bytes); });
}

int set_mode(int fd, unsigned mode) { return ops().set_mode(fd, mode); }

int stat(const char *path, FileInfo *out) { return ops().stat(path, out); }

bool exists(const char *path) {
    FileInfo info{};
    return stat(path, &info) == 0;
}

int list(const char *path, qel_os_visit visit, void *context) { return ops().list(path, visit, context); }

int make_dir(const char *path, unsigned mode) { return ops().make_dir(path, mode); }

int remove(const char *path) { return ops().remove(path); }

int rename(const char *from, const char *to) { return ops().rename(from, to); }

int term_get(int fd, termios *out) { return ops().term_get(fd, out); }

int term_set(int fd, int when, const termios &settings) {
    return restarting([&] { return ops().term_set(fd, when, &settings); });
}

int term_flush(int fd, int queue) { return ops().term_flush(fd, queue); }

int term_drain(int fd) {
    return restarting([&] { return ops().term_drain(fd); });
}

int term_flow(int fd, int action) { return ops().term_flow(fd, action); }

int line_status(int fd, uint32_t *out) { return ops().line_status(fd, out); }

int unmount(const char *path) { return ops().unmount(path); }

int run(const char *command) { return ops().run(command); }

int reboot(int command) { return ops().reboot(command); }

ssize_t read_full(int fd, void *buffer, size_t bytes) {
    auto *bytes_out = static_cast<uint8_t *>(buffer);
    size_t done = 0;
    while (done < bytes) {
        const ssize_t got = read(fd, bytes_out + done, bytes - done);
        if (got < 0 && done == 0) return got;
        if (got <= 0) break;
        done += static_cast<size_t>(got);
    }
    return static_cast<ssize_t>(done);
}

ssize_t write_full(int fd, const void *buffer, size_t bytes) {
    const auto *bytes_in = static_cast<const uint8_t *>(buffer);
    size_t done = 0;
    while (done < bytes) {
        const ssize_t put = write(fd, bytes_in + done, bytes - done);
        if (put < 0) return put;
        if (put == 0) return -EIO;
        done += static_cast<size_t>(put);
    }
    return static_cast<ssize_t>(done);
}

ssize_t read_file(const char *path, void *buffer, size_t bytes) {
    const int opened = open(path, O_RDONLY);
    if (opened < 0) return opened;
    const Fd fd(opened);
    return read_full(fd.get(), buffer, bytes);
}

int process_id() { return static_cast<int>(getpid()); }

int64_t wall_clock_s() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return int64_t{now.tv_sec};
}

void print_out(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    vfprintf(stdout, format, arguments);
    va_end(arguments);
    fflush(stdout);
}

void print_err(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    vfprintf(stderr, format, arguments);
    va_end(arguments);
}

}  // namespace qel::os
