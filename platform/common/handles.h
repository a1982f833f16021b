// handles.h - numbers that stand for objects across a C interface. A number that was never given out, or
// whose object is gone, is found out instead of followed; who works on an object keeps it alive.
#pragma once

#include <cstdint>
#include <memory>
#include <new>
#include <utility>

#include "platform/common/mutex.h"

namespace qel::platform {

template <typename T, unsigned kCapacity = 64>
class HandleTable {
public:
    // Lives as long as the code does: threads may still call while the process ends.
    static HandleTable &instance() {
        alignas(HandleTable) static unsigned char storage[sizeof(HandleTable)];
        static auto *const table = new (storage) HandleTable;
        return *table;
    }

    // 0 when the table is full.
    uintptr_t add(std::shared_ptr<T> object) {
        const Lock lock(mutex_);
        for (unsigned i = 0; i < kCapacity; ++i) {
            if (entries_[i].object != nullptr) continue;
            entries_[i].object = std::move(object);
            entries_[i].generation = (entries_[i].generation + 1) & kGenerationMask;
            return handle_of(i);
        }
        return 0;
    }

    std::shared_ptr<T> find(uintptr_t handle) {
        const Lock lock(mutex_);
        const unsigned i = index_of(handle);
        return i < kCapacity && handle_of(i) == handle ? entries_[i].object : nullptr;
    }

    std::shared_ptr<T> remove(uintptr_t handle) {
        const Lock lock(mutex_);
        const unsigned i = index_of(handle);
        if (i >= kCapacity || handle_of(i) != handle) return nullptr;
        return std::exchange(entries_[i].object, nullptr);
    }

private:
    static constexpr unsigned kIndexBits = 8;
    static constexpr uint32_t kGenerationMask = 0x7FFFFF;
    static_assert(kCapacity < 1u << kIndexBits);

    struct Entry {
        uint32_t generation = 0;
        std::shared_ptr<T> object;
    };

    static unsigned index_of(uintptr_t handle) { return (handle & ((1u << kIndexBits) - 1)) - 1; }
    uintptr_t handle_of(unsigned i) const QEL_REQUIRES(mutex_) {
        return static_cast<uintptr_t>(entries_[i].generation) << kIndexBits | (i + 1);
    }

    Mutex mutex_;
    Entry entries_[kCapacity] QEL_GUARDED_BY(mutex_);
};

}  // namespace qel::platform
