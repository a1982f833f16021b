/*
 * hook.h - the one door through which another world takes the kernel's place.
 *
 * A process that wants libqel and the reference platform layers to run against something else than
 * this machine's kernel provides ONE symbol, `qel_world_hook`: linked into the executable (exported
 * from it), linked in as a library, or preloaded. libqel, libosa, libbnd and libxcc look the symbol
 * up weakly before they do anything else. Where nobody provides it, or it returns NULL, they talk
 * to the kernel directly and nothing in the process can change that: no environment variable is read.
 *
 * Plain C so that the two sides may be built by different compilers.
 */
#ifndef QEL_OS_HOOK_H
#define QEL_OS_HOOK_H

#include <poll.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>
#include <termios.h>

#ifdef __cplusplus
extern "C" {
#endif

#define QEL_WORLD_ABI 1u

/* What one needs to know of a file. */
struct qel_os_file_info {
    int64_t size_bytes;
    int64_t mtime_ms; /* since the epoch */
    uint32_t mode;    /* as st_mode: type and permissions */
};

/* Called for each entry of a directory but "." and ".."; a non-zero result ends the walk. */
typedef int (*qel_os_visit)(void *context, const char *name, const struct qel_os_file_info *info);

/*
 * The kernel as libqel sees it. Every call returns its value (0 or more) or -errno, never sets
 * errno for the caller to read, and opens with O_CLOEXEC. Time-outs are real milliseconds, -1 = for
 * ever: the gate has divided them by the time scale already. Interruptible calls (`poll`, and
 * `read`, `write` and `ioctl` while they block) may return -EINTR: the gate restarts them.
 */
struct qel_os_ops {
    int (*open)(const char *path, int flags, unsigned mode);
    int (*close)(int fd);
    ssize_t (*read)(int fd, void *buffer, size_t bytes);
    ssize_t (*write)(int fd, const void *buffer, size_t bytes);
    int64_t (*seek)(int fd, int64_t offset, int whence);
    int (*ioctl)(int fd, uint32_t request, void *argument);
    int (*poll)(struct pollfd *fds, unsigned count, int timeout_ms);
    int (*map)(int fd, size_t bytes, int protection, int flags, int64_t offset, void **out);
    int (*unmap)(void *address, size_t bytes);
    int (*sync)(int fd);
    int (*truncate)(int fd, int64_t bytes);
    int (*set_mode)(int fd, unsigned mode);

    int (*stat)(const char *path, struct qel_os_file_info *out);
    int (*list)(const char *path, qel_os_visit visit, void *context);
    int (*make_dir)(const char *path, unsigned mode);
    int (*remove)(const char *path); /* a file or an empty directory */
    int (*rename)(const char *from, const char *to);

    int (*term_get)(int fd, struct termios *out);
    int (*term_set)(int fd, int when, const struct termios *settings); /* when: TCSANOW ... */
    int (*term_flush)(int fd, int queue);                              /* TCIFLUSH ... */
    int (*term_drain)(int fd);
    int (*term_flow)(int fd, int action);      /* TCOOFF ... */
    int (*line_status)(int fd, uint32_t *out); /* TIOCSERGETLSR */

    int (*unmount)(const char *path);
    int (*run)(const char *command); /* through /bin/sh; the exit status, 128 + n after signal n */
    int (*reboot)(int command);      /* RB_AUTOBOOT ... */
};

struct qel_world {
    uint32_t abi;        /* QEL_WORLD_ABI */
    uint32_t time_scale; /* 1 or more: every sleep and time-out is divided by it */
    uint32_t ipc_salt;   /* xor-ed into every System V key; never 0 */
    uint32_t chip;       /* the chip of its unit on which this process runs, 0 = master */
    const char *run_dir; /* existing directory for the sockets of BND and XCC and for the list "sysv" */
    /* The host's path that stands for `path` of this world. Returns 0 or -errno (-ENAMETOOLONG). */
    int (*map_path)(const char *path, char *out, size_t out_bytes);
    const struct qel_os_ops *os;
};

/* Returns the world to live in, the same one for the life of the process, or NULL for this machine. */
const struct qel_world *qel_world_hook(void) __attribute__((weak, visibility("default")));

#ifdef __cplusplus
}
#endif

#endif
