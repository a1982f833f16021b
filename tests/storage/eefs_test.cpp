// The EEPROM file system's operations: one contract for every family of them.
#include <algorithm>
#include <ctime>
#include <functional>

#include "tests/storage/eeprom_bench.h"

namespace qel::test {
namespace {

constexpr unsigned kPage = 32;
constexpr unsigned kCapacity = 2049;  // the last page has one byte

// The operations of one family, on one chip.
struct Family {
    unsigned chip;
    std::string prefix;  // of the names under which they log
    std::string suffix;
    std::function<int(EefsChipAttr *)> init;
    std::function<int()> exit;
    std::function<int(const char *)> open;
    std::function<int(int)> close;
    std::function<int(int, void *, unsigned, unsigned *)> read;
    std::function<int(int, const void *, unsigned, unsigned *)> write;
    std::function<int(int, int, int)> seek;
    std::function<int(const char *, unsigned *, unsigned *)> stat;
    std::function<int(const char *)> find;
    std::function<int(unsigned *)> count;
    std::function<int(unsigned, char *, unsigned *)> info;
    std::function<int(const char *, unsigned *)> space;
    std::function<unsigned()> free_bytes;
    std::function<int()> clear;
    std::function<int()> erase;
    std::function<int(EefsContext *, unsigned)> read_fs;
    std::function<int()> dump;
};

// Operations that take the chip's number last, with the number given.
template <typename Function>
auto on_chip(Function *function, unsigned chip) {
    return [=](auto... arguments) { return function(arguments..., chip); };
}
template <typename Function>
auto as_is(Function *function, unsigned) {
    return function;
}

#define FAMILY(library, chip, how, base, suffix)                                                           \
    {                                                                                                      \
        chip, #base, #suffix, how(CALL(library, base##Init), chip), how(CALL(library, base##Exit), chip),  \
            how(CALL(library, base##Open##suffix), chip), how(CALL(library, base##Close##suffix), chip),   \
            how(CALL(library, base##Read##suffix), chip), how(CALL(library, base##Write##suffix), chip),   \
            how(CALL(library, base##LSeek), chip), how(CALL(library, base##Stat##suffix), chip),           \
            how(CALL(library, base##FindFile##suffix), chip),                                              \
            how(CALL(library, base##GetFileCount##suffix), chip),                                          \
            how(CALL(library, base##GetFileInfo##suffix), chip),                                           \
            how(CALL(library, base##FileSpace##suffix), chip),                                             \
            how(CALL(library, base##FreeChip##suffix), chip),                                              \
            how(CALL(library, base##ClearFiles##suffix), chip), how(CALL(library, base##EarseChip), chip), \
            how(CALL(library, base##ReadFS##suffix), chip), how(CALL(library, base##Dump), chip)           \
    }

Family family_of(const Library &library, const std::string &name) {
    if (name == "EEFS_Lib") return FAMILY(library, 0, as_is, EEFS_Lib, );
    if (name == "EEFS_Lib_new") return FAMILY(library, 0, as_is, EEFS_Lib, _new);
    if (name == "EEFS_MultLib") return FAMILY(library, 1, on_chip, EEFS_MultLib, );
    return FAMILY(library, 2, on_chip, EEFS_MultLib, _new);
}

class EveryFamily : public testing::TestWithParam<const char *> {
protected:
    // Three equal chips, so that each family shows it works on its own.
    EveryFamily()
        : bench_(eeprom_board(eeprom_table(kPage, kCapacity) + eeprom_table(kPage, kCapacity) +
                              eeprom_table(kPage, kCapacity))),
          fs(family_of(*bench_.library, GetParam())) {}

    void start() {
        EefsChipAttr attributes{};
        ASSERT_EQ(fs.init(&attributes), 0) << bench_.log.all();
    }
    void restart() {
        EXPECT_EQ(fs.exit(), 0);
        start();
    }
    void put(const char *name, const Bytes &data) {
        const int index = fs.open(name);
        unsigned done = 0;
        ASSERT_GE(index, 0) << bench_.log.all();
        if (!data.empty()) {
            ASSERT_EQ(fs.write(index, data.data(), static_cast<unsigned>(data.size()), &done), 0);
        }
        ASSERT_EQ(done, data.size());
        ASSERT_EQ(fs.close(index), 0);
    }
    Bytes get(const char *name) {
        unsigned bytes = 0;
        unsigned done = 0;
        const int index = fs.open(name);
        EXPECT_EQ(fs.stat(name, &bytes, nullptr), 0);
        Bytes data(bytes + 1);
        if (bytes > 0) {
            EXPECT_EQ(fs.read(index, data.data(), bytes + 1, &done), 0);
        }
        EXPECT_EQ(fs.close(index), 0);
        data.resize(done);
        return data;
    }
    unsigned count() {
        unsigned files = 99;
        EXPECT_EQ(fs.count(&files), 0);
        return files;
    }
    uint32_t word(uint32_t address) { return bench_.word(address, fs.chip); }
    Bytes bytes(uint32_t address, uint32_t count) { return bench_.bytes(address, count, fs.chip); }
    void fault(const std::string &text) { bench_.board.add_fault(bench_.node(fs.chip) + " " + text); }
    // "EEFS_LibOpen_new" ...
    std::string logs_as(const std::string &operation) const { return fs.prefix + operation + fs.suffix; }

    EepromBench bench_;
    Family fs;
};

INSTANTIATE_TEST_SUITE_P(Eefs, EveryFamily,
                         testing::Values("EEFS_Lib", "EEFS_Lib_new", "EEFS_MultLib", "EEFS_MultLib_new"),
                         [](const auto &info) { return std::string(info.param); });

TEST_P(EveryFamily, RefusesEverythingButInitBeforeInit) {
    unsigned word = 0;
    char text[64];
    const std::pair<const char *, int> answers[] = {
        {"Exit", fs.exit()},
        {"LSeek", fs.seek(0, 0, 0)},
        {"EarseChip", fs.erase()},
        {"Dump", fs.dump()},
        {"Open", fs.open("a")},
        {"Close", fs.close(0)},
        {"Read", fs.read(0, text, 1, &word)},
        {"Write", fs.write(0, text, 1, &word)},
        {"Stat", fs.stat("a", &word, &word)},
        {"FindFile", fs.find("a")},
        {"GetFileCount", fs.count(&word)},
        {"GetFileInfo", fs.info(0, text, &word)},
        {"FileSpace", fs.space("a", &word)},
        {"ClearFiles", fs.clear()},
        {"ReadFSHead", fs.read_fs(nullptr, 0)},
    };
    for (const auto &[name, answer] : answers) {
        EXPECT_EQ(answer, -1) << name;
        EXPECT_TRUE(bench_.log.contains("[libqel-EEFS] ERROR  (" + fs.prefix + name)) << name;
    }
    EXPECT_EQ(bench_.log.count("EEFS didnot init\n"), 15);
    EXPECT_EQ(fs.free_bytes(), 0u);
    EXPECT_EQ(bytes(0, kCapacity), Bytes(kCapacity, 0xFF)) << "nothing reached the chip";
}

TEST_P(EveryFamily, MakesAnEmptyFileSystemOnABlankChip) {
    start();
    const Bytes head = bytes(0, kHead + 8);
    const Bytes expected = {0,   0, 0, 0, 0x23, 0x51, 0xEF, 0xDE, 1, 0, 0, 0,
                            120, 0, 0, 0, 0x89, 7,    0,    0,    0, 0, 0, 0};  // 1929 = 2049 - 120
    EXPECT_EQ(Bytes(head.begin(), head.begin() + 24), expected);
    EXPECT_TRUE(std::all_of(head.begin() + 24, head.begin() + kHead, [](uint8_t b) { return b == 0; }));
    EXPECT_EQ(Bytes(head.begin() + kHead, head.end()), Bytes(8, 0xFF)) << "behind the head";
    EXPECT_EQ(fs.free_bytes(), kCapacity - kHead);
    EXPECT_EQ(count(), 0u);
    EXPECT_TRUE(bench_.log.contains("[libqel-EEFS] fs init OK\n"));
    EXPECT_TRUE(bench_.log.contains("[libqel-EEFS] Chip : pageSize 32 capacity 2049"));

    EefsChipAttr again{};
    EXPECT_EQ(fs.init(&again), 0);
    EXPECT_EQ(again.chip, 7u);
    EXPECT_EQ(again.page_bytes, kPage);
    EXPECT_EQ(again.capacity_bytes, kCapacity);
    EXPECT_EQ(bench_.log.count("fs init OK"), 1) << "a second init opens nothing";
    EXPECT_EQ(fs.init(nullptr), -1);
    EXPECT_TRUE(bench_.log.contains("Null eeprom attribute!\n"));
}

TEST_P(EveryFamily, LaysAFileOutByteByByte) {
    start();
    const auto before = static_cast<uint32_t>(time(nullptr));
    put("net.conf", pattern(101, 1));
    const auto after = static_cast<uint32_t>(time(nullptr));

    EXPECT_EQ(word(120 + 0), 0u);
    EXPECT_EQ(word(120 + 4), 1u) << "in use";
    EXPECT_EQ(word(120 + 8), 101u);
    EXPECT_GE(word(120 + 12), before);
    EXPECT_LE(word(120 + 12), after + 1) << "time() may be a tick behind";
    Bytes name(40);
    memcpy(name.data(), "net.conf", 8);
    EXPECT_EQ(bytes(120 + 16, 40), name);
    EXPECT_EQ(bytes(120 + 56, 101), pattern(101, 1));
    EXPECT_EQ(bytes(120 + 56 + 101, 1), Bytes(1, 0xFF));

    EXPECT_EQ(word(12), 120u + 56 + 120) << "free area: 101 bytes take 117 rounded up to 4";
    EXPECT_EQ(word(16), kCapacity - 120 - 56 - 120);
    EXPECT_EQ(word(20), 1u);
    EXPECT_EQ(word(24), 0u);
    EXPECT_EQ(word(28), 120u) << "from the head";
    EXPECT_EQ(word(32), 120u) << "room";

    put("b", pattern(1, 2));
    EXPECT_EQ(word(40), 296u);
    EXPECT_EQ(word(44), 20u);
    unsigned room = 0;
    EXPECT_EQ(fs.space("b", &room), 0);
    EXPECT_EQ(room, 20u);
    EXPECT_EQ(fs.free_bytes(), word(16));
}

TEST_P(EveryFamily, FindsItsFilesAgainAfterARestart) {
    start();
    const std::string longest(39, 'n');
    put("first", pattern(40, 1));
    put(longest.c_str(), pattern(500, 2));
    put("empty", {});
    restart();
    EXPECT_EQ(count(), 3u);
    EXPECT_EQ(fs.find("first"), 0);
    EXPECT_EQ(fs.find(longest.c_str()), 1);
    EXPECT_EQ(fs.find("First"), EEFS_NOT_FOUND);
    EXPECT_EQ(fs.find((longest + "n").c_str()), EEFS_NOT_FOUND);
    EXPECT_EQ(get("first"), pattern(40, 1));
    EXPECT_EQ(get(longest.c_str()), pattern(500, 2));
    EXPECT_EQ(get("empty"), Bytes());

    char name[EEFS_NAME_BYTES];
    unsigned length = 0;
    EXPECT_EQ(fs.info(1, name, &length), 0);
    EXPECT_EQ(name, longest);
    EXPECT_EQ(length, 500u);
    EXPECT_EQ(fs.info(2, name, nullptr), 0);
    EXPECT_STREQ(name, "empty");
    EXPECT_EQ(fs.info(3, name, nullptr), -1);

    bench_.set_words(word(28) + 4, {0}, fs.chip);  // the first file's in-use flag
    EXPECT_EQ(fs.find("first"), EEFS_NOT_FOUND);
    EXPECT_EQ(fs.info(0, name, nullptr), 0);
    EXPECT_EQ(name, longest) << "listing steps over it";
    EXPECT_EQ(count(), 2u);
}

TEST_P(EveryFamily, RefusesNamesOfTheWrongLength) {
    start();
    const std::string longest(39, 'n');
    const std::string too_long = longest + "n";
    EXPECT_EQ(fs.open(nullptr), -1);
    EXPECT_EQ(fs.open(""), -1);
    EXPECT_EQ(fs.open(too_long.c_str()), -1);
    EXPECT_EQ(bench_.log.count("(" + logs_as("Open") + "|"), 3);
    EXPECT_TRUE(bench_.log.contains("filename " + too_long + " is too long\n"));
    EXPECT_EQ(fs.open(longest.c_str()), 0);
}

TEST_P(EveryFamily, OpensOneFileAtATime) {
    start();
    put("a", pattern(10, 1));
    const int open = fs.open("b");
    EXPECT_EQ(open, 1);
    EXPECT_EQ(fs.open("c"), -1);
    EXPECT_TRUE(bench_.log.contains("[libqel-EEFS] cannot open b file, while c is opened.\n"));
    EXPECT_EQ(fs.open("a"), -1);
    EXPECT_TRUE(bench_.log.contains("[libqel-EEFS] Inode 0 has already opened\n"));
    EXPECT_EQ(fs.open("b"), -1);
    EXPECT_TRUE(bench_.log.contains("[libqel-EEFS] Inode 1 has already opened\n"));

    char byte = 0;
    unsigned done = 9;
    EXPECT_EQ(fs.write(0, &byte, 1, &done), -1);
    EXPECT_EQ(done, 0u);
    EXPECT_EQ(fs.read(0, &byte, 1, &done), -1);
    EXPECT_EQ(fs.close(0), -1);
    EXPECT_EQ(bench_.log.count("invalid file descriptor 0\n"), 3);
    EXPECT_EQ(fs.seek(0, 0, 0), -1);
    EXPECT_TRUE(bench_.log.contains("[libqel-EEFS] inode 0 not opened\n"));
    EXPECT_EQ(fs.close(open), 0);
    EXPECT_EQ(fs.open("a"), 0);
}

TEST_P(EveryFamily, MovesWithinAFileAndNoFurther) {
    start();
    put("f", pattern(50, 1));
    const int open = fs.open("f");
    const struct {
        int offset, whence, position;
    } moves[] = {{10, SEEK_SET, 10},       {-1, SEEK_SET, -1},  {51, SEEK_SET, 50}, {-20, SEEK_CUR, 30},
                 {-31, SEEK_CUR, -1},      {0, SEEK_CUR, 30},   {21, SEEK_CUR, 50}, {5, SEEK_END, 50},
                 {-50, SEEK_END, 0},       {-51, SEEK_END, -1}, {0, 3, -1},         {INT32_MAX, SEEK_END, 50},
                 {INT32_MIN, SEEK_CUR, -1}};
    for (const auto &move : moves)
        EXPECT_EQ(fs.seek(open, move.offset, move.whence), move.position)
            << move.offset << " from " << move.whence;

    uint8_t rest[64];
    unsigned done = 9;
    EXPECT_EQ(fs.read(open, rest, sizeof(rest), &done), -1) << "at the end";
    EXPECT_EQ(done, 0u);
    EXPECT_EQ(fs.seek(open, -3, SEEK_END), 47);
    EXPECT_EQ(fs.read(open, rest, sizeof(rest), &done), 0);
    EXPECT_EQ(done, 3u);
    EXPECT_EQ(memcmp(rest, pattern(50, 1).data() + 47, 3), 0);
    EXPECT_EQ(fs.read(open, nullptr, 1, &done), -1);
    EXPECT_EQ(fs.read(open, rest, 0, &done), -1);
    EXPECT_EQ(bench_.log.count("invalid Buffer\n"), 2);
    EXPECT_EQ(fs.write(open, nullptr, 1, &done), -1);
    EXPECT_TRUE(bench_.log.contains("invalid buffer\n"));
    EXPECT_EQ(fs.write(open, rest, 1, nullptr), -1);
}

TEST_P(EveryFamily, CutsARewriteAtTheFilesRoom) {
    start();
    put("f", pattern(10, 1));  // room for 28
    put("next", pattern(10, 2));
    const int open = fs.open("f");
    unsigned done = 0;
    bench_.set_words(120 + 12, {1}, fs.chip);  // an old time
    EXPECT_EQ(fs.write(open, pattern(100, 3).data(), 100, &done), 0);
    EXPECT_EQ(done, 28u);
    EXPECT_EQ(fs.write(open, "x", 1, &done), 0);
    EXPECT_EQ(done, 0u);
    EXPECT_EQ(fs.close(open), 0);
    Bytes expected = pattern(100, 3);
    expected.resize(28);
    EXPECT_EQ(get("f"), expected);
    EXPECT_EQ(get("next"), pattern(10, 2));
    EXPECT_GT(word(120 + 12), 1u) << "the time is now";

    const Bytes before = bytes(0, kCapacity);
    EXPECT_EQ(fs.close(fs.open("f")), 0);
    EXPECT_EQ(bytes(0, kCapacity), before) << "nothing changed, nothing written";
}

TEST_P(EveryFamily, UsesTheChipToItsLastByte) {
    start();
    put("big", pattern(kCapacity - 120 - 56 - 16 - 57, 1));
    ASSERT_EQ(fs.free_bytes(), 57u);
    const int open = fs.open("last");
    unsigned done = 0;
    EXPECT_EQ(fs.write(open, "xy", 2, &done), 0);
    EXPECT_EQ(done, 1u);
    EXPECT_EQ(fs.close(open), 0);
    EXPECT_EQ(fs.free_bytes(), 0u);
    EXPECT_EQ(bytes(kCapacity - 1, 1), Bytes(1, 'x'));
    EXPECT_EQ(fs.open("more"), -1);
    EXPECT_TRUE(bench_.log.contains("[libqel-EEFS] no space left.\n"));
    restart();
    EXPECT_EQ(get("last"), Bytes(1, 'x'));
}

TEST_P(EveryFamily, LosesTheFileSystemToANinthFile) {
    start();
    for (char name[] = "1"; name[0] <= '8'; ++name[0]) put(name, pattern(4, name[0]));
    put("9", pattern(4, 9));
    EXPECT_EQ(word(20), 9u);
    EXPECT_EQ(word(120), 0u);
    EXPECT_EQ(word(124), 120u + 8 * (56 + 20)) << "its entry lies over the first header";
    EXPECT_EQ(word(128), 20u);
    EXPECT_EQ(get("9"), pattern(4, 9));
    EXPECT_EQ(fs.open("10"), -1) << "a tenth has no place in memory";
    restart();
    EXPECT_EQ(count(), 0u) << "such a head counts as none";
    EXPECT_EQ(word(20), 0u);
}

TEST_P(EveryFamily, ClearsAllFiles) {
    start();
    put("a", pattern(10, 1));
    const int open = fs.open("b");
    EXPECT_EQ(fs.clear(), 0);
    EXPECT_EQ(count(), 0u);
    EXPECT_EQ(fs.free_bytes(), kCapacity - kHead);
    EXPECT_EQ(fs.close(open), -1) << "the open file is gone with the others";
    put("c", pattern(5, 3));
    EXPECT_EQ(get("c"), pattern(5, 3));
}

TEST_P(EveryFamily, OverwritesTheWholeChipWithZeros) {
    start();
    put("a", pattern(10, 1));
    testing::internal::CaptureStdout();
    EXPECT_EQ(fs.erase(), 0);
    const std::string shown = testing::internal::GetCapturedStdout();
    EXPECT_EQ(bytes(0, kCapacity), Bytes(kCapacity, 0));
    EXPECT_EQ(shown.substr(0, 36), "\rWrote address 0x00000000 (0.00%) \rW");
    EXPECT_NE(shown.find("\rWrote address 0x00000800 (99.95%) "), std::string::npos);
    EXPECT_GT(fs.free_bytes(), 0u);
    restart();
    EXPECT_EQ(count(), 0u);
}

TEST_P(EveryFamily, TakesTheHeadFromItsSecondPlace) {
    start();
    put("a", pattern(10, 1));
    const Bytes image = bytes(0, 400);
    bench_.set_bytes(0, Bytes(128, 0xFF), fs.chip);
    bench_.set_bytes(128, image, fs.chip);
    restart();
    EXPECT_EQ(get("a"), pattern(10, 1));
    put("b", pattern(10, 2));
    EXPECT_EQ(word(128 + 20), 2u);
    EXPECT_EQ(word(128 + 40), 120u + 56 + 28) << "offsets count from the head";
    EXPECT_EQ(bytes(0, 128), Bytes(128, 0xFF));
    EXPECT_EQ(fs.read_fs(nullptr, 600), -1) << "no head there";
}

TEST_P(EveryFamily, FormatsFurtherOnWhereTheStartDoesNotHold) {
    fault("ioctl:WRITE fail EIO at 1..2");
    start();
    EXPECT_EQ(bench_.log.count("QEC_EEPROM_IOCWR error\n"), 2) << "two attempts at address 0";
    EXPECT_EQ(word(128 + 4), kMagic);
    EXPECT_EQ(word(128 + 12), 248u) << "the address itself, not an offset";
    EXPECT_EQ(word(128 + 16), kCapacity - 248);
    put("a", pattern(10, 1));
    EXPECT_EQ(bytes(128 + 248 + 56, 10), pattern(10, 1));
    restart();
    EXPECT_EQ(get("a"), pattern(10, 1));
}

TEST_P(EveryFamily, GivesUpOnADeadChip) {
    fault("ioctl:WRITE fail EIO");
    EefsChipAttr attributes{};
    EXPECT_EQ(fs.init(&attributes), -1);
    EXPECT_TRUE(bench_.log.contains("[libqel-EEFS] fs->init Failed!\n"));
    EXPECT_EQ(fs.open("a"), -1);
    bench_.board.clear_faults();
    start();
}

TEST_P(EveryFamily, ReportsWhatTheDeviceRefuses) {
    start();
    put("a", pattern(10, 1));
    fault("ioctl:READ fail EIO at 1..3");
    EXPECT_EQ(fs.find("a"), -1);
    EXPECT_EQ(fs.open("a"), 0) << "a look-up that fails opens nothing and says 0";
    EXPECT_EQ(fs.stat("a", nullptr, nullptr), -1);
    EXPECT_EQ(bench_.log.count("[libqel-EEFS] ERROR  (E2_read|"), 3);
    EXPECT_EQ(fs.close(0), -1) << "nothing is open";

    bench_.board.clear_faults();
    fault("ioctl:WRITE fail EIO at 1");
    EXPECT_EQ(fs.open("b"), -1);
    EXPECT_EQ(bench_.log.count("[libqel-EEFS] ERROR  (E2_write|"), 1);
    EXPECT_EQ(count(), 1u);
}

// A close that fails at any of its three writes can be tried again and ends as if it had not failed.
TEST_P(EveryFamily, TriesAFailedCloseAgain) {
    for (int failing = 1; failing <= 3; ++failing) {
        bench_.board.clear_faults();
        bench_.board.poke(0, bench_.node(fs.chip), {"fill", "ff"});
        start();
        const int open = fs.open("a");
        unsigned done = 0;
        EXPECT_EQ(fs.write(open, "12345", 5, &done), 0);
        fault("ioctl:WRITE fail EIO at " + std::to_string(failing));
        EXPECT_EQ(fs.close(open), -1);
        EXPECT_EQ(fs.open("b"), -1) << "the file is still open";
        EXPECT_EQ(fs.close(open), 0);
        EXPECT_EQ(word(12), 120u + 56 + 24);
        EXPECT_EQ(word(16), kCapacity - 120 - 56 - 24);
        EXPECT_EQ(word(32), 24u);
        EXPECT_EQ(get("a"), Bytes({'1', '2', '3', '4', '5'}));
        EXPECT_EQ(fs.exit(), 0);
    }
}

// A head that passes its checks but says what cannot be: whatever is sound stays usable, the rest is
// left alone, and nothing outside the chip is ever asked for.
TEST_P(EveryFamily, DoesNotFollowEntriesOutOfTheChip) {
    start();
    put("a", pattern(10, 1));
    put("b", pattern(10, 2));
    put("c", pattern(10, 3));
    const Bytes sound = bytes(0, kHead);
    const struct {
        const char *what;
        uint32_t address;
        std::vector<uint32_t> words;
        std::vector<const char *> left;
    } cases[] = {
        {"header outside", 40, {0xFFFFFFF0}, {"a", "c"}},
        {"header over the end", 52, {kCapacity - 55}, {"a", "b"}},
        {"header in the head", 28, {8}, {"b", "c"}},
        {"header in another file", 40, {130}, {"a", "c"}},
        {"room over the end", 56, {0xFFFFFFFF}, {"a", "b", "c"}},
        {"room over the next file", 32, {500}, {"a", "b", "c"}},
        {"free area outside", 12, {0xFFFFFFFF, 5000}, {"a", "b", "c"}},
        {"free area over the files", 12, {130, kCapacity - 130}, {"a", "b", "c"}},
        {"too much free space", 16, {0x7FFFFFFF}, {"a", "b", "c"}},
    };
    for (const auto &one : cases) {
        SCOPED_TRACE(one.what);
        bench_.log.clear();
        bench_.set_bytes(0, sound, fs.chip);
        bench_.set_words(one.address, one.words, fs.chip);
        restart();
        EXPECT_TRUE(bench_.log.contains("does not fit the chip"));
        EXPECT_EQ(count(), one.left.size());
        for (const char *name : one.left)
            EXPECT_EQ(get(name), pattern(10, static_cast<unsigned>(name[0] - 'a' + 1)));
        const int open = fs.open("new");
        unsigned done = 0;
        if (open >= 0) {
            EXPECT_EQ(fs.write(open, pattern(kCapacity, 4).data(), kCapacity, &done), 0);
        }
        for (const char *name : one.left)
            EXPECT_EQ(fs.stat(name, nullptr, nullptr), 0) << "a new file harms no other";
        EXPECT_FALSE(bench_.log.contains("IOCWR error"));
        EXPECT_FALSE(bench_.log.contains("not on the chip"));
    }
}

TEST_P(EveryFamily, LogsItsTableOnDump) {
    start();
    put("a", pattern(10, 1));
    EXPECT_EQ(fs.dump(), 0);
    EXPECT_TRUE(bench_.log.contains("[libqel-EEFS] 0: header 0x78, 10 bytes, room for 28"));
}

TEST(EefsDevice, SaysWhatCannotBeOpened) {
    EepromBench bench(eeprom_board(eeprom_table(32, 1024)));
    EefsChipAttr attributes{};
    int fd = 5;
    EXPECT_EQ(CALL(*bench.library, Eeprom_openDev)(&attributes, &fd), 0);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(CALL(*bench.library, Eeprom_MultopenDev)(&attributes, &fd, 1), -1) << "no such chip";
    EXPECT_EQ(fd, -1);
    EXPECT_TRUE(bench.log.contains("/dev/qecEEPROM1"));
    EXPECT_EQ(CALL(*bench.library, Eeprom_MultopenDev)(&attributes, &fd, 0xFFFFFFFF), -1)
        << "a path too long";
    EXPECT_EQ(CALL(*bench.library, EEFS_MultLibInit)(&attributes, QEL_EEPROM_CHIPS_MAX), -1);
    bench.board.add_fault("/dev/qecEEPROM ioctl:GET_ATTRIBUTES fail EIO");
    EXPECT_EQ(CALL(*bench.library, Eeprom_openDev)(&attributes, &fd), -1);
    EXPECT_EQ(fd, -1);
    EXPECT_EQ(CALL(*bench.library, EEFS_LibInit)(&attributes), -1);
}

// Chips too small for a file, for a header, for a head.
TEST(EefsDevice, StaysOnTinyChips) {
    for (const unsigned capacity : {1u, 119u, 120u, 176u, 177u}) {
        EepromBench bench(eeprom_board(eeprom_table(16, capacity)));
        EefsChipAttr attributes{};
        const bool room_for_head = capacity >= 120;
        EXPECT_EQ(CALL(*bench.library, EEFS_LibInit)(&attributes), room_for_head ? 0 : -1) << capacity;
        if (!room_for_head) continue;
        EXPECT_EQ(CALL(*bench.library, EEFS_LibOpen)("a"), capacity > 176 ? 0 : -1) << capacity;
    }
}

}  // namespace
}  // namespace qel::test
