#include "board/core/descriptors.h"

#include <unistd.h>
#include <array>
#include <atomic>
#include <memory>
#include <new>

namespace qel::board {

namespace {

// Descriptors in blocks made on demand and never freed: handle in bits 32..63, class in 16..31.
constexpr int kBlockSize = 1024;
constexpr int kBlocks = 1024;
constexpr uint64_t kTtyBit = 1;
constexpr uint64_t kNonblockingBit = 2;

struct Slot {
    std::atomic<uint64_t> packed;
    std::atomic<uint64_t> written;
};
using Block = std::array<Slot, kBlockSize>;
constinit std::array<std::atomic<Block *>, kBlocks> g_blocks{};

Slot *slot(int fd) {
    if (fd < 0 || fd >= kBlockSize * kBlocks) return nullptr;
    Block *block = g_blocks[static_cast<size_t>(fd / kBlockSize)].load(std::memory_order_acquire);
    return block != nullptr ? &(*block)[static_cast<size_t>(fd % kBlockSize)] : nullptr;
}

bool make_block(int fd) {
    if (fd < 0 || fd >= kBlockSize * kBlocks) return false;
    std::unique_ptr<Block> made(new (std::nothrow) Block{});
    if (made == nullptr) return false;
    Block *none = nullptr;
    if (!g_blocks[static_cast<size_t>(fd / kBlockSize)].compare_exchange_strong(none, made.get()))
        return true;  // another thread made it
    [[maybe_unused]] const Block *kept = made.release();
    return true;
}

Descriptor unpack(uint64_t packed) {
    return {.handle = static_cast<uint32_t>(packed >> 32),
            .class_index = static_cast<uint16_t>(packed >> 16),
            .is_tty = (packed & kTtyBit) != 0,
            .nonblocking = (packed & kNonblockingBit) != 0};
}

uint64_t pack(const Descriptor &descriptor) {
    return uint64_t{descriptor.handle} << 32 | uint64_t{descriptor.class_index} << 16 |
           (descriptor.is_tty ? kTtyBit : 0) | (descriptor.nonblocking ? kNonblockingBit : 0);
}

}  // namespace

Descriptor find_descriptor(int fd) {
    const Slot *found = slot(fd);
    return found != nullptr ? unpack(found->packed.load(std::memory_order_acquire)) : Descriptor{};
}

bool set_descriptor(int fd, const Descriptor &descriptor) {
    Slot *found = slot(fd);
    if (found == nullptr && make_block(fd)) found = slot(fd);
    if (found == nullptr) return false;
    found->written.store(0, std::memory_order_relaxed);
    found->packed.store(pack(descriptor), std::memory_order_release);
    return true;
}

void clear_descriptor(int fd) {
    Slot *found = slot(fd);
    if (found != nullptr) found->packed.store(0, std::memory_order_release);
}

void count_written(int fd, uint64_t bytes) {
    Slot *found = slot(fd);
    if (found != nullptr) found->written.fetch_add(bytes, std::memory_order_relaxed);
}

uint64_t written_bytes(int fd) {
    const Slot *found = slot(fd);
    return found != nullptr ? found->written.load(std::memory_order_relaxed) : 0;
}

void close_all_devices() {
    for (int fd = 0; fd < kBlockSize * kBlocks; ++fd) {
        Slot *found = slot(fd);
        if (found == nullptr) {
            fd += kBlockSize - 1;
        } else if (found->packed.exchange(0) != 0) {
            ::close(fd);
        }
    }
}

}  // namespace qel::board
