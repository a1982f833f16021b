// loaded_library.h - the library as a measuring program has it: loaded while this process is on a board.
#pragma once

#include <dlfcn.h>

#include "bench/measure.h"

namespace qel::bench {

class LoadedLibrary {
public:
    LoadedLibrary() : handle_(dlopen(QEL_LIB_DIR "/libqel.so.1", RTLD_NOW)) {
        expect(handle_ != nullptr, "loading the library");
    }
    ~LoadedLibrary() { dlclose(handle_); }
    LoadedLibrary(const LoadedLibrary &) = delete;
    LoadedLibrary &operator=(const LoadedLibrary &) = delete;

    template <typename Function>
    Function *function(const char *name) const {
        void *const symbol = dlsym(handle_, name);
        expect(symbol != nullptr, name);
        return reinterpret_cast<Function *>(symbol);
    }

private:
    void *handle_;
};

// An exported function by its name, with the type of the public headers.
#define CALL(library, name) ((library).function<decltype(name)>(#name))

}  // namespace qel::bench
