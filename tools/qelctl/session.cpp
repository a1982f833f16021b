#include "tools/qelctl/session.h"

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
        start_deadline(options.timeout_s);
        now_doing("loading the library", kLoadHint);
        library_.emplace(options.library);
        now_doing("asking the library", kAskHint);
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
