#include "tools/qelctl/session.h"

#include <cstdlib>
#include <fstream>

#include "tools/qelctl/deadline.h"
#include "tools/qelctl/exit_code.h"
#include "tools/qelctl/output.h"

namespace qelctl {

namespace {

constexpr const char *kNameFile = "/proc/self/comm";

// Not prctl: that names the calling thread, and the library reads the name of the process.
void take_name(const std::string &name) {
    std::ofstream file(kNameFile);
    file << name << std::flush;
    if (!file) throw Failure(ExitCode::kFailed, "cannot take the name " + name + " (" + kNameFile + ").");
}

// Whoever started us may have given us another name while the library was loading.
void check_name(const std::string &name) {
    const std::string actual = process_name();
    if (actual == name) return;
    throw Failure(ExitCode::kFailed, "asked to be " + name + ", but this process was made " + actual +
                                         ".\nOn a virtual board give the name to qelboard run --as.");
}

constexpr const char *kLoadHint =
    "Loading waits for the other chips of the unit and stops at a board that contradicts itself.\n"
    "OSA_LOG=info shows how far it came; --timeout SECONDS changes the limit.\n";
constexpr const char *kAskHint =
    "The library waits for another chip or stopped at a failed assertion; OSA_LOG=info shows which.\n"
    "--timeout SECONDS changes the limit.\n";

}  // namespace

const Library &Session::library() {
    if (!library_) {
        if (!options.as.empty()) take_name(options.as);
        keep_output_to_ourselves();
        setenv("OSA_LOG", "error", 0);  // what is no error is none of our reader's business
        start_deadline(options.timeout_s);
        now_doing("loading the library", kLoadHint);
        library_.emplace(options.library);
        now_doing("asking the library", kAskHint);
        if (!options.as.empty()) check_name(options.as);
    }
    return *library_;
}

std::string process_name() {
    std::ifstream file(kNameFile);
    std::string name;
    std::getline(file, name);
    return name;
}

}  // namespace qelctl
