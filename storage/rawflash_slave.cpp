// rawflash_slave.cpp - the slave chip's side: its flash, worked on by the master.
#include <cstring>

#include "frame/log.h"
#include "frame/mutex.h"
#include "product/adapter_module.h"
#include "qel/storage.h"
#include "storage/rawflash_object.h"
#include "storage/rawflash_wire.h"
#include "storage/upgrade_state.h"

namespace qel::rawflash {

namespace {

constexpr const char *kName = "FLASH_adapterSlaveProc";

// The object that the master's objects share. It stands from the first kOpen to the last kClose.
struct State {
    Mutex mutex;
    RawFlash *flash QEL_GUARDED_BY(mutex) = nullptr;
    uint32_t opens QEL_GUARDED_BY(mutex) = 0;
    uint32_t running QEL_GUARDED_BY(mutex) = 0;  // requests that use it now
};
constinit State state;

// The object goes once nobody needs it any more.
void release_unused_locked() QEL_REQUIRES(state.mutex) {
    if (state.opens != 0 || state.running != 0 || state.flash == nullptr) return;
    state.flash->release(state.flash);
    state.flash = nullptr;
}

// The master has not closed what it opened: whatever it was doing is not complete.
void forget_master() {
    const MutexLock lock(state.mutex);
    if (state.flash != nullptr) abandon_local(state.flash);
    state.flash = nullptr;
    state.opens = 0;
}

int open() {
    const MutexLock lock(state.mutex);
    if (state.flash == nullptr) {
        unmount_flash();
        if (createRawFlashLocal(&state.flash) != 0) return OSA_EFAIL;
    }
    ++state.opens;
    return 0;
}

int close() {
    const MutexLock lock(state.mutex);
    if (state.opens == 0) return OSA_EFAIL;
    --state.opens;
    release_unused_locked();
    return 0;
}

// The object for the length of one request.
class Use {
public:
    Use() {
        const MutexLock lock(state.mutex);
        if (state.opens == 0) return;
        flash_ = state.flash;
        ++state.running;
    }
    ~Use() {
        const MutexLock lock(state.mutex);
        if (flash_ == nullptr) return;
        --state.running;
        release_unused_locked();
    }
    Use(const Use &) = delete;
    Use &operator=(const Use &) = delete;
    RawFlash *get() const { return flash_; }

private:
    RawFlash *flash_ = nullptr;
};

struct Operation {
    uint32_t command;
    bool carries_bytes;  // `bytes` of data or of room lie behind the request
    uint32_t answer_bytes;
    int (*run)(RawFlash *flash, const FlashRequest &request, uint8_t *data);
};

constexpr Operation kOperations[] = {
    {kOpen, false, 0, nullptr},
    {kClose, false, 0, nullptr},
    {kCaps, false, sizeof(RawFlashCaps),
     [](RawFlash *flash, const FlashRequest &, uint8_t *data) {
         RawFlashCaps caps{};
         const int status = flash->getCaps(flash, &caps);
         memcpy(data, &caps, sizeof caps);
         return status;
     }},
    {kRead, true, 0,
     [](RawFlash *flash, const FlashRequest &request, uint8_t *data) {
         return flash->read64(flash, request.address, data, request.bytes);
     }},
    {kWrite, true, 0,
     [](RawFlash *flash, const FlashRequest &request, uint8_t *data) {
         return write_local(flash, kName, {nullptr, request.address, request.count}, data, request.bytes);
     }},
    {kErase, false, 0,
     [](RawFlash *flash, const FlashRequest &request, uint8_t *) {
         return flash->erase64(flash, request.address, request.count);
     }},
    {kAbort, false, 0, [](RawFlash *flash, const FlashRequest &, uint8_t *) { return flash->abort(flash); }},
    {kWritePiece, true, 0,
     [](RawFlash *flash, const FlashRequest &request, uint8_t *data) {
         return write_local(flash, kName, {request.name, request.address, request.count}, data,
                            request.bytes);
     }},
};

const Operation *find(uint32_t command) {
    for (const Operation &operation : kOperations) {
        if (operation.command == command) return &operation;
    }
    QEL_ERROR_AS(kName, "no command %u\n", command);
    return nullptr;
}

int run(const Operation &operation, const FlashRequest &request, uint8_t *data) {
    if (operation.command == kOpen) return open();
    if (operation.command == kClose) return close();
    const Use use;
    if (use.get() != nullptr) return operation.run(use.get(), request, data);
    QEL_ERROR_AS(kName, "the master has not opened the flash\n");
    return OSA_EFAIL;
}

}  // namespace

int serve(uint32_t command, uint8_t *payload, uint32_t length) {
    const Operation *const operation = find(command);
    if (operation == nullptr) return OSA_EFAIL;
    FlashRequest request;
    uint64_t needed = sizeof request;
    if (length >= needed) {
        memcpy(&request, payload, sizeof request);
        needed += operation->answer_bytes + (operation->carries_bytes ? request.bytes : 0);
    }
    if (length < needed || memchr(request.name, '\0', sizeof request.name) == nullptr) {
        QEL_ERROR_AS(kName, "command %u with a payload of %u bytes\n", command, length);
        return OSA_EFAIL;
    }
    request.status = run(*operation, request, payload + sizeof request) == 0 ? 0 : OSA_EFAIL;
    memcpy(payload, &request.status, sizeof request.status);
    return 0;
}

}  // namespace qel::rawflash

using namespace qel::rawflash;

extern "C" {

int FLASH_adapterSlaveProc(AdapterMsg *msg) {
    auto *const payload = static_cast<uint8_t *>(QEL_ADAPTER_PAYLOAD(msg));
    if (msg->cmd == qel::upgrade_state::kWriteFlagCommand) {
        return qel::upgrade_state::serve_write_flag(payload, msg->length);
    }
    return serve(msg->cmd, payload, msg->length);
}

int FLASH_adapterInit(void) {
    state.mutex.destroy();
    if (state.mutex.create() != 0) return OSA_EFAIL;
    return qel::product::attach_on_slave(__func__, QEL_MODULE_FLASH, FLASH_adapterSlaveProc);
}

int FLASH_adapterDeInit(void) {
    const int status = QEL_adapterSlaveDetachProc(QEL_MODULE_FLASH);
    forget_master();
    state.mutex.destroy();
    return status;
}

}  // extern "C"
