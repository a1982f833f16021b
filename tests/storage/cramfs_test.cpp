// Reading the description out of upgrade images: those that mkfs.cramfs makes, and block forms and
// damage that it does not.
#include "storage/cramfs.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <map>
#include <random>

#include "tests/storage/cramfs_image.h"

namespace qel::cramfs {
namespace {

using Octets = std::vector<uint8_t>;

struct Read {
    Result result;
    std::string text;
    bool operator==(const Read &) const = default;
};

Read read_file(const Octets &image, const char *name, size_t room = 0x20000) {
    Image opened;
    File file;
    Result result = open(image, &opened);
    if (result == Result::kOk) result = find(opened, name, &file);
    std::string text(room, '\xEE');
    const std::span<uint8_t> out(reinterpret_cast<uint8_t *>(text.data()), text.size());
    if (result == Result::kOk) result = read(opened, file, out);
    if (result != Result::kOk) return {result, ""};
    return {result, text.substr(0, file.bytes)};
}

// ---- images of the program that everybody uses ----

class Made : public ::testing::Test, protected test::ImageFolder {};

std::string text_of(size_t bytes, unsigned seed) {
    std::mt19937 random(seed);
    std::string text(bytes, ' ');
    // A stretch of zeros makes a hole where the program is asked for holes.
    for (size_t i = 0; i < bytes; ++i) text[i] = i / 4096 == 1 ? '\0' : static_cast<char>(random());
    return text;
}

TEST_F(Made, EveryFileOfTheRootFolderComesBackAsItWas) {
    std::map<std::string, std::string> files = {
        {"empty", ""}, {"partition.txt", "boot, 0, 0x0, 0x1000, RW\n"}, {"partitionV3.txt", text_of(1, 1)}};
    for (const size_t bytes : {4095, 4096, 4097, 8192, 20000}) {
        files["f" + std::to_string(bytes)] = text_of(bytes, static_cast<unsigned>(bytes));
    }
    for (const auto &[name, text] : files) put(name, text);
    for (const char *options : {"", "-p", "-z", "-p -z"}) {
        const Octets image = make(options);
        for (const auto &[name, text] : files) {
            EXPECT_EQ(read_file(image, name.c_str()), (Read{Result::kOk, text})) << name << " " << options;
        }
        EXPECT_EQ(read_file(image, "partition.tx").result, Result::kNotFound);
        EXPECT_EQ(read_file(image, "partition.txt2").result, Result::kNotFound);
    }
}

TEST_F(Made, AnImageBehindAHeaderOf512BytesIsReadToo) {
    put("partition.txt", "behind a header");
    Octets image = make();
    image.insert(image.begin(), 512, uint8_t{0x27});
    EXPECT_EQ(read_file(image, "partition.txt"), (Read{Result::kOk, "behind a header"}));
    image.insert(image.begin(), uint8_t{0});
    EXPECT_EQ(read_file(image, "partition.txt").result, Result::kNotCramfs);
}

TEST_F(Made, OnlyRegularFilesAreFound) {
    put("partitionV2.txt", "two");
    std::filesystem::create_directory(root() / "partitionV3.txt");
    std::filesystem::create_symlink("partitionV2.txt", root() / "partition.txt");
    const Octets image = make();
    EXPECT_EQ(read_file(image, "partitionV3.txt").result, Result::kNotFound);
    EXPECT_EQ(read_file(image, "partition.txt").result, Result::kNotFound);
    EXPECT_EQ(read_file(image, "partitionV2.txt"), (Read{Result::kOk, "two"}));
}

TEST_F(Made, AFileLongerThanTheBufferIsRefused) {
    put("long", text_of(5000, 3));
    const Octets image = make();
    EXPECT_EQ(read_file(image, "long", 5000).result, Result::kOk);
    EXPECT_EQ(read_file(image, "long", 4999).result, Result::kTooLong);
}

// ---- block forms by hand ----

void append(Octets &to, uint32_t value, unsigned bytes = 4) {
    for (unsigned i = 0; i < bytes; ++i) to.push_back(static_cast<uint8_t>(value >> (8 * i)));
}

void add(Octets &to, const auto &data) { to.insert(to.end(), data.begin(), data.end()); }

void patch(Octets &image, size_t at, uint32_t value) {
    for (unsigned i = 0; i < 4; ++i) image[at + i] = static_cast<uint8_t>(value >> (8 * i));
}

Octets deflated(const std::string &text) {
    Octets out(compressBound(text.size()));
    uLongf bytes = out.size();
    compress(out.data(), &bytes, reinterpret_cast<const Bytef *>(text.data()), text.size());
    out.resize(bytes);
    return out;
}

constexpr uint32_t kPlain = 1u << 31;
constexpr uint32_t kDirect = 1u << 30;
constexpr uint32_t kPointers = 96;  // of the one file

// An image with one file "f" of `bytes`, its block pointers unset.
Octets image_of(uint32_t bytes, uint32_t blocks) {
    Octets image;
    append(image, 0x28CD3D45);
    image.resize(64);
    for (const uint32_t word :
         {0040755u, 16u, 76u / 4 << 6, 0100644u, bytes, kPointers / 4 << 6 | 1, uint32_t{'f'}})
        append(image, word);
    image.resize(kPointers + 4 * size_t{blocks});
    return image;
}

void align(Octets &image) { image.resize((image.size() + 3) / 4 * 4); }

TEST(Blocks, PlainDeflatedAndDirectOnesMix) {
    const std::string a(4096, 'a'), b(4096, 'b'), c(4096, 'c'), d(4096, 'd'), e(100, 'e');
    Octets image = image_of(4 * 4096 + 100, 5);
    add(image, a);  // plain, behind the pointers
    patch(image, kPointers, static_cast<uint32_t>(image.size()) | kPlain);
    add(image, deflated(b));
    patch(image, kPointers + 4, static_cast<uint32_t>(image.size()));
    align(image);
    patch(image, kPointers + 8, static_cast<uint32_t>(image.size() / 4) | kDirect);
    append(image, static_cast<uint32_t>(deflated(c).size()), 2);
    add(image, deflated(c));
    add(image, deflated(d));  // right behind a direct one
    patch(image, kPointers + 12, static_cast<uint32_t>(image.size()));
    align(image);
    patch(image, kPointers + 16, static_cast<uint32_t>(image.size() / 4) | kDirect | kPlain);
    add(image, e);
    EXPECT_EQ(read_file(image, "f"), (Read{Result::kOk, a + b + c + d + e}));
    image.pop_back();
    EXPECT_EQ(read_file(image, "f").result, Result::kDamaged);
}

TEST(Blocks, ThatLieAboutTheirPlaceAreDamage) {
    const std::string text(300, 't');
    const Octets data = deflated(text);
    Octets good = image_of(300, 1);
    add(good, data);
    const auto end = static_cast<uint32_t>(good.size());
    patch(good, kPointers, end);
    ASSERT_EQ(read_file(good, "f"), (Read{Result::kOk, text}));

    const std::tuple<const char *, size_t, uint32_t> faults[] = {
        {"the block ends before it begins", kPointers, kPointers},
        {"the block ends behind the image", kPointers, end + 1},
        {"the deflated data are cut", kPointers, end - 4},
        {"a direct block behind the image", kPointers, (end / 4 + 1) | kDirect},
        {"the file is longer than the block", 80, 301},
        {"the file is shorter than the block", 80, 299},
        {"the pointers lie behind the image", 84, (end / 4 + 1) << 6 | 1},
        {"the root folder lies behind the image", 72, (end / 4 + 1) << 6},
        {"the root folder is a file", 64, 0100644},
        {"an entry without a name", 84, kPointers / 4 << 6},
        {"a name longer than its folder", 84, kPointers / 4 << 6 | 2},
    };
    for (const auto &[what, at, value] : faults) {
        Octets image = good;
        patch(image, at, value);
        EXPECT_EQ(read_file(image, "f").result, Result::kDamaged) << what;
    }
}

}  // namespace
}  // namespace qel::cramfs
