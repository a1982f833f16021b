#include "tools/qelctl/progress.h"

#include <unistd.h>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string_view>

#include "tools/qelctl/deadline.h"

namespace qelctl {

namespace {

constexpr unsigned kBarWidth = 40;
constexpr std::chrono::milliseconds kBetweenTwo{100};

bool terminal_for_bars() {
    const char *terminal = getenv("TERM");
    return isatty(STDERR_FILENO) == 1 && terminal != nullptr && std::string_view(terminal) != "dumb";
}

}  // namespace

void ProgressChoice::add_to(CLI::App &verb) {
    verb.add_option("--progress", form,
                    "How to show progress on standard error: a bar on a terminal, nothing, or lines of\n"
                    "JSON; auto unless given")
        ->check(CLI::IsMember({"auto", "none", "json"}));
}

Progress::Progress(const ProgressChoice &choice, std::string what, uint64_t total_bytes)
    : what_(std::move(what)), total_bytes_(std::max<uint64_t>(total_bytes, 1)) {
    if (choice.form == "json") form_ = Form::kJson;
    if (choice.form == "auto" && terminal_for_bars()) form_ = Form::kBar;
}

Progress::~Progress() {
    if (form_ == Form::kBar && shown_) fputc('\n', stderr);
}

void Progress::at(uint64_t done_bytes) {
    restart_deadline();
    const auto now = std::chrono::steady_clock::now();
    const bool first_or_last = !shown_ || done_bytes >= total_bytes_;
    if (form_ == Form::kNone || (!first_or_last && now - last_ < kBetweenTwo)) return;
    last_ = now;
    shown_ = true;
    show(std::min(done_bytes, total_bytes_));
}

void Progress::show(uint64_t done_bytes) {
    if (form_ == Form::kJson) {
        nlohmann::ordered_json line;
        line["what"] = what_;
        line["done_bytes"] = done_bytes;
        line["total_bytes"] = total_bytes_;
        fprintf(stderr, "%s\n", line.dump().c_str());
        return;
    }
    const auto filled = static_cast<unsigned>(done_bytes * kBarWidth / total_bytes_);
    const std::string bar = std::string(filled, '#') + std::string(kBarWidth - filled, '.');
    fprintf(stderr, "\r%s [%s] %3u %%", what_.c_str(), bar.c_str(),
            static_cast<unsigned>(done_bytes * 100 / total_bytes_));
    fflush(stderr);
}

}  // namespace qelctl
