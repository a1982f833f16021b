// catalog.cpp - finds board descriptions by name.
#include <dlfcn.h>
#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>

#include "board/core/board.h"
#include "board/core/description.h"

namespace qel::board {

namespace {

namespace fs = std::filesystem;

constexpr const char *kFolderVariable = "QELBOARD_BOARDS";  // folders with ":" between them
constexpr const char *kSuffix = ".toml";

// The user's folders first, then the ones beside this library: share/qel/boards of the same prefix,
// which an installation and a build tree both have.
std::vector<fs::path> folders() {
    std::vector<fs::path> all;
    const char *named = getenv(kFolderVariable);
    std::istringstream list{named != nullptr ? named : ""};
    for (std::string folder; std::getline(list, folder, ':');) {
        if (!folder.empty()) all.emplace_back(folder);
    }
    Dl_info here{};
    if (dladdr(reinterpret_cast<const void *>(&shipped_boards), &here) != 0 && here.dli_fname != nullptr) {
        fs::path folder = fs::absolute(here.dli_fname).parent_path();
        // The library may stand in lib or in lib/ARCHITECTURE.
        for (int i = 0; i < 2; ++i) {
            folder = folder.parent_path();
            all.push_back(folder / "share/qel/boards");
        }
    }
    return all;
}

std::string read_text(const fs::path &path) {
    std::ifstream file(path, std::ios::binary);
    std::string text{std::istreambuf_iterator<char>(file), {}};
    if (!file) throw DescriptionError(0, "", path.string() + ": cannot be read");
    return text;
}

}  // namespace

std::string find_board(const std::string &name_or_path) {
    const fs::path path(name_or_path);
    if (path.has_parent_path() || path.extension() == kSuffix) return read_text(path);
    for (const fs::path &folder : folders()) {
        const fs::path candidate = folder / (name_or_path + kSuffix);
        if (fs::exists(candidate)) return read_text(candidate);
    }
    std::string known;
    for (const std::string &name : shipped_boards()) known += (known.empty() ? "" : ", ") + name;
    throw DescriptionError(0, "", "there is no board \"" + name_or_path + "\"; known are: " + known);
}

std::vector<std::string> shipped_boards() {
    std::set<std::string> names;
    for (const fs::path &folder : folders()) {
        std::error_code missing;
        for (const auto &entry : fs::directory_iterator(folder, missing)) {
            if (entry.path().extension() == kSuffix) names.insert(entry.path().stem().string());
        }
    }
    return {names.begin(), names.end()};
}

}  // namespace qel::board
