// upgrade_files.cpp - each word is the start of a file of its own, mapped while it is used.
#include "storage/upgrade_files.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>
#include <atomic>
#include <cerrno>

#include "frame/log.h"
#include "os/os.h"

namespace qel::upgrade_files {

namespace {

constexpr const char *kPaths[] = {"/tmp/upgrade_ing", "/tmp/backupVer"};
constexpr unsigned kMode = 0777;
constexpr size_t kBytes = sizeof(uint32_t);

std::atomic<int> descriptors[] = {-1, -1};

const char *path_of(Word word) { return kPaths[static_cast<int>(word)]; }

// The word in the mapping, for as long as this lives.
class Mapping {
public:
    explicit Mapping(int fd) {
        if (os::map(fd, kBytes, PROT_READ | PROT_WRITE, MAP_SHARED, 0, &address_) < 0) address_ = nullptr;
    }
    ~Mapping() {
        if (address_ != nullptr) os::unmap(address_, kBytes);
    }
    Mapping(const Mapping &) = delete;
    Mapping &operator=(const Mapping &) = delete;
    uint32_t *word() const { return static_cast<uint32_t *>(address_); }

private:
    void *address_ = nullptr;
};

// The kept descriptor, opened now if there is none. Of two threads that open at once one gives way.
int kept_descriptor(Word word) {
    std::atomic<int> &kept = descriptors[static_cast<int>(word)];
    if (const int fd = kept.load(); fd >= 0) return fd;
    const int opened = os::open(path_of(word), O_RDWR);
    if (opened < 0) return opened;
    int before = -1;
    if (kept.compare_exchange_strong(before, opened)) return opened;
    os::close(opened);
    return before;
}

}  // namespace

Found read(Word word, uint32_t *out) {
    const int fd = kept_descriptor(word);
    if (fd == -ENOENT) return Found::kNoFile;
    if (fd < 0) {
        QEL_ERROR("open %s failed: %d\n", path_of(word), fd);
        return Found::kError;
    }
    *out = 0;
    const int64_t bytes = os::seek(fd, 0, SEEK_END);
    if (bytes >= 0 && bytes < static_cast<int64_t>(kBytes)) return Found::kValue;
    const Mapping mapping(fd);
    if (bytes < 0 || mapping.word() == nullptr) {
        QEL_ERROR("map %s failed\n", path_of(word));
        return Found::kError;
    }
    *out = __atomic_load_n(mapping.word(), __ATOMIC_RELAXED);
    return Found::kValue;
}

int write(Word word, uint32_t value, const char *function) {
    const os::Fd file(os::open(path_of(word), O_RDWR | O_CREAT, kMode));
    if (!file.is_open()) {
        QEL_ERROR_AS(function, "open %s\n", path_of(word));
        return OSA_EFAIL;
    }
    os::set_mode(file.get(), kMode);  // the umask took its share; the file of another user has its mode
    const int64_t bytes = os::seek(file.get(), 0, SEEK_END);
    const bool sized =
        bytes >= static_cast<int64_t>(kBytes) || (bytes >= 0 && os::truncate(file.get(), kBytes) >= 0);
    if (sized) {
        const Mapping mapping(file.get());
        if (mapping.word() != nullptr) {
            __atomic_store_n(mapping.word(), value, __ATOMIC_RELAXED);
            return 0;
        }
    }
    QEL_ERROR_AS(function, "map %s\n", path_of(word));
    return OSA_EFAIL;
}

void close_all() {
    for (std::atomic<int> &kept : descriptors) {
        const int fd = kept.exchange(-1);
        if (fd >= 0) os::close(fd);
    }
}

}  // namespace qel::upgrade_files
