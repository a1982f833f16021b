// rawflash_object.h - what the kinds of raw flash objects share: one over this chip's flash, one over a
// slave chip's, and the one over all of them.
#pragma once

#include <atomic>
#include <cstdint>
#include <new>

#include "frame/log.h"
#include "frame/object.h"
#include "storage/partition_writer.h"

namespace qel::rawflash {

// Where requests by address go instead.
class AddressMap {
public:
    int set(const char *function, const RawFlashMap *map, uint32_t entries);
    // *out: where the `bytes` at `address` go. -1 where they would go to different places.
    int apply(const char *function, uint64_t address, uint64_t bytes, uint64_t *out) const;

private:
    RawFlashMap entries_[QEL_RAWFLASH_MAX_MAPS] = {};
    uint32_t count_ = 0;
};

struct Object {
    RawFlash face;  // first: the object handed out
    RawFlashInfo info;
    flash::Requests requests;
    AddressMap map;
    uint32_t chip;
};

// The object behind `thiz` if it is of the kind whose operations include `add_ref`; nullptr, with a
// line in the log, for anything else.
Object *object_of(RawFlash *thiz, int (*add_ref)(RawFlash *), const char *function);

// A new object with one reference; nullptr without memory.
void *allocate_memory(const char *function, size_t bytes);
void set_up(Object &object, const RawFlash &operations);
template <typename Kind>
Kind *allocate(const char *function, const RawFlash &operations) {
    void *const memory = allocate_memory(function, sizeof(Kind));
    if (memory == nullptr) return nullptr;
    Kind *const object = new (memory) Kind();
    set_up(*object, operations);
    return object;
}
int add_reference(Object &object);
// How many references are left.
int32_t drop_reference(Object &object);

bool is_missing(const char *function, const void *argument);

// A request for as long as it runs.
class Running {
public:
    explicit Running(Object &object) : requests_(object.requests) { requests_.begin(); }
    ~Running() { requests_.end(); }
    Running(const Running &) = delete;
    Running &operator=(const Running &) = delete;

private:
    flash::Requests &requests_;
};

// ---- this chip's flash, for requests that come in pieces from another chip ----

struct Piece {
    const char *name;  // of the partition, nullptr: `offset` is an address of the whole flash
    uint64_t offset;
    uint64_t following;  // bytes that later pieces bring
};
int write_local(RawFlash *local, const char *function, const Piece &piece, const void *data, uint32_t bytes);

// As release, but an upgrade in progress stays so: for a master that went away.
void abandon_local(RawFlash *local);

// Unmounts what stands on the flash's directories.
void unmount_flash();

}  // namespace qel::rawflash
