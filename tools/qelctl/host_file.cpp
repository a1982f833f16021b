#include "tools/qelctl/host_file.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "tools/qelctl/exit_code.h"
#include "tools/qelctl/output.h"

namespace qelctl {

namespace {

constexpr const char *kStandardStream = "-";
constexpr size_t kPieceBytes = 1 << 16;

using File = std::unique_ptr<FILE, int (*)(FILE *)>;

[[noreturn]] void no_file(ExitCode code, const char *what, const std::string &path) {
    throw Failure(code, std::string(what) + " " + path + ": " + strerror(errno) + ".");
}

}  // namespace

std::vector<uint8_t> read_host_file(const std::string &path, uint64_t most_bytes) {
    const bool standard = path == kStandardStream;
    const File file(standard ? stdin : fopen(path.c_str(), "rbe"),
                    standard ? [](FILE *) { return 0; } : fclose);
    if (file == nullptr) no_file(ExitCode::kFailed, "cannot open", path);
    std::vector<uint8_t> bytes;
    size_t got = 0;
    do {
        const size_t before = bytes.size();
        bytes.resize(before + kPieceBytes);
        got = fread(bytes.data() + before, 1, kPieceBytes, file.get());
        bytes.resize(before + got);
        if (bytes.size() > most_bytes)
            throw Failure(ExitCode::kFailed,
                          path + " is larger than " + std::to_string(most_bytes) + " bytes.");
    } while (got > 0);
    if (ferror(file.get()) != 0) no_file(ExitCode::kFailed, "cannot read", path);
    return bytes;
}

void write_host_file(const std::string &path, const std::vector<uint8_t> &bytes) {
    HostFileWriter file(path);
    file.append(bytes);
    file.finish();
}

HostFileWriter::HostFileWriter(const std::string &path) : path_(path) {
    if (path_ == kStandardStream) return;
    file_ = fopen(path.c_str(), "wbe");
    if (file_ == nullptr) no_file(ExitCode::kNoOutput, "cannot open", path_);
}

HostFileWriter::~HostFileWriter() {
    if (file_ == nullptr) return;
    fclose(file_);
    std::remove(path_.c_str());
}

void HostFileWriter::append(const std::vector<uint8_t> &bytes) {
    if (path_ == kStandardStream) {
        print({bytes.begin(), bytes.end()});
    } else if (fwrite(bytes.data(), 1, bytes.size(), file_) != bytes.size()) {
        no_file(ExitCode::kNoOutput, "cannot write", path_);
    }
}

void HostFileWriter::finish() {
    if (file_ == nullptr) return;
    FILE *file = file_;
    file_ = nullptr;
    if (fclose(file) != 0) no_file(ExitCode::kNoOutput, "cannot write", path_);
}

std::string last_part(const std::string &path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace qelctl
