// added-memory LIBRARY - prints how many private bytes (in KiB) loading it adds to this process. A program of
// its own, so that it lives on a board that another process serves: the board's memory is no part of it.
#include <dlfcn.h>
#include <cstdio>
#include <fstream>
#include <string>

namespace {

// What was written to. Not what the kernel calls private and dirty: that has the pages of a file which was
// just built, until they are on the disk.
long private_kib() {
    std::ifstream rollup("/proc/self/smaps_rollup");
    long sum = 0;
    for (std::string line; std::getline(rollup, line);) {
        long kib = 0;
        if (sscanf(line.c_str(), "Anonymous: %ld kB", &kib) == 1) sum += kib;
    }
    return sum;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 2) return 2;
    private_kib();  // so that what the reading itself needs is there before
    const long before = private_kib();
    if (dlopen(argv[1], RTLD_NOW) == nullptr) {
        fprintf(stderr, "%s\n", dlerror());
        return 1;
    }
    printf("\nadded %ld\n", private_kib() - before);
    return 0;
}
