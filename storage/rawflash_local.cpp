// rawflash_local.cpp - the raw flash object over this chip's flash.
#include "product/hwid_store.h"
#include "qel/storage.h"
#include "storage/flash.h"
#include "storage/rawflash_object.h"
#include "storage/upgrade_state.h"

namespace qel::rawflash {

namespace {

// Objects over this chip's flash that exist in this process.
std::atomic<uint32_t> users{0};

int add_ref(RawFlash *thiz);

Object *local_of(RawFlash *thiz, const char *function) { return object_of(thiz, add_ref, function); }

int add_ref(RawFlash *thiz) {
    Object *const object = local_of(thiz, "Flash_addref");
    return object != nullptr ? add_reference(*object) : OSA_EFAIL;
}

void drop(Object *object) {
    if (drop_reference(*object) > 0) return;
    const flash::Lock lock;
    if (users.fetch_sub(1) == 1) {
        upgrade_state::end_session();
        flash::release_partitions();
    }
    OSA_memFree(object);
}

int release(RawFlash *thiz) {
    Object *const object = local_of(thiz, "Flash_release");
    if (object == nullptr) return OSA_EFAIL;
    upgrade_state::complete();
    drop(object);
    return 0;
}

int get_caps(RawFlash *thiz, RawFlashCaps *out) {
    constexpr const char *kName = "Flash_getcaps";
    const Object *const object = local_of(thiz, kName);
    if (object == nullptr || is_missing(kName, out)) return OSA_EFAIL;
    const FlashInfo info = flash::info();
    *out = {
        object->chip,        info.type,           info.pageBytes, info.eraseBytes, flash::partition_count(),
        flash::fpga_start(), flash::total_bytes()};
    return 0;
}

// Where a request by address goes.
int find(const Object &object, const char *function, uint64_t address, uint64_t bytes, flash::Place *out) {
    if (object.map.apply(function, address, bytes, &address) != 0) return OSA_EFAIL;
    return flash::find_place(function, address, out);
}

int read_at(RawFlash *thiz, const char *function, uint64_t address, void *buffer, uint32_t bytes) {
    Object *const object = local_of(thiz, function);
    flash::Place place;
    if (object == nullptr || is_missing(function, buffer)) return OSA_EFAIL;
    const Running running(*object);
    if (find(*object, function, address, bytes, &place) != 0) return OSA_EFAIL;
    return flash::read_flash({function, object->requests, object->info}, place, buffer, bytes);
}

int erase_at(RawFlash *thiz, const char *function, uint64_t address, uint64_t bytes) {
    Object *const object = local_of(thiz, function);
    flash::Place place;
    if (object == nullptr) return OSA_EFAIL;
    const Running running(*object);
    if (find(*object, function, address, bytes, &place) != 0) return OSA_EFAIL;
    return flash::erase_flash({function, object->requests, object->info}, place, bytes);
}

int read(RawFlash *thiz, uint32_t address, void *buffer, uint32_t bytes) {
    return read_at(thiz, "Flash_read", address, buffer, bytes);
}

int write(RawFlash *thiz, uint32_t address, const void *data, uint32_t bytes) {
    return write_local(thiz, "Flash_write", {nullptr, address, 0}, data, bytes);
}

int erase(RawFlash *thiz, uint32_t address, uint32_t bytes) {
    return erase_at(thiz, "Flash_erase", address, bytes);
}

int abort(RawFlash *thiz) {
    Object *const object = local_of(thiz, "Flash_abort");
    if (object == nullptr) return OSA_EFAIL;
    object->requests.abort();
    return 0;
}

int set_map(RawFlash *thiz, const RawFlashMap *map, uint32_t entries) {
    constexpr const char *kName = "Flash_setPartitionMap";
    Object *const object = local_of(thiz, kName);
    return object != nullptr ? object->map.set(kName, map, entries) : OSA_EFAIL;
}

int get_mapped(RawFlash *thiz, uint64_t address, uint64_t *out) {
    constexpr const char *kName = "Flash_getPartitionMapedAddr";
    const Object *const object = local_of(thiz, kName);
    if (object == nullptr || is_missing(kName, out)) return OSA_EFAIL;
    return object->map.apply(kName, address, 0, out);
}

int read64(RawFlash *thiz, uint64_t address, void *buffer, uint32_t bytes) {
    return read_at(thiz, "Flash_read64", address, buffer, bytes);
}

int write64(RawFlash *thiz, uint64_t address, const void *data, uint32_t bytes) {
    return write_local(thiz, "Flash_write64", {nullptr, address, 0}, data, bytes);
}

int erase64(RawFlash *thiz, uint64_t address, uint64_t bytes) {
    return erase_at(thiz, "Flash_erase64", address, bytes);
}

int write_partition(RawFlash *thiz, const char *name, const void *data, uint32_t bytes) {
    constexpr const char *kName = "Flash_writePartition";
    return is_missing(kName, name) ? OSA_EFAIL : write_local(thiz, kName, {name, 0, 0}, data, bytes);
}

constexpr RawFlash kOperations = {nullptr, add_ref, release,    get_caps, read,    write,   erase,
                                  abort,   set_map, get_mapped, read64,   write64, erase64, write_partition};

}  // namespace

int write_local(RawFlash *local, const char *function, const Piece &piece, const void *data, uint32_t bytes) {
    Object *const object = local_of(local, function);
    if (object == nullptr || is_missing(function, data)) return OSA_EFAIL;
    const Running running(*object);
    flash::Place place = {-1, piece.offset};
    if (piece.name == nullptr) {
        const uint64_t all = piece.following < UINT64_MAX - bytes ? bytes + piece.following : UINT64_MAX;
        if (find(*object, function, piece.offset, all, &place) != 0) return OSA_EFAIL;
    } else {
        place.partition = flash::find_partition(piece.name);
        if (place.partition < 0) {
            QEL_WARN_SHORT("Get partion %s failed!\n", piece.name);
            return OSA_EFAIL;
        }
    }
    return flash::write_flash({function, object->requests, object->info}, place, data, bytes,
                              piece.following);
}

void abandon_local(RawFlash *local) { drop(reinterpret_cast<Object *>(local)); }

}  // namespace qel::rawflash

using namespace qel;
using namespace qel::rawflash;

extern "C" {

int createRawFlashLocal(RawFlash **out) {
    if (is_missing(__func__, out)) return OSA_EFAIL;
    *out = nullptr;
    if (flash::info().eraseBytes == 0) {
        QEL_ERROR("no flash\n");
        return OSA_EFAIL;
    }
    Object *const object = allocate<Object>(__func__, kOperations);
    if (object == nullptr) return OSA_EFAIL;
    hwid::ChipInfo chip{};
    object->chip = product::chip_info(&chip) == 0 ? chip.chip_idx : 0;
    users.fetch_add(1);
    *out = &object->face;
    return 0;
}

}  // extern "C"
