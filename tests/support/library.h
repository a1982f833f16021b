// library.h - loads libqel.so for one test and unloads it again, and keeps what it logged.
//
// Tests do not link libqel: they enter a board first and load the library on it, as the camera's
// processes do. Exported functions are called by name with the types of the public headers:
//
//     Library library;
//     EXPECT_EQ(CALL(library, QEL_productGetCfgNum)(), 1);
#pragma once

#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

namespace qel::test {

struct LogLine {
    int level;
    int attribute;
    std::string text;
};

// Collects every line of the log, of all threads, from construction to destruction.
class Log {
public:
    Log();
    ~Log();
    Log(const Log &) = delete;
    Log &operator=(const Log &) = delete;

    std::vector<LogLine> lines() const;
    // How many lines contain `part`.
    int count(std::string_view part) const;
    bool contains(std::string_view part) const { return count(part) > 0; }
    // The first line that contains `part`; fails the test and answers an empty line if none does.
    LogLine find(std::string_view part) const;
    // Fails the test for each part that no line contains.
    void expect(std::initializer_list<std::string_view> parts) const;
    // Waits (real time) until a line contains `part`; false after `timeout_ms`.
    bool wait_for(std::string_view part, int timeout_ms = 5000) const;
    void clear();
    std::string all() const;
};

class Library {
public:
    // Loads build/lib/libqel.so.1 now; the test fails and the process ends if it cannot.
    Library();
    ~Library();
    Library(const Library &) = delete;
    Library &operator=(const Library &) = delete;

    void unload();
    // The address of an exported function or variable; ends the process if there is none.
    void *symbol(const char *name) const;
    bool has(const char *name) const;

    template <typename Function>
    Function *function(const char *name) const {
        return reinterpret_cast<Function *>(symbol(name));
    }

private:
    void *handle_ = nullptr;
};

// Runs `body` in a forked child; its exit code, or -1 when it was still running at the deadline and
// was killed. Call it before this process has loaded the library or started threads.
template <typename Body>
int run_in_child(Body body, int deadline_ms = 30000);

int wait_for_child(int pid, int deadline_ms);
int fork_child();
[[noreturn]] void end_child(int code);

template <typename Body>
int run_in_child(Body body, int deadline_ms) {
    const int pid = fork_child();
    if (pid == 0) end_child(body());
    return wait_for_child(pid, deadline_ms);
}

}  // namespace qel::test

#define CALL(library, name) ((library).function<decltype(name)>(#name))
