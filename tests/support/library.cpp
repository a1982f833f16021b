#include "tests/support/library.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>

#include "platform/include/osa.h"

namespace qel::test {

namespace {

struct Collected {
    std::mutex mutex;
    std::condition_variable added;
    std::vector<LogLine> lines;
};

// Never destroyed: a thread of the library may log while the process ends.
Collected &collected() {
    static auto *instance = new Collected;
    return *instance;
}

void collect(void *, int level, int attribute, const char *line) {
    Collected &all = collected();
    const std::lock_guard lock(all.mutex);
    all.lines.push_back({level, attribute, line});
    all.added.notify_all();
}

bool holds(const LogLine &line, std::string_view part) { return line.text.find(part) != std::string::npos; }

bool forked = false;

bool other_threads_sleep() {
    for (const auto &task : std::filesystem::directory_iterator("/proc/self/task")) {
        if (task.path().filename() == std::to_string(gettid())) continue;
        std::ifstream file(task.path() / "stat");
        std::string stat;
        std::getline(file, stat);
        const size_t name_end = stat.rfind(") ");  // the state's letter is behind it
        if (name_end != std::string::npos && stat.compare(name_end + 2, 1, "R") == 0) return false;
    }
    return true;
}

[[noreturn]] void give_up(const char *what) {
    fprintf(stderr, "%s: %s\n", what, dlerror());
    abort();
}

}  // namespace

// The leak sanitizer asks at the end of a process. In a forked child it would wait for locks of its allocator
// that a thread of the parent had.
extern "C" __attribute__((visibility("default"))) int __lsan_is_turned_off() { return forked ? 1 : 0; }

Log::Log() {
    clear();
    OSA_logSetSink(collect, nullptr);
}

Log::~Log() { OSA_logSetSink(nullptr, nullptr); }

std::vector<LogLine> Log::lines() const {
    const std::lock_guard lock(collected().mutex);
    return collected().lines;
}

int Log::count(std::string_view part) const {
    int found = 0;
    for (const LogLine &line : lines()) found += holds(line, part) ? 1 : 0;
    return found;
}

LogLine Log::find(std::string_view part) const {
    for (const LogLine &line : lines()) {
        if (holds(line, part)) return line;
    }
    ADD_FAILURE() << "nothing logged contains \"" << part << "\":\n" << all();
    return {};
}

void Log::expect(std::initializer_list<std::string_view> parts) const {
    for (const std::string_view part : parts) find(part);
}

bool Log::wait_for(std::string_view part, int timeout_ms) const {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    Collected &all = collected();
    std::unique_lock lock(all.mutex);
    return all.added.wait_until(lock, deadline, [&] {
        for (const LogLine &line : all.lines) {
            if (holds(line, part)) return true;
        }
        return false;
    });
}

void Log::clear() {
    const std::lock_guard lock(collected().mutex);
    collected().lines.clear();
}

std::string Log::all() const {
    std::string text;
    for (const LogLine &line : lines()) text += line.text;
    return text;
}

Library::Library() {
    handle_ = dlopen(QEL_LIB_DIR "/libqel.so.1", RTLD_NOW | RTLD_LOCAL);
    if (handle_ == nullptr) give_up("libqel.so does not load");
}

Library::~Library() { unload(); }

void Library::unload() {
    if (handle_ != nullptr) dlclose(handle_);
    handle_ = nullptr;
}

void *Library::symbol(const char *name) const {
    void *address = dlsym(handle_, name);
    if (address == nullptr) give_up(name);
    return address;
}

bool Library::has(const char *name) const { return dlsym(handle_, name) != nullptr; }

int fork_child() {
    fflush(nullptr);
    // The sanitizers' allocator knows nothing of fork(): what a thread has locked in it then stays locked in
    // the child. A thread that goes on and on is not waited for.
    for (int tries = 0; tries < 500 && !other_threads_sleep(); ++tries) usleep(1000);
    const int pid = fork();
    forked = forked || pid == 0;
    return pid;
}

void end_child(int code) {
    fflush(nullptr);
    _exit(testing::Test::HasFailure() ? 99 : code);
}

int wait_for_child(int pid, int deadline_ms) {
    using namespace std::chrono;
    const auto deadline = steady_clock::now() + milliseconds(deadline_ms);
    int status = 0;
    while (waitpid(pid, &status, WNOHANG) == 0) {
        if (steady_clock::now() > deadline) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            return -1;
        }
        std::this_thread::sleep_for(milliseconds(2));
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace qel::test
