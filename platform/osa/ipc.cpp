// ipc.cpp - System V semaphores and shared memory, between processes that may be killed at any moment.
//
// A set holds one semaphore more than asked for. It tells whether the others have their first values:
// one atomic operation sets them all and marks it, so that a creator that dies in between leaves
// nothing behind that the next process could not finish.
#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <new>

#include "platform/common/world.h"
#include "platform/osa/wait.h"

namespace {

using qel::platform::Deadline;

constexpr int kMode = 0660;
constexpr unsigned kMaxSemaphores = 32;
constexpr unsigned kMaxValue = 32767;  // the kernel's SEMVMX

struct IpcSem {
    int id;
    std::atomic<int> held{0};  // locks taken through this handle
};

// A virtual board removes at its end what its processes made.
void note_created(const char *kind, int id) {
    if (qel::platform::world() == nullptr) return;
    char path[PATH_MAX];
    if (qel::platform::run_dir(path, sizeof path - 8) != 0) return;
    strcat(path, "/sysv");
    const int fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) return;
    char line[32];
    const int length = snprintf(line, sizeof line, "%s %d\n", kind, id);
    while (write(fd, line, static_cast<size_t>(length)) < 0 && errno == EINTR) {
    }
    close(fd);
}

// Opens with `get(flags)`: the existing object, or a new one if `create`. *created tells which.
template <typename Get>
int open_or_create(Get get, bool create, bool *created) {
    for (;;) {
        *created = false;
        const int existing = get(0);
        if (existing >= 0 || errno != ENOENT || !create) return existing;
        *created = true;
        const int fresh = get(IPC_CREAT | IPC_EXCL | kMode);
        if (fresh >= 0 || errno != EEXIST) return fresh;
    }
}

int set_first_values(int id, unsigned count, unsigned initial) {
    sembuf steps[kMaxSemaphores + 2];
    const auto mark = static_cast<unsigned short>(count);
    unsigned used = 0;
    steps[used++] = {mark, 0, IPC_NOWAIT};
    steps[used++] = {mark, 1, 0};
    for (unsigned i = 0; i < count && initial != 0; ++i) {
        steps[used++] = {static_cast<unsigned short>(i), static_cast<short>(initial), 0};
    }
    while (semop(id, steps, used) != 0) {
        if (errno == EAGAIN) return 0;  // they stand already
        if (errno != EINTR) return -errno;
    }
    return 0;
}

timespec left_of(Deadline deadline) {
    const int64_t left_ns = deadline.at_ns() - qel::platform::monotonic_ns();
    timespec left{};
    if (left_ns > 0) {
        left.tv_sec = static_cast<time_t>(left_ns / 1'000'000'000);
        left.tv_nsec = static_cast<long>(left_ns % 1'000'000'000);
    }
    return left;
}

int take(int id, unsigned timeout_ms) {
    sembuf step{0, -1, SEM_UNDO};
    if (timeout_ms == 0) step.sem_flg |= IPC_NOWAIT;
    const Deadline deadline = qel::osa::deadline_of(timeout_ms);
    for (;;) {
        timespec left{};
        const bool limited = timeout_ms != 0 && !deadline.is_never();
        if (limited) left = left_of(deadline);
        const int result = limited ? semtimedop(id, &step, 1, &left) : semop(id, &step, 1);
        if (result == 0) return 0;
        if (errno != EINTR) return OSA_EFAIL;
    }
}

}  // namespace

extern "C" {

int OSA_ipcMakeKey(const char *path, int projId, int *key) {
    if (path == nullptr || key == nullptr || (projId & 0xFF) == 0) return OSA_EFAIL;
    char mapped[PATH_MAX];
    struct stat info {};
    if (qel::platform::world_path(path, mapped, sizeof mapped) != 0 || stat(mapped, &info) != 0) {
        return OSA_EFAIL;
    }
    *key = static_cast<int>((static_cast<uint32_t>(projId) & 0xFF) << 24 |
                            (static_cast<uint32_t>(info.st_dev) & 0xFF) << 16 |
                            (static_cast<uint32_t>(info.st_ino) & 0xFFFF));
    return 0;
}

int OSA_ipcSemOpen(OSA_IpcSem *sem, int key, int create, unsigned nsems, unsigned initial) {
    if (sem == nullptr || nsems == 0 || nsems > kMaxSemaphores || initial > kMaxValue) return OSA_EFAIL;
    *sem = nullptr;
    const int machine_key = qel::platform::world_key(key);
    bool created = false;
    const int id =
        open_or_create([&](int flags) { return semget(machine_key, static_cast<int>(nsems) + 1, flags); },
                       create != 0, &created);
    if (id < 0) return OSA_EFAIL;
    if (created) note_created("sem", id);
    if (set_first_values(id, nsems, initial) != 0) return OSA_EFAIL;
    *sem = new (std::nothrow) IpcSem{id};
    return *sem != nullptr ? 0 : OSA_EFAIL;
}

int OSA_ipcSemLock(OSA_IpcSem sem, unsigned timeoutMs) {
    if (sem == nullptr) return OSA_EFAIL;
    auto *const set = static_cast<IpcSem *>(sem);
    if (take(set->id, timeoutMs) != 0) return OSA_EFAIL;
    set->held.fetch_add(1);
    return 0;
}

int OSA_ipcSemUnlock(OSA_IpcSem sem) {
    if (sem == nullptr) return OSA_EFAIL;
    auto *const set = static_cast<IpcSem *>(sem);
    int held = set->held.load();
    do {
        if (held <= 0) return OSA_EFAIL;  // would let one holder too many in
    } while (!set->held.compare_exchange_weak(held, held - 1));
    sembuf step{0, 1, SEM_UNDO};
    while (semop(set->id, &step, 1) != 0) {
        if (errno != EINTR) return OSA_EFAIL;
    }
    return 0;
}

int OSA_ipcSemClose(OSA_IpcSem *sem) {
    if (sem == nullptr || *sem == nullptr) return OSA_EFAIL;
    delete static_cast<IpcSem *>(*sem);
    *sem = nullptr;
    return 0;
}

int OSA_ipcShmOpen(int key, size_t bytes, int create, void **address) {
    if (address == nullptr || bytes == 0) return OSA_EFAIL;
    *address = nullptr;
    const int machine_key = qel::platform::world_key(key);
    bool created = false;
    const int id =
        open_or_create([&](int flags) { return shmget(machine_key, bytes, flags); }, create != 0, &created);
    if (id < 0) return OSA_EFAIL;
    if (created) note_created("shm", id);
    void *const at = shmat(id, nullptr, 0);
    if (at == reinterpret_cast<void *>(-1)) return OSA_EFAIL;
    *address = at;
    return created ? 1 : 0;
}

int OSA_ipcShmDetach(void *address) { return address != nullptr && shmdt(address) == 0 ? 0 : OSA_EFAIL; }

}  // extern "C"
