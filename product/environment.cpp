// environment.cpp - boot environment parameters: one copy of the block for all processes, in a shared
// segment, and a semaphore around every get, set and delete.
//
// A process may be killed at any moment, so at any moment the segment or the flash holds a whole
// block, and the segment's first word, the place of the CRC, tells which: kSaving while flash is
// written, kCopying while the segment is. A change is made on a copy, goes to flash and then to the
// segment. Whoever finds kCopying reads the flash again; whoever attaches and finds kSaving writes the
// segment to flash. Should a CRC happen to be one of the two, that costs the same and harms nothing.
#include "product/environment.h"

#include <fcntl.h>
#include <algorithm>
#include <atomic>
#include <cstring>

#include "frame/log.h"
#include "frame/unload.h"
#include "os/os.h"
#include "product/env_flash.h"
#include "product/hwid_store.h"
#include "qel/product.h"
#include "qel/system.h"

namespace qel::environment {

namespace {

constexpr const char *kKeyFile = "/var/tmp/envfile";
constexpr unsigned kKeyFileMode = 0666;
constexpr int kSemaphoreKeyNumber = 1;
constexpr int kSegmentKeyNumber = 2;
constexpr int kFallbackSemaphoreKey = 0x10D00C6;
constexpr int kFallbackSegmentKey = 0x20D00C6;

constexpr int kMaxValueBytes = QEL_BOOT_PARAMETER_BYTES - 1;
constexpr const char *kSetter = "ENV_setVal";
constexpr const char *kMacNames[] = {"ethaddr", "ethaddr1", "wifiaddr"};
constexpr const char *kMacMayChange = "/var/tmp/ethaddr";
constexpr int kCategoryWithFixedMac = 1;

// Under the semaphore, but for the keys, which do not change while the library is loaded.
struct State {
    int semaphore_key = kFallbackSemaphoreKey;
    int segment_key = kFallbackSegmentKey;
    OSA_IpcSem semaphore = nullptr;
    Medium medium;
    uint8_t *segment = nullptr;  // nullptr until first use
};
constinit State state;

// Where it cannot be locked the operation goes on.
class SemLock {
public:
    SemLock() { ENV_SemLock(); }
    ~SemLock() { ENV_SemUnlock(); }
    SemLock(const SemLock &) = delete;
    SemLock &operator=(const SemLock &) = delete;
};

Block shared() { return {state.segment, state.medium.block_bytes}; }

// The first word of the segment, with all that was written before it.
std::atomic_ref<uint32_t> first_word() {
    return std::atomic_ref<uint32_t>(*reinterpret_cast<uint32_t *>(state.segment));
}

// Nothing that follows moves in front of it.
void mark(uint32_t what) { first_word().exchange(what); }

// Replaces the list of the shared copy; behind a list it is zero.
void publish(ConstBlock list) {
    const size_t end = list.size();
    const bool was_whole = first_word().load() != kCopying;
    const size_t old_end = was_whole ? find_end(shared()).at : shared().size();
    mark(kCopying);
    memcpy(state.segment + kCrcBytes, list.data() + kCrcBytes, end - kCrcBytes);
    const size_t zero_end = std::min(std::max(old_end, end) + 1, shared().size());
    memset(state.segment + end, 0, zero_end - end);
    uint32_t word = 0;
    memcpy(&word, list.data(), sizeof word);
    first_word().store(word);
}

int load_from_flash() {
    const Scratch scratch(state.medium.block_bytes);
    size_t end = 0;
    if (!scratch || read_list(state.medium, scratch.block(), &end) != 0) {
        os::print_out("Fail to read env partition!");
        return OSA_EFAIL;
    }
    publish(scratch.block().first(end));
    return 0;
}

// Brings a sealed block to flash and to the segment.
int save(ConstBlock block) {
    mark(kSaving);
    const int status = write_block(state.medium, block);
    publish(block.first(find_end(block).at));
    return status;
}

// A process died while it wrote to flash.
int finish_save() {
    QEL_WARN_AS("ENV_getPlatformInfo", "a process died while it saved the environment, saving it again\n");
    const Scratch scratch(state.medium.block_bytes);
    if (!scratch) return OSA_EFAIL;
    memcpy(scratch.block().data(), state.segment, scratch.block().size());
    store_crc(scratch.block());
    return save(scratch.block());
}

int attach_segment() {
    void *at = nullptr;
    const size_t bytes = state.medium.block_bytes;
    if (OSA_ipcShmOpen(state.segment_key, bytes, 0, &at) < 0 &&
        OSA_ipcShmOpen(state.segment_key, bytes, 1, &at) < 0) {
        QEL_ERROR_AS("ENV_getPlatformInfo", "Failed to create share memory for EVN.\n");
        return OSA_EFAIL;
    }
    state.segment = static_cast<uint8_t *>(at);
    return 0;
}

void detach() {
    if (state.segment != nullptr) OSA_ipcShmDetach(state.segment);
    state.segment = nullptr;
    close_medium(&state.medium);
}

int attach() {
    if (open_medium(&state.medium) == 0 && attach_segment() == 0) {
        if ((first_word().load() == kSaving ? finish_save() : load_from_flash()) == 0) return 0;
    }
    os::print_out("Get EnvPlatInfo  Failed ");
    detach();
    return OSA_EFAIL;
}

// The segment is attached and whole.
bool is_ready() {
    if (state.segment == nullptr) return attach() == 0;
    return first_word().load() != kCopying || load_from_flash() == 0;
}

int mac_index(const char *name) {
    const auto *const found = std::find_if(std::begin(kMacNames), std::end(kMacNames),
                                           [&](const char *mac_name) { return strcmp(mac_name, name) == 0; });
    return found != std::end(kMacNames) ? static_cast<int>(found - std::begin(kMacNames)) : -1;
}

bool may_set(const char *name) {
    return mac_index(name) < 0 || product::property(0, QEL_PROPERTY_CATEGORY) != kCategoryWithFixedMac ||
           os::exists(kMacMayChange);
}

void note_mac_change(const char *name, const char *value) {
    const int index = mac_index(name);
    if (index < 0) return;
    uint8_t mac[kMacBytes];
    parse_mac(value, mac);
    QEL_recordSetMacChange(static_cast<unsigned>(index), mac);
}

int save_and_tell(Block block, const char *name, const char *value) {
    store_crc(block);
    os::print_out("Save environment to flash ,Please wait ..\nNote!! don't power off\n");
    if (value != nullptr) note_mac_change(name, value);
    if (save(block) != 0) {
        os::print_out("Fail to save env");
        return OSA_EFAIL;
    }
    os::print_out("Save Ok\n");
    return 0;
}

// Changes a copy; what does not fit is removed from the segment alone.
int replace(const char *name, const char *value) {
    const Scratch scratch(state.medium.block_bytes);
    if (!scratch) return OSA_EFAIL;
    const Block block = scratch.block();
    memcpy(block.data(), shared().data(), block.size());
    remove(block, name);
    if (!append(block, name, value)) {
        publish(block.first(find_end(block).at));
        os::print_out("environment overflow, \"%s\" deleted\n", name);
        os::print_out("set environment to flash fail");
        return OSA_EFAIL;
    }
    return save_and_tell(block, name, value);
}

int set_parameter(const char *name, const char *value) {
    const SemLock lock;
    if (!is_ready()) {
        os::print_out("Fail to init evn resource!");
        return OSA_EFAIL;
    }
    if (!may_set(name)) {
        QEL_ERROR_AS(kSetter, "nonsupport set ethaddr!!!\n");
        os::print_out("set environment to flash fail");
        return OSA_EFAIL;
    }
    return replace(name, value);
}

int delete_parameter(const char *name) {
    const SemLock lock;
    if (!is_ready()) {
        os::print_out("Fail to init evn resource!");
        return OSA_EFAIL;
    }
    const Scratch scratch(state.medium.block_bytes);
    if (!scratch) return OSA_EFAIL;
    memcpy(scratch.block().data(), shared().data(), shared().size());
    remove(scratch.block(), name);
    return save_and_tell(scratch.block(), name, nullptr);
}

// Fills `value` where the parameter is there and fits.
bool copy_value(const char *name, char *value, int limit) {
    const Value found = find(shared(), name);
    if (found.text == nullptr) return false;
    if (limit < 1 || found.length >= static_cast<size_t>(limit)) {
        os::print_out("pName %s\n", name);
        os::print_out("Recieve buffer is too small");
        return false;
    }
    memcpy(value, found.text, found.length + 1);
    return true;
}

int make_keys() {
    if (ENV_fileInit() != 0) {
        QEL_ERROR_AS("ENV_preInit", "ENV_fileInit fail\n");
        return OSA_EFAIL;
    }
    if (OSA_ipcMakeKey(kKeyFile, kSemaphoreKeyNumber, &state.semaphore_key) != 0) {
        QEL_WARN_AS("ENV_preInit", "Fail to create semlock key.\n");
        state.semaphore_key = kFallbackSemaphoreKey;
    }
    if (OSA_ipcMakeKey(kKeyFile, kSegmentKeyNumber, &state.segment_key) != 0) {
        QEL_WARN_AS("ENV_preInit", "Fail to create env share memory key.\n");
        state.segment_key = kFallbackSegmentKey;
    }
    return 0;
}

// The semaphore and the segment themselves stay for the other processes.
QEL_AT_UNLOAD void clean_up() {
    detach();
    if (state.semaphore != nullptr) OSA_ipcSemClose(&state.semaphore);
    state = {};
}

}  // namespace

int read_parameter(const char *name, char *value, int size) {
    const int limit = std::min(size, kMaxValueBytes);
    const SemLock lock;
    if (!is_ready()) {
        os::print_out("Fail to init env resource!");
        return OSA_EFAIL;
    }
    if (copy_value(name, value, limit)) return 0;
    os::print_out("Fail to get env %s!\n", name);
    return OSA_EFAIL;
}

}  // namespace qel::environment

using namespace qel;
using namespace qel::environment;

extern "C" {

int ENV_preInit(void) {
    clean_up();
    make_keys();
    if (OSA_ipcSemOpen(&state.semaphore, state.semaphore_key, 0, 1, 1) != 0 &&
        OSA_ipcSemOpen(&state.semaphore, state.semaphore_key, 1, 1, 1) != 0) {
        state.semaphore = nullptr;
        QEL_ERROR("OSA_ipcSemOpen() \n");
    }
    return 0;
}

int ENV_fileInit(void) {
    const os::Fd file(os::open(kKeyFile, O_RDWR | O_CREAT, kKeyFileMode));
    return file.is_open() ? 0 : OSA_EFAIL;
}

int ENV_SemLock(void) {
    const int status = OSA_ipcSemLock(state.semaphore, OSA_WAIT_FOREVER);
    if (status != 0) QEL_WARN("Can't lock the sem, status=%d \n", status);
    return status;
}

int ENV_SemUnlock(void) {
    const int status = OSA_ipcSemUnlock(state.semaphore);
    if (status != 0) QEL_WARN("Can't unlock the sem, status=%d \n", status);
    return status;
}

int ENV_getPlatformInfo(void) {
    detach();
    return attach();
}

int ENV_init(void) { return is_ready() ? 0 : OSA_EFAIL; }

int ENV_readenv(int fd, void *block) {
    if (block == nullptr || state.segment == nullptr) {
        QEL_ERROR("bad argument\n");
        return OSA_EFAIL;
    }
    Medium medium = state.medium;
    medium.fd = fd;
    return read_block(medium, {static_cast<uint8_t *>(block), medium.block_bytes});
}

int ENV_writeenv(int fd, const void *block) {
    if (block == nullptr || state.segment == nullptr) {
        QEL_ERROR("bad argument\n");
        return OSA_EFAIL;
    }
    Medium medium = state.medium;
    medium.fd = fd;
    return write_block(medium, {static_cast<const uint8_t *>(block), medium.block_bytes});
}

int ENV_setVal(const char *name, const char *value) {
    if (name == nullptr || value == nullptr || !is_name(name)) {
        QEL_ERROR("bad argument\n");
        return OSA_EFAIL;
    }
    return set_parameter(name, value);
}

int getBootParameter(const char *name, char *value, int size) {
    if (name == nullptr || value == nullptr) {
        QEL_ERROR("bad argument\n");
        return OSA_EFAIL;
    }
    return read_parameter(name, value, size);
}

int get_armboot_para(const char *name, char *value, int size) { return getBootParameter(name, value, size); }

int setBootParameter(const char *name, const char *value) { return ENV_setVal(name, value); }
int set_armboot_para(const char *name, const char *value) { return ENV_setVal(name, value); }

int QEL_delBootParameter(const char *name) {
    if (name == nullptr || !is_name(name)) {
        QEL_ERROR("bad argument\n");
        return OSA_EFAIL;
    }
    return delete_parameter(name);
}

}  // extern "C"
