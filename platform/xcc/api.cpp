// api.cpp - the exported calls: check what comes in, find the channel, call it.
#include <cstring>

#include "platform/common/handles.h"
#include "platform/common/mutex.h"
#include "platform/xcc/channel.h"
#include "platform/xcc/layout.h"

namespace qel::xcc {

namespace {

using platform::Lock;
using platform::Mutex;

struct Entry {
    std::shared_ptr<Channel> channel;
    Mutex mutex;
    bool deleted QEL_GUARDED_BY(mutex) = false;
};
using Channels = platform::HandleTable<Entry>;

struct Process {
    Mutex mutex;
    unsigned users QEL_GUARDED_BY(mutex) = 0;
    XCC_InitParams params QEL_GUARDED_BY(mutex) = {};
};

Process &process() {
    alignas(Process) static unsigned char storage[sizeof(Process)];
    static auto *const instance = new (storage) Process;
    return *instance;
}

// Copies a name with its tail cleared; it becomes part of a file's name.
bool copy_name(const char (&from)[XCC_NAME_BYTES], char (&out)[XCC_NAME_BYTES]) {
    const size_t length = strnlen(from, sizeof from);
    if (length == 0 || length == sizeof from || memchr(from, '/', length) != nullptr) return false;
    memset(out, 0, sizeof out);
    memcpy(out, from, length);
    return true;
}

// nullptr for a handle that was deleted, even while its messages are still held.
std::shared_ptr<Entry> find(uintptr_t handle) {
    auto entry = Channels::instance().find(handle);
    if (entry == nullptr) return nullptr;
    const Lock lock(entry->mutex);
    return entry->deleted ? nullptr : entry;
}

// A deleted channel goes when its last message is given back: until then the memory stays.
void forget_when_empty(uintptr_t handle, Entry &entry) {
    {
        const Lock lock(entry.mutex);
        if (!entry.deleted) return;
    }
    if (entry.channel->held() == 0) Channels::instance().remove(handle);
}

int give_back(uintptr_t handle, const XCC_BufInfo &message) {
    const auto entry = Channels::instance().find(handle);
    if (entry == nullptr) return XCC_EFAIL;
    const int status = entry->channel->release(message);
    forget_when_empty(handle, *entry);
    return status;
}

}  // namespace
}  // namespace qel::xcc

using qel::platform::Deadline;
using qel::platform::Lock;
using namespace qel::xcc;

extern "C" {

int XCC_init(const XCC_InitParams *params) {
    if (params == nullptr || params->count < 2 || params->chip >= params->count) return XCC_EFAIL;
    Process &own = process();
    const Lock lock(own.mutex);
    const bool same = own.params.chip == params->chip && own.params.processId == params->processId &&
                      own.params.count == params->count;
    if (own.users != 0 && !same) return XCC_EFAIL;
    own.params = *params;
    ++own.users;
    return 0;
}

int XCC_create(const XCC_CreateParams *params, uintptr_t *handle) {
    if (handle == nullptr) return XCC_EFAIL;
    *handle = 0;
    Identity own{};
    if (params == nullptr || params->size == 0 || params->size > kMaxRegionBytes) return XCC_EFAIL;
    if (!copy_name(params->name, own.name)) return XCC_EFAIL;
    {
        Process &us = process();
        const Lock lock(us.mutex);
        if (us.users == 0) return XCC_EFAIL;
        own.chip = us.params.chip;
        own.process_id = us.params.processId;
    }
    own.region_bytes = params->size;
    auto entry = std::make_shared<Entry>();
    entry->channel = own.chip == 0 ? make_master_channel(own) : make_slave_channel(own);
    *handle = Channels::instance().add(std::move(entry));
    return *handle != 0 ? 0 : XCC_EFAIL;
}

int XCC_bind(uintptr_t handle, const XCC_BindParams *peer, int timeoutMs) {
    const auto entry = find(handle);
    XCC_BindParams checked{};
    if (entry == nullptr || peer == nullptr || !copy_name(peer->peerName, checked.peerName)) return XCC_EFAIL;
    checked.peerChip = peer->peerChip;
    checked.processId = peer->processId;
    return entry->channel->bind(checked, Deadline::from_timeout(timeoutMs));
}

int XCC_put(uintptr_t handle, XCC_BufInfo *buffer, int timeoutMs) {
    const auto entry = Channels::instance().find(handle);
    if (entry == nullptr || buffer == nullptr) return XCC_EFAIL;
    const int status = entry->channel->put(buffer, Deadline::from_timeout(timeoutMs));
    forget_when_empty(handle, *entry);
    return status;
}

int XCC_get(uintptr_t handle, XCC_BufInfo *buffer, int timeoutMs) {
    const auto entry = find(handle);
    if (entry == nullptr || buffer == nullptr) return XCC_EFAIL;
    return entry->channel->get(buffer, Deadline::from_timeout(timeoutMs));
}

int XCC_release(uintptr_t handle, XCC_BufInfo *buffer) {
    return buffer != nullptr ? give_back(handle, *buffer) : XCC_EFAIL;
}

int XCC_unBind(uintptr_t handle) {
    const auto entry = find(handle);
    return entry != nullptr ? entry->channel->unbind() : XCC_EFAIL;
}

int XCC_delete(uintptr_t handle) {
    const auto entry = find(handle);
    if (entry == nullptr) return XCC_EFAIL;
    {
        const Lock lock(entry->mutex);
        entry->deleted = true;
    }
    entry->channel->unbind();
    forget_when_empty(handle, *entry);
    return 0;
}

int XCC_deInit(void) {
    Process &own = process();
    const Lock lock(own.mutex);
    if (own.users == 0) return XCC_EFAIL;
    --own.users;
    return 0;
}

}  // extern "C"
