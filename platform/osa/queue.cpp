#include "platform/osa/queue.h"

#include <new>

using PointerQueue = qel::osa::Queue<void *>;

extern "C" {

int OSA_queCreate(OSA_QueHandle *handle, unsigned maxLen) {
    if (handle == nullptr || maxLen == 0) return OSA_EFAIL;
    *handle = nullptr;
    std::unique_ptr<void *[]> slots(new (std::nothrow) void *[maxLen]);
    if (slots != nullptr) *handle = new (std::nothrow) PointerQueue(std::move(slots), maxLen);
    return *handle != nullptr ? 0 : OSA_EFAIL;
}

int OSA_quePut(OSA_QueHandle handle, void *item, unsigned timeoutMs) {
    return handle != nullptr && static_cast<PointerQueue *>(handle)->put(item, timeoutMs) ? 0 : OSA_EFAIL;
}

int OSA_queGet(OSA_QueHandle handle, void **item, unsigned timeoutMs) {
    if (handle == nullptr || item == nullptr) return OSA_EFAIL;
    const auto outcome = static_cast<PointerQueue *>(handle)->get(item, timeoutMs);
    return outcome == qel::osa::Wait::kSignalled ? 0 : OSA_EFAIL;
}

int OSA_queDelete(OSA_QueHandle *handle) {
    if (handle == nullptr || *handle == nullptr) return OSA_EFAIL;
    delete static_cast<PointerQueue *>(*handle);
    *handle = nullptr;
    return 0;
}

}  // extern "C"
