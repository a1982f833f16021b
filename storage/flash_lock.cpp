// flash_lock.cpp - one writer at a time: the flash semaphore between processes.
#include <fcntl.h>

#include "frame/log.h"
#include "frame/mutex.h"
#include "frame/unload.h"
#include "os/os.h"
#include "product/hwid_store.h"
#include "qel/product.h"
#include "storage/flash.h"

namespace qel::flash {

namespace {

constexpr const char *kKeyFile = "/var/tmp/flashkey";
constexpr int kKeyProject = 3;
constexpr unsigned kKeyFileMode = 0666;
constexpr int kCategoryWithoutLock = 1;
constexpr const char *kStarter = "QEL_flashIinit";

struct State {
    OSA_IpcSem semaphore = nullptr;
    Mutex threads;  // in its place where there is none
};
constinit State state;

thread_local unsigned depth = 0;

int make_key(int *key) {
    const os::Fd file(os::open(kKeyFile, O_RDWR | O_CREAT, kKeyFileMode));
    if (!file.is_open()) return OSA_EFAIL;
    return OSA_ipcMakeKey(kKeyFile, kKeyProject, key);
}

int take() QEL_THREAD_ATTRIBUTE(no_thread_safety_analysis) {
    if (state.semaphore != nullptr) return OSA_ipcSemLock(state.semaphore, OSA_WAIT_FOREVER);
    state.threads.lock();
    return 0;
}

void give_back() QEL_THREAD_ATTRIBUTE(no_thread_safety_analysis) {
    if (state.semaphore == nullptr) {
        state.threads.unlock();
    } else if (OSA_ipcSemUnlock(state.semaphore) != 0) {
        QEL_ERROR_AS("Flash_unlock", "the flash semaphore is gone\n");
    }
}

// The semaphore itself stays for the other processes. QEL_flashDeinit leaves the handle alone: a
// raw flash object may still be in use.
QEL_AT_UNLOAD void close_at_unload() {
    if (state.semaphore != nullptr) OSA_ipcSemClose(&state.semaphore);
    state.threads.destroy();
}

}  // namespace

int set_up_lock() {
    if (state.semaphore != nullptr) return 0;
    state.threads.destroy();
    if (state.threads.create() != 0) return OSA_EFAIL;
    if (product::property(0, QEL_PROPERTY_CATEGORY) == kCategoryWithoutLock) return 0;
    int key = 0;
    if (make_key(&key) != 0) {
        QEL_WARN_AS(kStarter, "Fail to create semlock key.\n");
        return 0;
    }
    if (OSA_ipcSemOpen(&state.semaphore, key, 0, 1, 1) == 0) return 0;
    if (OSA_ipcSemOpen(&state.semaphore, key, 1, 1, 1) == 0) return 0;
    state.semaphore = nullptr;
    QEL_ERROR_AS(kStarter, "OSA_ipcSemOpen() \n");
    return 0;
}

Lock::Lock() : held_(depth > 0 || take() == 0) {
    if (held_) {
        ++depth;
    } else {
        QEL_ERROR_AS("Flash_lock", "Can't lock the flash\n");
    }
}

Lock::~Lock() {
    if (held_ && --depth == 0) give_back();
}

}  // namespace qel::flash
