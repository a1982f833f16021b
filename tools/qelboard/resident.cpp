#include <dlfcn.h>
#include <unistd.h>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <thread>

#include "tools/qelboard/run.h"

namespace qel::tool {

namespace {

// Beside libqelboard.so if it lies there, else where the loader finds it.
void *load(const char *name, int flags) {
    void *library = dlopen((library_dir() + "/" + name).c_str(), flags);
    return library != nullptr ? library : dlopen(name, flags);
}

void wait_for_end_of_input() {
    char unused = 0;
    ssize_t got = 1;
    while (got > 0 || (got < 0 && errno == EINTR)) got = read(STDIN_FILENO, &unused, 1);
}

}  // namespace

int be_resident() {
    // Loading waits for the other chips, for ever if they do not load the library: when the end comes
    // first, the process ends where it stands.
    static std::atomic<bool> loaded = false;
    std::thread([] {
        wait_for_end_of_input();
        if (!loaded) _exit(0);
    }).detach();
    load("libxcc.so.1", RTLD_NOW | RTLD_GLOBAL);  // single-chip systems have none
    void *library = load("libqel.so.1", RTLD_NOW);
    loaded = true;
    if (library == nullptr) {
        fprintf(stderr, "qelboard: cannot load libqel.so.1: %s\n", dlerror());
        return 1;
    }
    wait_for_end_of_input();
    dlclose(library);
    return 0;
}

}  // namespace qel::tool
