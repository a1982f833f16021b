// host_file.h - files of the one who runs qelctl, as opposed to those the library opens on the device.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace qelctl {

// The whole file, standard input for "-". Throws Failure(kFailed), also beyond `most_bytes`.
std::vector<uint8_t> read_host_file(const std::string &path, uint64_t most_bytes);
// To the file, or to standard output for "-". Throws Failure(kNoOutput).
void write_host_file(const std::string &path, const std::vector<uint8_t> &bytes);

// The same piece by piece. A file that was not finished goes away again.
class HostFileWriter {
public:
    explicit HostFileWriter(const std::string &path);
    ~HostFileWriter();
    HostFileWriter(const HostFileWriter &) = delete;
    HostFileWriter &operator=(const HostFileWriter &) = delete;
    void append(const std::vector<uint8_t> &bytes);
    void finish();

private:
    std::string path_;
    FILE *file_ = nullptr;  // none for standard output
};

std::string last_part(const std::string &path);

}  // namespace qelctl
