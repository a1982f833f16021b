#include "tools/qelboard/launch.h"

#include <dlfcn.h>
#include <link.h>
#include <unistd.h>
#include <array>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <string_view>

#include "os/hook.h"
#include "tools/qelboard/home.h"

namespace qel::tool {

namespace {

namespace fs = std::filesystem;

// Where the loader looks anyway.
constexpr std::array kSystemDirs = {"/lib", "/usr/lib", "/usr/local/lib", "/lib64", "/usr/lib64"};

std::string board_library() {
    Dl_info found{};
    void *const symbol = dlsym(RTLD_DEFAULT, "qel_world_hook");
    if (symbol == nullptr || dladdr(symbol, &found) == 0) throw Failure("libqelboard.so is not loaded");
    return fs::canonical(found.dli_fname).string();
}

// The sanitizer's own library, if this build has one: it must be loaded before anything else.
std::string sanitizer_library() {
    std::string path;
    const auto look = [](dl_phdr_info *info, size_t, void *out) {
        const std::string_view name = info->dlpi_name;
        if (name.find("/libasan.so") == std::string_view::npos) return 0;
        *static_cast<std::string *>(out) = name;
        return 1;
    };
    dl_iterate_phdr(look, &path);
    return path;
}

std::string variable(const char *name) {
    const char *value = getenv(name);
    return value != nullptr ? value : "";
}

std::string joined(const std::string &first, const std::string &second) {
    return first.empty() || second.empty() ? first + second : first + ":" + second;
}

bool lists(const std::string &paths, const std::string &dir) {
    return (":" + paths + ":").find(":" + dir + ":") != std::string::npos;
}

bool is_system_dir(const fs::path &dir) {
    for (const char *known : kSystemDirs) {
        // /usr/lib/x86_64-linux-gnu is one as well.
        if (dir == known || (dir.parent_path() == known && dir.filename().string().ends_with("-linux-gnu")))
            return true;
    }
    return false;
}

class Environment {
public:
    Environment() {
        for (char **entry = environ; *entry != nullptr; ++entry) entries_.emplace_back(*entry);
    }
    void set(const std::string &name, const std::string &value) {
        remove(name);
        entries_.push_back(name + "=" + value);
    }
    void remove(const std::string &name) {
        std::erase_if(entries_, [&](const std::string &entry) { return entry.starts_with(name + "="); });
    }
    std::vector<std::string> take() { return std::move(entries_); }

private:
    std::vector<std::string> entries_;
};

// LD_PRELOAD takes both blanks and colons for separators, and knows no way to quote them.
const std::string &preloadable(const std::string &path) {
    if (path.find_first_of(" :") != std::string::npos)
        throw Failure("cannot preload " + path + ": its path holds a blank or a colon");
    return path;
}

// Beside the libqelboard.so of the same build.
std::string steps_library(const std::string &board_library) {
    const std::string path = (fs::path(board_library).parent_path() / "libqelsteps.so").string();
    if (access(path.c_str(), R_OK) != 0)
        throw Failure("a step can fail only with " + path + ", which is not there");
    return preloadable(path);
}

void add_native_libraries(Environment &environment, bool with_steps) {
    const std::string library = preloadable(board_library());
    const std::string dir = fs::path(library).parent_path().string();
    const std::string sanitizer = sanitizer_library();
    std::string preload = variable("LD_PRELOAD");
    if (!lists(preload, library))  // a run within a run
        preload = joined(sanitizer, joined(library, preload));
    if (with_steps && !lists(preload, steps_library(library)))
        preload = joined(preload, steps_library(library));
    environment.set("LD_PRELOAD", preload);
    const std::string search = variable("LD_LIBRARY_PATH");
    if (!is_system_dir(dir) && !lists(search, dir)) environment.set("LD_LIBRARY_PATH", joined(search, dir));
    // A program built with the address sanitizer refuses to start behind a preloaded library otherwise;
    // in a program without it that got it preloaded, the leaks of a shell are not our concern.
    std::string options = variable("ASAN_OPTIONS");
    if (options.find("verify_asan_link_order") == std::string::npos)
        options = joined(options, "verify_asan_link_order=0");
    if (!sanitizer.empty() && options.find("detect_leaks") == std::string::npos)
        options = joined(options, "detect_leaks=0");
    environment.set("ASAN_OPTIONS", options);
}

std::vector<std::string> emulated(const Place &place, const std::vector<std::string> &command) {
    if (place.preload.empty())
        throw Failure("--emulator needs --preload with the libqelboard.so built for that processor");
    if (access(place.preload.c_str(), R_OK) != 0) throw Failure("--preload: no file " + place.preload);
    std::vector<std::string> arguments;
    std::istringstream words(place.emulator);
    for (std::string word; words >> word;) arguments.push_back(word);
    if (arguments.empty()) throw Failure("--emulator: no program given");
    // An environment variable would reach the emulator's own loader too: the program's goes through it.
    std::string preload = preloadable(place.preload);
    if (!place.failing_steps.empty()) preload = joined(preload, steps_library(place.preload));
    arguments.insert(arguments.end(), {"-E", "LD_PRELOAD=" + preload});
    arguments.insert(arguments.end(), command.begin(), command.end());
    return arguments;
}

}  // namespace

std::string library_dir() { return fs::path(board_library()).parent_path().string(); }

Launch launch_on(const Place &place, const std::vector<std::string> &command) {
    Environment environment;
    environment.set("QELBOARD_SOCKET", place.socket);
    environment.set("QELBOARD_CHIP", std::to_string(place.chip));
    if (place.as.empty())
        environment.remove("QELBOARD_AS");
    else
        environment.set("QELBOARD_AS", place.as);
    environment.set("QELBOARD_FAIL_STEPS", place.failing_steps);
    if (place.emulator.empty()) {
        add_native_libraries(environment, !place.failing_steps.empty());
        return {command, environment.take()};
    }
    environment.remove("LD_PRELOAD");
    return {emulated(place, command), environment.take()};
}

std::vector<std::string> resident_command(const Place &place) {
    if (place.emulator.empty()) return {fs::read_symlink("/proc/self/exe").string(), "resident"};
    const fs::path program = fs::path(place.preload).parent_path().parent_path() / "bin" / "qelboard";
    if (!fs::exists(program))
        throw Failure("the other chips need " + program.string() +
                      " built for the emulated processor; "
                      "--no-residents runs without them");
    return {program.string(), "resident"};
}

}  // namespace qel::tool
