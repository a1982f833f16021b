#include "bench/library/memory.h"

#include <dlfcn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cstdio>
#include <fstream>
#include <string>

namespace qel::bench {

namespace {

long private_kib() {
    std::ifstream rollup("/proc/self/smaps_rollup");
    long sum = 0;
    for (std::string line; std::getline(rollup, line);) {
        long kib = 0;
        if (sscanf(line.c_str(), "Private_Dirty: %ld kB", &kib) == 1) sum += kib;
    }
    return sum;
}

}  // namespace

long added_private_kib(const char *path) {
    int results[2];
    if (pipe(results) != 0) return -1;
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        private_kib();  // so that what the reading itself needs is there before
        const long before = private_kib();
        const bool loaded = dlopen(path, RTLD_NOW) != nullptr;
        const long added = loaded ? private_kib() - before : -1;
        _exit(write(results[1], &added, sizeof added) == sizeof added ? 0 : 1);
    }
    close(results[1]);
    long added = -1;
    if (child < 0 || read(results[0], &added, sizeof added) != sizeof added) added = -1;
    close(results[0]);
    if (child > 0) waitpid(child, nullptr, 0);
    return added;
}

}  // namespace qel::bench
