// cramfs_image.h - upgrade images as mkfs.cramfs makes them.
#pragma once

#include <gtest/gtest.h>

#include <vector>

#include "tests/support/scratch.h"

namespace qel::test {

// A folder for the files of an image.
class ImageFolder {
public:
    ImageFolder() { std::filesystem::create_directory(root()); }

    std::filesystem::path root() const { return scratch_.path("root"); }
    void put(const std::string &name, const std::string &text) const { scratch_.file("root/" + name, text); }
    std::vector<uint8_t> make(const std::string &options = "") const {
        const std::string image = scratch_.path("image");
        const std::string command =
            "PATH=$PATH:/usr/sbin:/sbin mkfs.cramfs " + options + " " + root().string() + " " + image;
        EXPECT_EQ(std::system(command.c_str()), 0) << command;
        const std::string content = read_all(image);
        return {content.begin(), content.end()};
    }

private:
    Scratch scratch_;
};

}  // namespace qel::test
