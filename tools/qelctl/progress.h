// progress.h - how far long work has come: a bar on a terminal, lines of JSON where they are asked
// for, nothing on a pipe. On standard error, so that the result stays alone on standard output.
#pragma once

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdint>
#include <string>

namespace qelctl {

struct ProgressChoice {
    std::string form = "auto";
    void add_to(CLI::App &verb);
};

// Every step also starts the time of --timeout anew: it limits the time without progress.
class Progress {
public:
    Progress(const ProgressChoice &choice, std::string what, uint64_t total_bytes);
    ~Progress();
    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;

    void at(uint64_t done_bytes);

private:
    enum class Form { kNone, kBar, kJson };
    void show(uint64_t done_bytes);

    Form form_ = Form::kNone;
    std::string what_;
    uint64_t total_bytes_;
    bool shown_ = false;
    std::chrono::steady_clock::time_point last_;
};

}  // namespace qelctl
