// tree.h - the file tree of one chip: a folder of the host that stands for the chip's root.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace qel::board {

class FileTree {
public:
    explicit FileTree(std::string root_dir) : root_(std::move(root_dir)) {}
    const std::string &root_dir() const { return root_; }

    // The host's path of an absolute path of the chip, as if the folder were the root: ".." and
    // symbolic links stay inside. The last component is followed only if asked. The file itself need
    // not exist. 0, or -ENOENT (empty or relative path), -ENAMETOOLONG, -ELOOP.
    int resolve(std::string_view path, bool follow_last, std::string &host) const;

    // For setting the board up: with all folders above it, unless it is there. Throw
    // std::system_error.
    void make_dir(const std::string &path) const;
    void make_file(const std::string &path, std::span<const uint8_t> content) const;

private:
    std::string root_;
};

// Absolute path without "//", "." and ".." (which stops at the root), and without a trailing "/".
std::string normal_path(std::string_view path);

}  // namespace qel::board
