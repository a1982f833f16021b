#include "board/core/tree.h"

#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <filesystem>
#include <system_error>
#include <vector>

namespace qel::board {

namespace {

// As many as the kernel follows.
constexpr int kMostLinks = 40;

// The components of a path that are still to walk, the next one last.
void push_components(std::string_view path, std::vector<std::string> &pending) {
    size_t end = path.size();
    while (end > 0) {
        const size_t slash = path.rfind('/', end - 1);
        const size_t begin = slash == std::string_view::npos ? 0 : slash + 1;
        const std::string_view name = path.substr(begin, end - begin);
        if (!name.empty() && name != ".") pending.emplace_back(name);
        end = begin > 0 ? begin - 1 : 0;
    }
}

void go_up(std::string &host, size_t root_length) {
    if (host.size() > root_length) host.resize(host.rfind('/'));
}

// The target of a symbolic link; false when the path is none.
bool read_link(const std::string &host, std::string &target) {
    char buffer[PATH_MAX];
    const ssize_t length = ::readlink(host.c_str(), buffer, sizeof(buffer));
    if (length < 0) return false;
    target.assign(buffer, static_cast<size_t>(length));
    return true;
}

}  // namespace

int FileTree::resolve(std::string_view path, bool follow_last, std::string &host) const {
    if (path.empty() || path.front() != '/') return -ENOENT;
    if (path.size() >= PATH_MAX) return -ENAMETOOLONG;
    std::vector<std::string> pending;
    push_components(path, pending);
    host = root_;
    std::string target;
    for (int links = 0; !pending.empty();) {
        const std::string name = std::move(pending.back());
        pending.pop_back();
        if (name == "..") {
            go_up(host, root_.size());
            continue;
        }
        host += '/';
        host += name;
        if ((pending.empty() && !follow_last) || !read_link(host, target)) continue;
        if (++links > kMostLinks) return -ELOOP;
        if (!target.empty() && target.front() == '/') {
            host = root_;
        } else {
            go_up(host, root_.size());
        }
        push_components(target, pending);
    }
    return host.size() < PATH_MAX ? 0 : -ENAMETOOLONG;
}

void FileTree::make_dir(const std::string &path) const {
    std::string host;
    const int result = resolve(path, true, host);
    if (result != 0) throw std::system_error(-result, std::generic_category(), path);
    std::filesystem::create_directories(host);
}

void FileTree::make_file(const std::string &path, std::span<const uint8_t> content) const {
    const size_t slash = path.rfind('/');
    if (slash != std::string::npos) make_dir(path.substr(0, slash + 1));
    std::string host;
    const int result = resolve(path, true, host);
    if (result != 0) throw std::system_error(-result, std::generic_category(), path);
    if (std::filesystem::exists(host)) return;
    std::FILE *file = std::fopen(host.c_str(), "wbe");
    if (file == nullptr) throw std::system_error(errno, std::generic_category(), host);
    const bool written = std::fwrite(content.data(), 1, content.size(), file) == content.size();
    if (std::fclose(file) != 0 || !written) throw std::system_error(EIO, std::generic_category(), host);
}

std::string normal_path(std::string_view path) {
    std::vector<std::string> pending;
    push_components(path, pending);
    std::string normal;
    for (; !pending.empty(); pending.pop_back()) {
        if (pending.back() == "..") {
            go_up(normal, 0);
        } else {
            normal += '/';
            normal += pending.back();
        }
    }
    return normal.empty() ? "/" : normal;
}

}  // namespace qel::board
