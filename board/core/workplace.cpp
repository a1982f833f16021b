#include "board/core/workplace.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>

namespace qel::board {

namespace {

namespace fs = std::filesystem;

constexpr const char *kPrefix = "qelboard-";
// Locked as long as a process of the board's owner lives, forked children included.
constexpr const char *kAliveFile = "/alive";
constexpr const char *kSysvList = "/sysv";
// Locked as long as a board uses the folder for its content.
constexpr const char *kLockFile = "/lock";
// A folder without either file may be one that is just being made.
constexpr auto kLongestMaking = std::chrono::hours(1);

// "sem ID" and "shm ID", one per line, written by the processes that made them.
void remove_sysv_objects(const std::string &run_dir) {
    std::ifstream list(run_dir + kSysvList);
    std::string kind;
    for (int id = 0; list >> kind >> id;) {
        if (kind == "sem") semctl(id, 0, IPC_RMID);
        if (kind == "shm") shmctl(id, IPC_RMID, nullptr);
    }
}

void remove_run_dir(const std::string &run_dir) {
    remove_sysv_objects(run_dir);
    std::error_code ignored;
    fs::remove_all(run_dir, ignored);
}

// Nobody has it where there is no such file.
bool has_lock_of(const std::string &path) {
    const int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) return false;
    const bool locked = ::flock(fd, LOCK_EX | LOCK_NB) != 0;
    ::close(fd);
    return locked;
}

// A folder that a server or a user keeps a board in, whatever its name.
bool is_kept(const fs::path &dir) {
    return has_lock_of(dir.string() + kLockFile) || fs::exists(dir / "board");
}

bool is_abandoned(const fs::path &run_dir) {
    struct stat found {};
    if (::lstat(run_dir.c_str(), &found) != 0 || !S_ISDIR(found.st_mode) || found.st_uid != ::geteuid())
        return false;
    const int fd = ::open((run_dir.string() + kAliveFile).c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        if (errno != ENOENT || is_kept(run_dir)) return false;
        std::error_code gone;
        const auto made = fs::last_write_time(run_dir, gone);
        return !gone && fs::file_time_type::clock::now() - made > kLongestMaking;
    }
    const bool abandoned = ::flock(fd, LOCK_EX | LOCK_NB) == 0;
    ::close(fd);
    return abandoned;
}

// Boards whose process was killed, by a power cut for example, could not clean up themselves.
void remove_abandoned() {
    std::error_code unreadable;
    fs::directory_iterator entry(fs::temp_directory_path(), unreadable);
    for (; !unreadable && entry != fs::directory_iterator(); entry.increment(unreadable)) {
        const fs::path path = entry->path();
        if (path.filename().string().rfind(kPrefix, 0) == 0 && is_abandoned(path))
            remove_run_dir(path.string());
    }
}

std::string make_run_dir() {
    std::string path = (fs::temp_directory_path() / kPrefix).string() + "XXXXXX";
    if (mkdtemp(path.data()) == nullptr) throw std::system_error(errno, std::generic_category(), path);
    return path;
}

// Appears under its name only once it is locked.
int lock_alive_file(const std::string &run_dir) {
    const std::string path = run_dir + kAliveFile;
    const std::string next = path + ".new";
    const int fd = ::open(next.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0 || ::flock(fd, LOCK_EX) != 0 || ::rename(next.c_str(), path.c_str()) != 0)
        throw std::system_error(errno, std::generic_category(), path);
    return fd;
}

int lock_dir(const std::string &dir) {
    const std::string path = dir + kLockFile;
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) throw std::system_error(errno, std::generic_category(), path);
    if (::flock(fd, LOCK_EX | LOCK_NB) == 0) return fd;
    ::close(fd);
    throw std::runtime_error(dir + ": another board runs in this directory");
}

}  // namespace

Workplace::Workplace(const std::string &dir) : owner_(::getpid()), run_dir_(make_run_dir()) {
    try {
        alive_fd_ = lock_alive_file(run_dir_);
        remove_abandoned();
        content_dir_ = dir.empty() ? run_dir_ + "/content" : fs::absolute(dir).lexically_normal().string();
        fs::create_directories(content_dir_);
        if (!dir.empty()) lock_fd_ = lock_dir(content_dir_);
    } catch (...) {
        remove_run_dir(run_dir_);
        if (alive_fd_ >= 0) ::close(alive_fd_);
        throw;
    }
}

bool Workplace::keeps_content() const { return lock_fd_ >= 0 && ::getpid() == owner_; }

void Workplace::forget_memory() const {
    remove_sysv_objects(run_dir_);
    std::error_code ignored;
    fs::remove(run_dir_ + kSysvList, ignored);
}

Workplace::~Workplace() {
    if (lock_fd_ >= 0) ::close(lock_fd_);
    if (::getpid() == owner_) remove_run_dir(run_dir_);
    ::close(alive_fd_);
}

}  // namespace qel::board
