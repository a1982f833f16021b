#include "tools/qelctl/library.h"

#include <dlfcn.h>
#include <link.h>
#include <climits>
#include <cstdlib>

#include "tools/qelctl/exit_code.h"

namespace qelctl {

namespace {

constexpr const char *kInstalledLibrary = "libqel.so.1";
// What joins the chips of a unit. A board with one chip does not need it, so it may be missing.
constexpr const char *kChannelLibrary = "libxcc.so.1";

}  // namespace

Library::Library(const std::string &path) {
    dlopen(kChannelLibrary, RTLD_NOW | RTLD_GLOBAL);
    handle_ = dlopen(path.empty() ? kInstalledLibrary : path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle_ != nullptr) return;
    throw Failure(ExitCode::kNoLibrary,
                  std::string("the library does not load: ") + dlerror() +
                      "\nInstall libqel, name the file with --library FILE, or set LD_LIBRARY_PATH.");
}

void *Library::symbol(const char *name) const {
    void *address = dlsym(handle_, name);
    if (address != nullptr) return address;
    throw Failure(ExitCode::kNoLibrary, file() + " has no " + name + ": it is older than this qelctl.");
}

std::string Library::file() const {
    link_map *map = nullptr;
    if (dlinfo(handle_, RTLD_DI_LINKMAP, &map) != 0 || map == nullptr) return "libqel.so";
    char resolved[PATH_MAX];
    return realpath(map->l_name, resolved) != nullptr ? resolved : map->l_name;
}

}  // namespace qelctl
