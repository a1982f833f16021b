#include "board/core/workplace.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>

namespace qel::board {

namespace {

namespace fs = std::filesystem;

std::string make_run_dir() {
    std::string path = (fs::temp_directory_path() / "qelboard-XXXXXX").string();
    if (mkdtemp(path.data()) == nullptr) throw std::system_error(errno, std::generic_category(), path);
    return path;
}

int lock_dir(const std::string &dir) {
    const std::string path = dir + "/lock";
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) throw std::system_error(errno, std::generic_category(), path);
    if (::flock(fd, LOCK_EX | LOCK_NB) == 0) return fd;
    ::close(fd);
    throw std::runtime_error(dir + ": another board runs in this directory");
}

// "sem ID" and "shm ID", one per line, written by the processes that made them.
void remove_sysv_objects(const std::string &run_dir) {
    std::ifstream list(run_dir + "/sysv");
    std::string kind;
    for (int id = 0; list >> kind >> id;) {
        if (kind == "sem") semctl(id, 0, IPC_RMID);
        if (kind == "shm") shmctl(id, IPC_RMID, nullptr);
    }
}

}  // namespace

Workplace::Workplace(const std::string &dir) : owner_(::getpid()), run_dir_(make_run_dir()) {
    try {
        content_dir_ = dir.empty() ? run_dir_ + "/content" : fs::absolute(dir).lexically_normal().string();
        fs::create_directories(content_dir_);
        if (!dir.empty()) lock_fd_ = lock_dir(content_dir_);
    } catch (...) {
        std::error_code ignored;
        fs::remove_all(run_dir_, ignored);
        throw;
    }
}

bool Workplace::keeps_content() const { return lock_fd_ >= 0 && ::getpid() == owner_; }

Workplace::~Workplace() {
    if (lock_fd_ >= 0) ::close(lock_fd_);
    if (::getpid() != owner_) return;
    remove_sysv_objects(run_dir_);
    std::error_code ignored;
    fs::remove_all(run_dir_, ignored);
}

}  // namespace qel::board
