// world.h - what the reference layers take from the world they live in: time, keys, paths and the
// run directory. Header only: each layer is a library of its own and asks the hook itself.
#pragma once

#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "os/hook.h"

namespace qel::platform {

// nullptr when the process lives on this machine.
inline const qel_world *world() {
    static const qel_world *const found = [] {
        const qel_world *w = qel_world_hook != nullptr ? qel_world_hook() : nullptr;
        return w != nullptr && w->abi == QEL_WORLD_ABI ? w : nullptr;
    }();
    return found;
}

inline int64_t time_scale() {
    const qel_world *w = world();
    return w != nullptr && w->time_scale > 1 ? w->time_scale : 1;
}

// Which chip of its unit the process runs on.
inline unsigned world_chip() {
    const qel_world *w = world();
    return w != nullptr ? w->chip : 0;
}

// A System V key as the kernel sees it, so that two worlds on one machine never share an object.
inline int world_key(int key) {
    const qel_world *w = world();
    return w != nullptr ? static_cast<int>(static_cast<uint32_t>(key) ^ w->ipc_salt) : key;
}

// The machine's path for a path of the world; 0 or -errno.
inline int world_path(const char *path, char *out, size_t out_bytes) {
    const qel_world *w = world();
    if (w != nullptr && w->map_path != nullptr) return w->map_path(path, out, out_bytes);
    const int length = snprintf(out, out_bytes, "%s", path);
    return length >= 0 && static_cast<size_t>(length) < out_bytes ? 0 : -ENAMETOOLONG;
}

// Makes the directory if there is none; refuses one that somebody else could have laid out for us.
inline bool usable_dir(const char *path) {
    if (mkdir(path, 0700) != 0 && errno != EEXIST) return false;
    struct stat info {};
    return lstat(path, &info) == 0 && S_ISDIR(info.st_mode) && info.st_uid == geteuid() &&
           access(path, W_OK | X_OK) == 0;
}

// The directory of the sockets: the world's, else /run/libqel, else /tmp/libqel-UID for those who may
// not write to /run. 0 or -errno.
inline int run_dir(char *out, size_t out_bytes) {
    const qel_world *w = world();
    const char *chosen = "/run/libqel";
    char own[32];
    if (w != nullptr) {
        chosen = w->run_dir;
        if (chosen == nullptr) return -ENOENT;
    } else if (!usable_dir(chosen)) {
        snprintf(own, sizeof own, "/tmp/libqel-%u", static_cast<unsigned>(geteuid()));
        chosen = own;
        if (!usable_dir(chosen)) return -EACCES;
    }
    const int length = snprintf(out, out_bytes, "%s", chosen);
    return length >= 0 && static_cast<size_t>(length) < out_bytes ? 0 : -ENAMETOOLONG;
}

inline int64_t monotonic_ns() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

// A point of the machine's monotonic clock, made from a time-out of the world.
class Deadline {
public:
    static Deadline never() { return Deadline(INT64_MAX); }
    static Deadline after_ms(int64_t world_ms) {
        return Deadline(monotonic_ns() + world_ms * 1'000'000 / time_scale());
    }
    // The form of BND and XCC: negative = for ever.
    static Deadline from_timeout(int timeout_ms) { return timeout_ms < 0 ? never() : after_ms(timeout_ms); }
    // Not a time of the world: for bookkeeping between processes of one machine.
    static Deadline after_real_ms(int64_t ms) { return Deadline(monotonic_ns() + ms * 1'000'000); }

    bool is_never() const { return at_ns_ == INT64_MAX; }
    bool passed() const { return !is_never() && monotonic_ns() >= at_ns_; }
    int64_t at_ns() const { return at_ns_; }
    Deadline or_earlier(Deadline other) const { return other.at_ns_ < at_ns_ ? other : *this; }
    // For poll(): -1 = for ever, rounded up so that a wait never ends before its time.
    int left_ms() const {
        if (is_never()) return -1;
        const int64_t left_ns = at_ns_ - monotonic_ns();
        if (left_ns <= 0) return 0;
        const int64_t left = (left_ns + 999'999) / 1'000'000;
        return left < INT_MAX ? static_cast<int>(left) : INT_MAX;
    }

private:
    explicit Deadline(int64_t at_ns) : at_ns_(at_ns) {}
    int64_t at_ns_;
};

}  // namespace qel::platform
