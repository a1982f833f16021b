#include "board/core/state_file.h"

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>

namespace qel::board {

namespace {

// "qelboard state KIND BYTES\n", then the bytes.
std::string head(const std::string &kind, size_t bytes) {
    return "qelboard state " + kind + " " + std::to_string(bytes) + "\n";
}

}  // namespace

void write_state(const std::string &path, const std::string &kind, const Buffer &content) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    const std::string next = path + ".new";
    std::ofstream file(next, std::ios::binary | std::ios::trunc);
    const std::string start = head(kind, content.size());
    file.write(start.data(), static_cast<std::streamsize>(start.size()));
    file.write(reinterpret_cast<const char *>(content.data()), static_cast<std::streamsize>(content.size()));
    file.close();
    if (!file) throw std::system_error(errno != 0 ? errno : EIO, std::generic_category(), next);
    std::filesystem::rename(next, path);
}

bool read_state(const std::string &path, const std::string &kind, Buffer &content) {
    std::ifstream file(path, std::ios::binary);
    if (!file) return false;
    std::string start;
    std::getline(file, start);
    content.assign(std::istreambuf_iterator<char>(file), {});
    if (start + "\n" != head(kind, content.size()))
        throw std::runtime_error(path + ": is damaged or not the state of a device of kind \"" + kind + "\"");
    return true;
}

}  // namespace qel::board
