// xcc_default.cpp - the channel calls a process gets that brings no channel library: they fail.
//
// Which definition of a name wins in a process is decided by the order of its libraries. Where these
// stand in front of the real ones, they pass the call on.
#include <dlfcn.h>
#include <atomic>

#include "platform/include/xcc.h"
#include "qel/types.h"

#define QEL_XCC_DEFAULT QEL_API __attribute__((weak))

namespace {

bool is_of_this_library(void *address) {
    static const char anchor = 0;
    Dl_info candidate{};
    Dl_info own{};
    return dladdr(address, &candidate) != 0 && dladdr(&anchor, &own) != 0 &&
           candidate.dli_fbase == own.dli_fbase;
}

// Behind this library first, then anywhere. Not remembered while there is none: the channel library
// may still be loaded.
void *find_real(const char *name, std::atomic<void *> &found) {
    void *real = found.load(std::memory_order_acquire);
    if (real != nullptr) return real;
    for (void *where : {RTLD_NEXT, RTLD_DEFAULT}) {
        real = dlsym(where, name);
        if (real == nullptr || is_of_this_library(real)) continue;
        found.store(real, std::memory_order_release);
        return real;
    }
    return nullptr;
}

template <typename... Arguments>
int pass_on(std::atomic<void *> &found, const char *name, Arguments... arguments) {
    void *real = find_real(name, found);
    if (real == nullptr) return OSA_EFAIL;
    return reinterpret_cast<int (*)(Arguments...)>(real)(arguments...);
}

}  // namespace

// name, parameters, arguments
#define XCC_CALLS(CALL)                                                                                    \
    CALL(XCC_init, (const XCC_InitParams *params), params)                                                 \
    CALL(XCC_create, (const XCC_CreateParams *params, uintptr_t *handle), params, handle)                  \
    CALL(XCC_bind, (uintptr_t handle, const XCC_BindParams *peer, int timeoutMs), handle, peer, timeoutMs) \
    CALL(XCC_put, (uintptr_t handle, XCC_BufInfo * buffer, int timeoutMs), handle, buffer, timeoutMs)      \
    CALL(XCC_get, (uintptr_t handle, XCC_BufInfo * buffer, int timeoutMs), handle, buffer, timeoutMs)      \
    CALL(XCC_release, (uintptr_t handle, XCC_BufInfo * buffer), handle, buffer)                            \
    CALL(XCC_unBind, (uintptr_t handle), handle)                                                           \
    CALL(XCC_delete, (uintptr_t handle), handle)

#define DEFINE_XCC_DEFAULT(name, parameters, ...)  \
    QEL_XCC_DEFAULT int name parameters {          \
        static std::atomic<void *> found{nullptr}; \
        return pass_on(found, #name, __VA_ARGS__); \
    }

extern "C" {

XCC_CALLS(DEFINE_XCC_DEFAULT)

QEL_XCC_DEFAULT int XCC_deInit(void) {
    static std::atomic<void *> found{nullptr};
    return pass_on(found, "XCC_deInit");
}

}  // extern "C"
