#include "board/model/flash_medium.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <system_error>

namespace qel::board {

namespace {

constexpr char kMagic[16] = "qelboard flash1";
constexpr mode_t kFileMode = 0644;
constexpr size_t kTurnedBytes = 0x10000;  // turned round at once

[[noreturn]] void fail(const std::string &path) {
    throw std::system_error(errno, std::generic_category(), path);
}

// The complement of `bytes` bytes; `to` may be `from`. By words: this is most of what a read costs.
void turn_round(const uint8_t *from, uint8_t *to, size_t bytes) {
    size_t at = 0;
    for (; at + sizeof(uint64_t) <= bytes; at += sizeof(uint64_t)) {
        uint64_t word = 0;
        memcpy(&word, from + at, sizeof word);
        word = ~word;
        memcpy(to + at, &word, sizeof word);
    }
    for (; at < bytes; ++at) to[at] = static_cast<uint8_t>(~from[at]);
}

}  // namespace

struct FlashMedium::Head {
    char magic[sizeof kMagic];  // written last
    uint32_t kind;
    uint32_t erase_bytes;
    uint32_t page_bytes;
    uint32_t reserved;
    uint64_t total_bytes;
};

FlashMedium::FlashMedium(const std::string &dir, const Shape &shape) : shape_(shape) {
    std::filesystem::create_directories(dir);
    map_blocks(dir + "/blocks");
    try {
        open_content(dir + "/content");
    } catch (...) {
        ::munmap(head_, mapped_bytes_);
        if (fd_ >= 0) ::close(fd_);
        throw;
    }
    if (is_new_) start_over();
}

FlashMedium::~FlashMedium() {
    if (head_ != nullptr) ::munmap(head_, mapped_bytes_);
    if (fd_ >= 0) ::close(fd_);
}

void FlashMedium::map_blocks(const std::string &path) {
    static_assert(sizeof(Head) == 40);
    const size_t blocks = shape_.blocks();
    mapped_bytes_ = sizeof(Head) + blocks * 5 + static_cast<size_t>((shape_.pages() + 7) / 8);
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, kFileMode);
    if (fd < 0) fail(path);
    struct stat info {};
    ::fstat(fd, &info);
    // With room on the host for all of it: a page of the mapping that finds none would kill the process.
    int error = info.st_size == 0 ? ::posix_fallocate(fd, 0, static_cast<off_t>(mapped_bytes_)) : 0;
    const bool right_size = info.st_size == 0 || info.st_size == static_cast<off_t>(mapped_bytes_);
    void *mapped = MAP_FAILED;
    if (error == 0 && right_size) {
        mapped = ::mmap(nullptr, mapped_bytes_, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        if (mapped == MAP_FAILED) error = errno;
    }
    ::close(fd);
    if (!right_size) throw std::runtime_error(path + ": the flash kept there is of another size");
    if (error != 0) throw std::system_error(error, std::generic_category(), path);
    head_ = static_cast<Head *>(mapped);
    erases_ = reinterpret_cast<uint32_t *>(head_ + 1);
    marks_ = reinterpret_cast<uint8_t *>(erases_ + blocks);
    page_bits_ = marks_ + blocks;
    is_new_ = memcmp(head_->magic, kMagic, sizeof kMagic) != 0;
    const bool same_shape = head_->kind == shape_.kind && head_->erase_bytes == shape_.erase_bytes &&
                            head_->page_bytes == shape_.page_bytes &&
                            head_->total_bytes == shape_.total_bytes;
    if (!is_new_ && !same_shape) {
        ::munmap(head_, mapped_bytes_);
        throw std::runtime_error(path + ": the flash kept there is of another kind");
    }
}

void FlashMedium::open_content(const std::string &path) {
    fd_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, kFileMode);
    if (fd_ < 0) fail(path);
    if (is_new_ && ::ftruncate(fd_, 0) != 0) fail(path);
    if (is_new_ && ::ftruncate(fd_, static_cast<off_t>(shape_.total_bytes)) != 0) fail(path);
    struct stat info {};
    if (::fstat(fd_, &info) != 0) fail(path);
    if (static_cast<uint64_t>(info.st_size) != shape_.total_bytes)
        throw std::runtime_error(path + ": the flash kept there is of another size");
}

void FlashMedium::start_over() {
    memset(static_cast<void *>(head_), 0, mapped_bytes_);
    *head_ = {{}, shape_.kind, shape_.erase_bytes, shape_.page_bytes, 0, shape_.total_bytes};
}

void FlashMedium::finish_new() {
    memcpy(head_->magic, kMagic, sizeof kMagic);
    is_new_ = false;
}

bool FlashMedium::read(uint64_t at, std::span<uint8_t> out) const {
    size_t done = 0;
    while (done < out.size()) {
        const ssize_t got = ::pread(fd_, out.data() + done, out.size() - done, static_cast<off_t>(at + done));
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return false;
        done += static_cast<size_t>(got);
    }
    turn_round(out.data(), out.data(), out.size());
    return true;
}

bool FlashMedium::write(uint64_t at, Bytes bytes) {
    std::array<uint8_t, kTurnedBytes> turned;
    while (!bytes.empty()) {
        const size_t piece = std::min(bytes.size(), turned.size());
        turn_round(bytes.data(), turned.data(), piece);
        const ssize_t written = ::pwrite(fd_, turned.data(), piece, static_cast<off_t>(at));
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return false;
        at += static_cast<uint64_t>(written);
        bytes = bytes.subspan(static_cast<size_t>(written));
    }
    return true;
}

bool FlashMedium::erase(uint64_t at, uint64_t bytes) {
    if (bytes == 0) return true;
    if (::fallocate(fd_, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, static_cast<off_t>(at),
                    static_cast<off_t>(bytes)) == 0)
        return true;
    const Buffer erased(static_cast<size_t>(bytes), 0xFF);  // a file system without holes
    return write(at, erased);
}

bool FlashMedium::has_content(uint64_t at, uint64_t bytes) const {
    const off_t next = ::lseek(fd_, static_cast<off_t>(at), SEEK_DATA);
    if (next < 0) return errno != ENXIO;
    return static_cast<uint64_t>(next) < at + bytes;
}

}  // namespace qel::board
