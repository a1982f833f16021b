#include "storage/rawflash_object.h"

#include <algorithm>
#include <cstring>

#include "os/os.h"

namespace qel::rawflash {

int AddressMap::set(const char *function, const RawFlashMap *map, uint32_t entries) {
    if (entries > QEL_RAWFLASH_MAX_MAPS || (map == nullptr && entries != 0)) {
        QEL_ERROR_AS(function, "%u entries of a partition map\n", entries);
        return OSA_EFAIL;
    }
    for (uint32_t i = 0; i < entries; ++i) {
        const RawFlashMap &entry = map[i];
        bool bad =
            entry.bytes == 0 || entry.from > UINT64_MAX - entry.bytes || entry.to > UINT64_MAX - entry.bytes;
        for (uint32_t k = 0; k < i && !bad; ++k) {
            bad = entry.from < map[k].from + map[k].bytes && map[k].from < entry.from + entry.bytes;
        }
        if (bad) {
            QEL_ERROR_AS(function, "entry %u of the partition map is empty or overlaps another\n", i);
            return OSA_EFAIL;
        }
    }
    std::copy_n(map, entries, entries_);
    count_ = entries;
    return 0;
}

int AddressMap::apply(const char *function, uint64_t address, uint64_t bytes, uint64_t *out) const {
    *out = address;
    for (uint32_t i = 0; i < count_; ++i) {
        const RawFlashMap &entry = entries_[i];
        const bool holds_start = address >= entry.from && address - entry.from < entry.bytes;
        const bool runs_in = address < entry.from && entry.from - address < bytes;
        if (!holds_start && !runs_in) continue;
        if (runs_in || bytes > entry.bytes - (address - entry.from)) {
            QEL_ERROR_AS(function, "0x%llx bytes at 0x%llx run over the edge of the partition map\n",
                         static_cast<unsigned long long>(bytes), static_cast<unsigned long long>(address));
            return OSA_EFAIL;
        }
        *out = entry.to + (address - entry.from);
    }
    return 0;
}

Object *object_of(RawFlash *thiz, int (*add_ref)(RawFlash *), const char *function) {
    if (verify_para_comm(thiz, frame::kCheckPrivate, function) != 0) return nullptr;
    if (thiz->addRef == add_ref) return reinterpret_cast<Object *>(thiz);
    QEL_ERROR_AS(function, "not an object of this kind\n");
    return nullptr;
}

void *allocate_memory(const char *function, size_t bytes) {
    void *const memory = OSA_memAlloc(bytes);
    if (memory == nullptr) QEL_ERROR_AS(function, "OSA_memAlloc failed !\n");
    return memory;
}

void set_up(Object &object, const RawFlash &operations) {
    object.face = operations;
    object.face.info = &object.info;
    object.info = {1, 1, nullptr, nullptr};
}

int add_reference(Object &object) {
    std::atomic_ref(object.info.references).fetch_add(1);
    return 0;
}

int32_t drop_reference(Object &object) { return std::atomic_ref(object.info.references).fetch_sub(1) - 1; }

bool is_missing(const char *function, const void *argument) {
    if (argument != nullptr) return false;
    QEL_ERROR_AS(function, "bad argument\n");
    return true;
}

}  // namespace qel::rawflash
