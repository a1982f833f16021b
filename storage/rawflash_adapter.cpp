// rawflash_adapter.cpp - the raw flash object over a slave chip's flash, on the master. Requests go over
// in pieces that a message holds, writes in whole erase blocks.
#include <algorithm>
#include <cstring>

#include "frame/adapter.h"
#include "storage/rawflash_object.h"
#include "storage/rawflash_wire.h"

namespace qel::rawflash {

namespace {

int add_ref(RawFlash *thiz);

Object *adapter_of(RawFlash *thiz, const char *function) { return object_of(thiz, add_ref, function); }

// One request and its answer.
class Message {
public:
    Message(uint32_t chip, Command command, uint32_t data_bytes)
        : request_(chip, QEL_MODULE_FLASH, command, sizeof(FlashRequest) + data_bytes) {}

    uint8_t *data() const { return request_.payload() + sizeof(FlashRequest); }
    bool has_memory() const { return request_.get() != nullptr; }
    // 0 when the slave did what was asked.
    int call(const char *function, const FlashRequest &request) {
        if (!has_memory()) {
            QEL_ERROR_AS(function, "OSA_memCalloc failed !\n");
            return OSA_EFAIL;
        }
        FlashRequest answer = request;
        answer.status = OSA_EFAIL;
        memcpy(request_.payload(), &answer, sizeof answer);
        const uint32_t chip = request_.get()->chip;
        if (QEL_adapterMasterProc(request_.get()) != 0 || !request_.is_answered()) {
            QEL_ERROR_AS(function, "chip %u does not answer\n", chip);
            return OSA_EFAIL;
        }
        memcpy(&answer, request_.payload(), sizeof answer);
        if (answer.status == 0) return 0;
        QEL_ERROR_AS(function, "chip %u failed\n", chip);
        return OSA_EFAIL;
    }

private:
    adapter::Request request_;
};

int call(uint32_t chip, const char *function, Command command, const FlashRequest &request = {}) {
    return Message(chip, command, 0).call(function, request);
}

int ask_caps(uint32_t chip, const char *function, RawFlashCaps *out) {
    Message message(chip, kCaps, sizeof *out);
    if (message.call(function, {}) != 0) return OSA_EFAIL;
    memcpy(out, message.data(), sizeof *out);
    out->chip = chip;
    return 0;
}

bool goes_on(const Object &object, const char *function) {
    if (!object.requests.is_aborted()) return true;
    QEL_WARN_AS(function, "aborted\n");
    return false;
}

void tell(const Object &object, uint64_t done, uint64_t total) {
    if (object.info.progress != nullptr) object.info.progress(object.info.progressContext, done, total);
}

// ---- the operations ----

int add_ref(RawFlash *thiz) {
    Object *const object = adapter_of(thiz, "Flash_addref");
    return object != nullptr ? add_reference(*object) : OSA_EFAIL;
}

int release(RawFlash *thiz) {
    constexpr const char *kName = "Flash_release";
    Object *const object = adapter_of(thiz, kName);
    if (object == nullptr) return OSA_EFAIL;
    if (drop_reference(*object) > 0) return 0;
    // A chip that does not answer any more has nothing open, and those behind it are released too.
    call(object->chip, kName, kClose);
    OSA_memFree(object);
    return 0;
}

int get_caps(RawFlash *thiz, RawFlashCaps *out) {
    constexpr const char *kName = "Flash_getcaps";
    const Object *const object = adapter_of(thiz, kName);
    if (object == nullptr || is_missing(kName, out)) return OSA_EFAIL;
    return ask_caps(object->chip, kName, out);
}

int read_at(RawFlash *thiz, const char *function, uint64_t address, void *buffer, uint32_t bytes) {
    Object *const object = adapter_of(thiz, function);
    if (object == nullptr || is_missing(function, buffer)) return OSA_EFAIL;
    const Running running(*object);
    if (object->map.apply(function, address, bytes, &address) != 0) return OSA_EFAIL;
    for (uint32_t done = 0; done < bytes;) {
        if (!goes_on(*object, function)) return OSA_EFAIL;
        const uint32_t piece = std::min(kMaxDataBytes, bytes - done);
        Message message(object->chip, kRead, piece);
        if (message.call(function,
                         {.status = 0, .bytes = piece, .address = address + done, .count = 0, .name = {}}) !=
            0) {
            return OSA_EFAIL;
        }
        memcpy(static_cast<uint8_t *>(buffer) + done, message.data(), piece);
        done += piece;
        tell(*object, done, bytes);
    }
    return 0;
}

// How much a message brings so that the next one starts where a write may.
int piece_bytes(uint32_t chip, const char *function, uint32_t *out) {
    RawFlashCaps caps{};
    if (ask_caps(chip, function, &caps) != 0) return OSA_EFAIL;
    *out = caps.eraseBytes != 0 ? kMaxDataBytes / caps.eraseBytes * caps.eraseBytes : 0;
    if (*out != 0) return 0;
    QEL_ERROR_AS(function, "a block of 0x%x bytes does not fit into a message\n", caps.eraseBytes);
    return OSA_EFAIL;
}

// `where`: the address, and the partition's name for kWritePiece.
int write_pieces(Object &object, const char *function, Command command, FlashRequest where, const void *data,
                 uint32_t bytes) {
    uint32_t most = 0;
    if (piece_bytes(object.chip, function, &most) != 0) return OSA_EFAIL;
    uint32_t done = 0;
    do {
        if (!goes_on(object, function)) return OSA_EFAIL;
        where.bytes = std::min(most, bytes - done);
        where.count = bytes - done - where.bytes;
        Message message(object.chip, command, where.bytes);
        if (message.has_memory())
            memcpy(message.data(), static_cast<const uint8_t *>(data) + done, where.bytes);
        if (message.call(function, where) != 0) return OSA_EFAIL;
        where.address += where.bytes;
        done += where.bytes;
        tell(object, done, bytes);
    } while (done < bytes);
    return 0;
}

int write_at(RawFlash *thiz, const char *function, uint64_t address, const void *data, uint32_t bytes) {
    Object *const object = adapter_of(thiz, function);
    if (object == nullptr || is_missing(function, data)) return OSA_EFAIL;
    const Running running(*object);
    FlashRequest where{};
    if (object->map.apply(function, address, bytes, &where.address) != 0) return OSA_EFAIL;
    return write_pieces(*object, function, kWrite, where, data, bytes);
}

int write_partition(RawFlash *thiz, const char *name, const void *data, uint32_t bytes) {
    constexpr const char *kName = "Flash_writePartition";
    Object *const object = adapter_of(thiz, kName);
    if (object == nullptr || is_missing(kName, name) || is_missing(kName, data)) return OSA_EFAIL;
    const Running running(*object);
    FlashRequest where{};
    if (strlen(name) >= sizeof where.name) {
        QEL_WARN_SHORT("Get partion %s failed!\n", name);
        return OSA_EFAIL;
    }
    strcpy(where.name, name);
    return write_pieces(*object, kName, kWritePiece, where, data, bytes);
}

int erase_at(RawFlash *thiz, const char *function, uint64_t address, uint64_t bytes) {
    Object *const object = adapter_of(thiz, function);
    if (object == nullptr) return OSA_EFAIL;
    const Running running(*object);
    FlashRequest where{};
    where.count = bytes;
    if (object->map.apply(function, address, bytes, &where.address) != 0) return OSA_EFAIL;
    if (call(object->chip, function, kErase, where) != 0) return OSA_EFAIL;
    tell(*object, bytes, bytes);
    return 0;
}

int read(RawFlash *thiz, uint32_t address, void *buffer, uint32_t bytes) {
    return read_at(thiz, "Flash_read", address, buffer, bytes);
}

int write(RawFlash *thiz, uint32_t address, const void *data, uint32_t bytes) {
    return write_at(thiz, "Flash_write", address, data, bytes);
}

int erase(RawFlash *thiz, uint32_t address, uint32_t bytes) {
    return erase_at(thiz, "Flash_erase", address, bytes);
}

int abort(RawFlash *thiz) {
    constexpr const char *kName = "Flash_abort";
    Object *const object = adapter_of(thiz, kName);
    if (object == nullptr) return OSA_EFAIL;
    object->requests.abort();
    return call(object->chip, kName, kAbort);
}

int set_map(RawFlash *thiz, const RawFlashMap *map, uint32_t entries) {
    constexpr const char *kName = "Flash_setPartitionMap";
    Object *const object = adapter_of(thiz, kName);
    return object != nullptr ? object->map.set(kName, map, entries) : OSA_EFAIL;
}

int get_mapped(RawFlash *thiz, uint64_t address, uint64_t *out) {
    constexpr const char *kName = "Flash_getPartitionMapedAddr";
    const Object *const object = adapter_of(thiz, kName);
    if (object == nullptr || is_missing(kName, out)) return OSA_EFAIL;
    return object->map.apply(kName, address, 0, out);
}

int read64(RawFlash *thiz, uint64_t address, void *buffer, uint32_t bytes) {
    return read_at(thiz, "Flash_read64", address, buffer, bytes);
}

int write64(RawFlash *thiz, uint64_t address, const void *data, uint32_t bytes) {
    return write_at(thiz, "Flash_write64", address, data, bytes);
}

int erase64(RawFlash *thiz, uint64_t address, uint64_t bytes) {
    return erase_at(thiz, "Flash_erase64", address, bytes);
}

constexpr RawFlash kOperations = {nullptr, add_ref, release,    get_caps, read,    write,   erase,
                                  abort,   set_map, get_mapped, read64,   write64, erase64, write_partition};

}  // namespace

}  // namespace qel::rawflash

using namespace qel;
using namespace qel::rawflash;

extern "C" {

int createRawFlashAdapter(uint32_t chip, RawFlash **out) {
    if (is_missing(__func__, out)) return OSA_EFAIL;
    *out = nullptr;
    Object *const object = allocate<Object>(__func__, kOperations);
    if (object == nullptr) return OSA_EFAIL;
    object->chip = chip;
    if (call(chip, __func__, kOpen) != 0) {
        OSA_memFree(object);
        return OSA_EFAIL;
    }
    *out = &object->face;
    return 0;
}

}  // extern "C"
