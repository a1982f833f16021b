// Preloaded: the parent comes out of fork() only when a child that is quick has ended.
#include <dlfcn.h>
#include <unistd.h>

extern "C" __attribute__((visibility("default"))) pid_t fork() noexcept {
    using Fork = pid_t();
    static auto *const real = reinterpret_cast<Fork *>(dlsym(RTLD_NEXT, "fork"));
    const pid_t pid = real();
    if (pid > 0) usleep(300'000);
    return pid;
}
