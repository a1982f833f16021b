// scratch.h - a folder of a test's own.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace qel::test {

inline std::string read_all(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// Removed with everything in it at the end.
class Scratch {
public:
    Scratch() : path_(std::filesystem::temp_directory_path() / "qel-test-XXXXXX") {
        if (mkdtemp(path_.data()) == nullptr) abort();
    }
    ~Scratch() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    Scratch(const Scratch &) = delete;
    Scratch &operator=(const Scratch &) = delete;

    const std::string &path() const { return path_; }
    std::string path(const std::string &name) const { return path_ + "/" + name; }
    // Writes a file into it; its path.
    std::string file(const std::string &name, const std::string &content) const {
        std::ofstream(path(name), std::ios::binary) << content;
        return path(name);
    }

private:
    std::string path_;
};

}  // namespace qel::test
