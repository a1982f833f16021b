#include "platform/xcc/link.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <cerrno>

namespace qel::xcc {

namespace {

constexpr int kSeals = F_SEAL_SHRINK | F_SEAL_GROW;

size_t file_bytes(uint32_t region_bytes) { return size_t{kRegionOffset} + region_bytes; }

// -1 where the kernel cannot.
int watch_process(int socket) {
#ifdef SYS_pidfd_open
    ucred peer{};
    socklen_t bytes = sizeof peer;
    if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &bytes) == 0 && peer.pid > 0) {
        return static_cast<int>(syscall(SYS_pidfd_open, peer.pid, 0));
    }
#endif
    (void)socket;
    return -1;
}

}  // namespace

Memory::~Memory() {
    if (base_ != nullptr) munmap(base_, file_bytes(region_bytes_));
}

int Memory::map(int fd, uint32_t region_bytes) {
    void *const base = mmap(nullptr, file_bytes(region_bytes), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (base == MAP_FAILED) return -errno;
    base_ = base;
    region_bytes_ = region_bytes;
    return 0;
}

int Memory::create(uint32_t region_bytes, Fd *fd) {
    fd->reset(memfd_create("xcc", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (!fd->is_open()) return -errno;
    if (ftruncate(fd->get(), static_cast<off_t>(file_bytes(region_bytes))) != 0) return -errno;
    if (fcntl(fd->get(), F_ADD_SEALS, kSeals) != 0) return -errno;
    return map(fd->get(), region_bytes);
}

int Memory::adopt(const Fd &fd, uint32_t region_bytes) {
    if (!fd.is_open() || region_bytes == 0 || region_bytes > kMaxRegionBytes) return -EINVAL;
    const int seals = fcntl(fd.get(), F_GET_SEALS);
    if (seals < 0 || (seals & kSeals) != kSeals) return -EPERM;
    struct stat info {};
    if (fstat(fd.get(), &info) != 0) return -errno;
    if (info.st_size != static_cast<off_t>(file_bytes(region_bytes))) return -EINVAL;
    return map(fd.get(), region_bytes);
}

Peer::Peer(Fd socket) : socket_(std::move(socket)), process_(watch_process(socket_.get())) {}

void Peer::hang_up() const { shutdown(socket_.get(), SHUT_RDWR); }

bool Peer::is_gone() const {
    pollfd watched[] = {{socket_.get(), POLLIN, 0}, {process_.get(), POLLIN, 0}};
    return poll(watched, 2, 0) > 0;
}

}  // namespace qel::xcc
