// libqelsteps.so - makes steps of libqel's chains fail. Preloaded, it stands before the library's own
// functions, since the loader asks preloaded libraries first. QELBOARD_FAIL_STEPS lists the steps to
// fail, with commas between them; all others go through to the library.
//
// A failing step up is not taken at all, a failing step down is taken first: what the process holds is
// given back either way.
#include <dlfcn.h>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "board/steps/step_names.h"

namespace {

struct Step {
    const char *name;
    bool down;
    int (*own)();
};

#define QEL_STEP_UP(name) {#name, false, nullptr},
#define QEL_STEP_DOWN(name) {#name, true, nullptr},
Step g_steps[] = {QEL_EACH_START_UP_STEP(QEL_STEP_UP) QEL_EACH_SHUT_DOWN_STEP(QEL_STEP_DOWN)};
const Step &kFirst = g_steps[0];

// Once a load, with its first step: the library may come back elsewhere, and while it goes nothing can
// be looked up in it any more.
void find_own() {
    void *library = dlopen("libqel.so.1", RTLD_NOW | RTLD_NOLOAD);
    for (Step &step : g_steps)
        step.own = library != nullptr ? reinterpret_cast<int (*)()>(dlsym(library, step.name)) : nullptr;
    if (library != nullptr) dlclose(library);
}

bool is_to_fail(std::string_view name) {
    const char *value = getenv("QELBOARD_FAIL_STEPS");
    std::string_view list = value != nullptr ? value : "";
    while (!list.empty()) {
        const size_t end = list.find(',');
        if (list.substr(0, end) == name) return true;
        list.remove_prefix(end == std::string_view::npos ? list.size() : end + 1);
    }
    return false;
}

int take(const char *name) {
    for (Step &step : g_steps) {
        if (std::string_view(name) != step.name) continue;
        if (step.own == nullptr || &step == &kFirst) find_own();
        const bool fails = is_to_fail(name);
        if (fails && !step.down) return -1;
        if (step.own == nullptr) {
            fprintf(stderr, "libqelsteps: there is no libqel.so.1 with a step %s here\n", name);
            return -1;
        }
        const int status = step.own();
        return fails ? -1 : status;
    }
    return -1;
}

}  // namespace

#define QEL_TAKE(name) \
    extern "C" __attribute__((visibility("default"))) int name() { return take(#name); }
QEL_EACH_START_UP_STEP(QEL_TAKE)
QEL_EACH_SHUT_DOWN_STEP(QEL_TAKE)
