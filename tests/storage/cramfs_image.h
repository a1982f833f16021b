// cramfs_image.h - upgrade images as mkfs.cramfs makes them.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace qel::test {

// A folder for the files of an image.
class ImageFolder {
public:
    ImageFolder() {
        std::string pattern = std::filesystem::temp_directory_path() / "qel-cramfs-XXXXXX";
        if (mkdtemp(pattern.data()) == nullptr) abort();
        folder_ = pattern;
        std::filesystem::create_directory(root());
    }
    ~ImageFolder() { std::filesystem::remove_all(folder_); }
    ImageFolder(const ImageFolder &) = delete;
    ImageFolder &operator=(const ImageFolder &) = delete;

    std::filesystem::path root() const { return folder_ / "root"; }
    void put(const std::string &name, const std::string &text) const {
        std::ofstream(root() / name, std::ios::binary) << text;
    }
    std::vector<uint8_t> make(const std::string &options = "") const {
        const std::string image = folder_ / "image";
        const std::string command =
            "PATH=$PATH:/usr/sbin:/sbin mkfs.cramfs " + options + " " + root().string() + " " + image;
        EXPECT_EQ(std::system(command.c_str()), 0) << command;
        std::ifstream file(image, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

private:
    std::filesystem::path folder_;
};

}  // namespace qel::test
