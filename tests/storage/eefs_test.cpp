// The EEPROM file system's operations.
#include <ctime>

#include "tests/storage/eeprom_bench.h"

namespace qel::test {
namespace {

using Words = std::vector<uint32_t>;

constexpr unsigned kPage = 32;
constexpr unsigned kCapacity = 2049;  // the last page has one byte

// The operations of the family for one chip; the others are the same under other names.
struct Operations {
    const Library &library;
    decltype(EEFS_LibInit) *init = CALL(library, EEFS_LibInit);
    decltype(EEFS_LibExit) *exit = CALL(library, EEFS_LibExit);
    decltype(EEFS_LibOpen) *open = CALL(library, EEFS_LibOpen);
    decltype(EEFS_LibClose) *close = CALL(library, EEFS_LibClose);
    decltype(EEFS_LibRead) *read = CALL(library, EEFS_LibRead);
    decltype(EEFS_LibWrite) *write = CALL(library, EEFS_LibWrite);
    decltype(EEFS_LibLSeek) *seek = CALL(library, EEFS_LibLSeek);
    decltype(EEFS_LibStat) *stat = CALL(library, EEFS_LibStat);
    decltype(EEFS_LibFindFile) *find = CALL(library, EEFS_LibFindFile);
    decltype(EEFS_LibGetFileCount) *count = CALL(library, EEFS_LibGetFileCount);
    decltype(EEFS_LibGetFileInfo) *info = CALL(library, EEFS_LibGetFileInfo);
    decltype(EEFS_LibFileSpace) *space = CALL(library, EEFS_LibFileSpace);
    decltype(EEFS_LibFreeChip) *free_bytes = CALL(library, EEFS_LibFreeChip);
    decltype(EEFS_LibClearFiles) *clear = CALL(library, EEFS_LibClearFiles);
    decltype(EEFS_LibEarseChip) *erase = CALL(library, EEFS_LibEarseChip);
    decltype(EEFS_LibReadFS) *read_fs = CALL(library, EEFS_LibReadFS);
    decltype(EEFS_LibDump) *dump = CALL(library, EEFS_LibDump);
};

class Eefs : public testing::Test {
protected:
    void start() {
        EefsChipAttr attributes{};
        ASSERT_EQ(fs.init(&attributes), 0) << bench_.log.all();
    }
    void restart() {
        EXPECT_EQ(fs.exit(), 0);
        start();
    }
    unsigned write(int index, const Bytes &data) {
        unsigned done = 99;
        const void *bytes = data.empty() ? "" : static_cast<const void *>(data.data());
        EXPECT_EQ(fs.write(index, bytes, static_cast<unsigned>(data.size()), &done), 0);
        return done;
    }
    void put(const char *name, const Bytes &data) {
        const int index = fs.open(name);
        ASSERT_GE(index, 0) << bench_.log.all();
        ASSERT_EQ(write(index, data), data.size());
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
    uint32_t word(uint32_t address) { return bench_.word(address); }
    Words words(uint32_t address, uint32_t count) {
        Words all;
        for (uint32_t i = 0; i < count; ++i) all.push_back(word(address + 4 * i));
        return all;
    }
    Bytes bytes(uint32_t address, uint32_t count) { return bench_.bytes(address, count); }
    void fault(const std::string &text) { bench_.board.add_fault(bench_.node(0) + " " + text); }

    EepromBench bench_{eeprom_board(eeprom_table(kPage, kCapacity))};
    const Operations fs{*bench_.library};
};

TEST_F(Eefs, RefusesEverythingButInitBeforeInit) {
    unsigned word = 0;
    const int answers[] = {fs.exit(),    fs.seek(0, 0, 0), fs.erase(), fs.open("a"),          fs.close(0),
                           fs.find("a"), fs.count(&word),  fs.clear(), fs.read_fs(nullptr, 0)};
    for (const int &answer : answers) EXPECT_EQ(answer, -1) << "number " << &answer - answers;
    EXPECT_EQ(bench_.log.count("EEFS didnot init\n"), 9);
    bench_.log.expect({"(EEFS_LibOpen|", "(EEFS_LibReadFSHead|"});
    EXPECT_EQ(bytes(0, kCapacity), Bytes(kCapacity, 0xFF)) << "nothing reached the chip";
}

TEST_F(Eefs, MakesAnEmptyFileSystemOnABlankChip) {
    start();
    const Bytes head = bytes(0, kHead + 8);
    const Bytes expected = {0,   0, 0, 0, 0x23, 0x51, 0xEF, 0xDE, 1, 0, 0, 0,
                            120, 0, 0, 0, 0x89, 7,    0,    0,    0, 0, 0, 0};  // 1929 = 2049 - 120
    EXPECT_EQ(slice(head, 0, 24), expected);
    EXPECT_EQ(slice(head, 24, kHead - 24), Bytes(kHead - 24, 0));
    EXPECT_EQ(slice(head, kHead, 8), Bytes(8, 0xFF)) << "behind the head";
    EXPECT_EQ(fs.free_bytes(), kCapacity - kHead);
    EXPECT_EQ(count(), 0u);
    bench_.log.expect({"[libqel-EEFS] fs init OK\n", "[libqel-EEFS] Chip : pageSize 32 capacity 2049"});

    EefsChipAttr again{};
    EXPECT_EQ(fs.init(&again), 0);
    EXPECT_EQ(again.chip, 7u);
    EXPECT_EQ(again.page_bytes, kPage);
    EXPECT_EQ(again.capacity_bytes, kCapacity);
    EXPECT_EQ(bench_.log.count("fs init OK"), 1) << "a second init opens nothing";
    EXPECT_EQ(fs.init(nullptr), -1);
    bench_.log.expect({"Null eeprom attribute!\n"});
}

TEST_F(Eefs, LaysAFileOutByteByByte) {
    start();
    const auto before = static_cast<uint32_t>(time(nullptr));
    put("net.conf", pattern(101, 1));

    EXPECT_EQ(words(120, 3), (Words{0, 1, 101})) << "in use, length";
    EXPECT_LE(word(120 + 12) - before, 60u) << "the time";
    Bytes name(40);
    memcpy(name.data(), "net.conf", 8);
    EXPECT_EQ(bytes(120 + 16, 40), name);
    EXPECT_EQ(bytes(120 + 56, 101), pattern(101, 1));
    EXPECT_EQ(bytes(120 + 56 + 101, 1), Bytes(1, 0xFF));

    // The free area (101 bytes take 117 rounded up to 4), files; the entry: 0, header from the head, room.
    EXPECT_EQ(words(12, 6), (Words{120 + 56 + 120, kCapacity - 120 - 56 - 120, 1, 0, 120, 120}));

    put("b", pattern(1, 2));
    EXPECT_EQ(words(40, 2), (Words{296, 20}));
    unsigned room = 0;
    EXPECT_EQ(fs.space("b", &room), 0);
    EXPECT_EQ(room, 20u);
    EXPECT_EQ(fs.free_bytes(), word(16));
    EXPECT_EQ(fs.dump(), 0);
    bench_.log.expect({"[libqel-EEFS] 0: header 0x78, 101 bytes, room for 120"});
}

TEST_F(Eefs, FindsItsFilesAgainAfterARestart) {
    start();
    const std::string longest(39, 'n');
    put("first", pattern(40, 1));
    put(longest.c_str(), pattern(500, 2));
    put("empty", {});
    restart();
    EXPECT_EQ(bench_.log.count("does not fit the chip"), 0);
    EXPECT_EQ(count(), 3u);
    EXPECT_EQ(fs.find("first"), 0);
    EXPECT_EQ(fs.find(longest.c_str()), 1);
    EXPECT_EQ(fs.find((longest + "n").c_str()), EEFS_NOT_FOUND);
    EXPECT_EQ(get(longest.c_str()), pattern(500, 2));
    EXPECT_EQ(get("empty"), Bytes());
    char name[EEFS_NAME_BYTES];
    unsigned length = 0;
    EXPECT_EQ(fs.info(1, name, &length), 0);
    EXPECT_EQ(name, longest);
    EXPECT_EQ(length, 500u);
    EXPECT_EQ(fs.info(3, name, nullptr), -1);

    bench_.set_words(word(28) + 4, {0});  // the first file's in-use flag
    EXPECT_EQ(fs.find("first"), EEFS_NOT_FOUND);
    EXPECT_EQ(fs.info(0, name, nullptr), 0);
    EXPECT_EQ(name, longest) << "listing steps over it";
    EXPECT_EQ(count(), 2u);
}

TEST_F(Eefs, RefusesNamesOfTheWrongLength) {
    start();
    const std::string longest(39, 'n');
    const std::string too_long = longest + "n";
    EXPECT_EQ(fs.open(nullptr), -1);
    EXPECT_EQ(fs.open(""), -1);
    EXPECT_EQ(fs.open(too_long.c_str()), -1);
    EXPECT_EQ(bench_.log.count("(EEFS_LibOpen|"), 3);
    bench_.log.expect({"filename " + too_long + " is too long\n"});
    EXPECT_EQ(fs.open(longest.c_str()), 0);
}

TEST_F(Eefs, OpensOneFileAtATime) {
    start();
    put("a", pattern(10, 1));
    const int open = fs.open("b");
    EXPECT_EQ(open, 1);
    for (const char *name : {"a", "b", "c"}) EXPECT_EQ(fs.open(name), -1) << name;
    bench_.log.expect({"[libqel-EEFS] cannot open b file, while c is opened.\n",
                       "[libqel-EEFS] Inode 0 has already opened\n",
                       "[libqel-EEFS] Inode 1 has already opened\n"});

    char byte = 0;
    unsigned done = 9;
    EXPECT_EQ(fs.write(0, &byte, 1, &done), -1);
    EXPECT_EQ(done, 0u);
    EXPECT_EQ(fs.read(0, &byte, 1, &done), -1);
    EXPECT_EQ(fs.close(0), -1);
    EXPECT_EQ(bench_.log.count("invalid file descriptor 0\n"), 3);
    EXPECT_EQ(fs.seek(0, 0, 0), -1);
    bench_.log.expect({"[libqel-EEFS] inode 0 not opened\n"});
    EXPECT_EQ(fs.close(open), 0);
    EXPECT_EQ(fs.open("a"), 0);
}

TEST_F(Eefs, MovesWithinAFileAndNoFurther) {
    start();
    put("f", pattern(50, 1));
    const int open = fs.open("f");
    const std::tuple<int, int, int> moves[] = {
        {10, SEEK_SET, 10},  {-1, SEEK_SET, -1}, {51, SEEK_SET, 50},       {-20, SEEK_CUR, 30},
        {-31, SEEK_CUR, -1}, {21, SEEK_CUR, 50}, {-50, SEEK_END, 0},       {-51, SEEK_END, -1},
        {0, 3, -1},          {5, SEEK_END, 50},  {INT32_MIN, SEEK_CUR, -1}};
    for (const auto &[offset, whence, position] : moves)
        EXPECT_EQ(fs.seek(open, offset, whence), position) << offset << " from " << whence;

    uint8_t rest[64];
    unsigned done = 9;
    EXPECT_EQ(fs.read(open, rest, sizeof(rest), &done), -1) << "at the end";
    EXPECT_EQ(done, 0u);
    EXPECT_EQ(fs.seek(open, -3, SEEK_END), 47);
    EXPECT_EQ(fs.read(open, rest, sizeof(rest), &done), 0);
    EXPECT_EQ(Bytes(rest, rest + done), slice(pattern(50, 1), 47, 3));
    EXPECT_EQ(fs.read(open, nullptr, 1, &done), -1);
    EXPECT_EQ(fs.read(open, rest, 0, &done), -1);
    EXPECT_EQ(bench_.log.count("invalid Buffer\n"), 2);
    EXPECT_EQ(fs.write(open, nullptr, 1, &done), -1);
    bench_.log.expect({"invalid buffer\n"});
}

TEST_F(Eefs, CutsARewriteAtTheFilesRoom) {
    start();
    put("f", pattern(10, 1));  // room for 28
    put("next", pattern(10, 2));
    const int open = fs.open("f");
    bench_.set_words(120 + 12, {1});  // an old time
    EXPECT_EQ(write(open, pattern(100, 3)), 28u);
    EXPECT_EQ(write(open, {'x'}), 0u);
    EXPECT_EQ(fs.close(open), 0);
    EXPECT_EQ(get("f"), slice(pattern(100, 3), 0, 28));
    EXPECT_EQ(get("next"), pattern(10, 2));
    EXPECT_GT(word(120 + 12), 1u) << "the time is now";

    const Bytes before = bytes(0, kCapacity);
    EXPECT_EQ(fs.close(fs.open("f")), 0);
    EXPECT_EQ(bytes(0, kCapacity), before) << "nothing changed, nothing written";
}

TEST_F(Eefs, UsesTheChipToItsLastByte) {
    start();
    put("big", pattern(kCapacity - 120 - 56 - 16 - 57, 1));
    const int open = fs.open("last");
    EXPECT_EQ(write(open, {'x', 'y'}), 1u);
    EXPECT_EQ(fs.close(open), 0);
    EXPECT_EQ(fs.free_bytes(), 0u);
    EXPECT_EQ(bytes(kCapacity - 1, 1), Bytes(1, 'x'));
    EXPECT_EQ(fs.open("more"), -1);
    bench_.log.expect({"[libqel-EEFS] no space left.\n"});
    restart();
    EXPECT_EQ(get("last"), Bytes(1, 'x'));
}

TEST_F(Eefs, LosesTheFileSystemToANinthFile) {
    start();
    for (char name[] = "1"; name[0] <= '8'; ++name[0]) put(name, pattern(4, name[0]));
    put("9", pattern(4, 9));
    EXPECT_EQ(word(20), 9u);
    EXPECT_EQ(words(120, 3), (Words{0, 120 + 8 * (56 + 20), 20})) << "its entry lies over the first header";
    EXPECT_EQ(get("9"), pattern(4, 9));
    EXPECT_EQ(fs.open("10"), -1) << "a tenth has no place in memory";
    restart();
    EXPECT_EQ(count(), 0u) << "such a head counts as none";
}

TEST_F(Eefs, ClearsAllFiles) {
    start();
    put("a", pattern(10, 1));
    const int open = fs.open("b");
    EXPECT_EQ(fs.clear(), 0);
    EXPECT_EQ(count(), 0u);
    EXPECT_EQ(fs.close(open), -1) << "the open file is gone with the others";
    put("c", pattern(5, 3));
    EXPECT_EQ(get("c"), pattern(5, 3));
}

TEST_F(Eefs, OverwritesTheWholeChipWithZeros) {
    start();
    put("a", pattern(10, 1));
    Printed printed;
    EXPECT_EQ(fs.erase(), 0);
    const std::string shown = printed.take();
    EXPECT_EQ(bytes(0, kCapacity), Bytes(kCapacity, 0));
    EXPECT_EQ(shown.substr(0, 36), "\rWrote address 0x00000000 (0.00%) \rW");
    EXPECT_TRUE(shown.ends_with("\rWrote address 0x00000800 (99.95%) "));
    restart();
    EXPECT_EQ(count(), 0u);
}

TEST_F(Eefs, TakesTheHeadFromItsSecondPlace) {
    start();
    put("a", pattern(10, 1));
    const Bytes image = bytes(0, 400);
    bench_.put_bytes(bench_.node(0), 0, Bytes(128, 0xFF));
    bench_.put_bytes(bench_.node(0), 128, image);
    restart();
    EXPECT_EQ(get("a"), pattern(10, 1));
    put("b", pattern(10, 2));
    EXPECT_EQ(word(128 + 20), 2u);
    EXPECT_EQ(bytes(0, 128), Bytes(128, 0xFF));
}

TEST_F(Eefs, FormatsFurtherOnWhereTheStartDoesNotHold) {
    fault("ioctl:WRITE fail EIO at 1..2");
    start();
    EXPECT_EQ(bench_.log.count("QEC_EEPROM_IOCWR error\n"), 2) << "two attempts at address 0";
    EXPECT_EQ(word(128 + 4), kMagic);
    EXPECT_EQ(word(128 + 12), 248u) << "the address itself, not an offset";
    EXPECT_EQ(word(128 + 16), kCapacity - 248);
    put("a", pattern(10, 1));
    EXPECT_EQ(bytes(128 + 248 + 56, 10), pattern(10, 1));
    EXPECT_EQ(word(128 + 28), 248u) << "the entry's offset counts from the head";
    restart();
    EXPECT_EQ(get("a"), pattern(10, 1));
    EXPECT_EQ(fs.read_fs(nullptr, 600), -1) << "no head there";
}

TEST_F(Eefs, GivesUpOnADeadChip) {
    fault("ioctl:WRITE fail EIO");
    EefsChipAttr attributes{};
    EXPECT_EQ(fs.init(&attributes), -1);
    bench_.log.expect({"[libqel-EEFS] fs->init Failed!\n"});
    EXPECT_EQ(fs.open("a"), -1);
    bench_.board.clear_faults();
    start();
}

TEST_F(Eefs, ReportsWhatTheDeviceRefuses) {
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
TEST_F(Eefs, TriesAFailedCloseAgain) {
    for (int failing = 1; failing <= 3; ++failing) {
        bench_.board.clear_faults();
        bench_.board.poke(0, bench_.node(0), {"fill", "ff"});
        start();
        const int open = fs.open("a");
        EXPECT_EQ(write(open, pattern(5, 1)), 5u);
        fault("ioctl:WRITE fail EIO at " + std::to_string(failing));
        EXPECT_EQ(fs.close(open), -1);
        EXPECT_EQ(fs.open("b"), -1) << "the file is still open";
        EXPECT_EQ(fs.close(open), 0);
        EXPECT_EQ(words(12, 2), (Words{120 + 56 + 24, kCapacity - 120 - 56 - 24}));
        EXPECT_EQ(word(32), 24u);
        EXPECT_EQ(get("a"), pattern(5, 1));
        EXPECT_EQ(fs.exit(), 0);
    }
}

// A head that passes its checks but says what cannot be: whatever is sound stays usable, the rest is
// left alone, and nothing outside the chip is ever asked for.
TEST_F(Eefs, DoesNotFollowEntriesOutOfTheChip) {
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
        bench_.put_bytes(bench_.node(0), 0, sound);
        bench_.set_words(one.address, one.words);
        restart();
        bench_.log.expect({"does not fit the chip"});
        EXPECT_EQ(count(), one.left.size());
        for (const char *name : one.left)
            EXPECT_EQ(get(name), pattern(10, static_cast<unsigned>(name[0] - 'a' + 1)));
        const int open = fs.open("new");
        if (open >= 0) write(open, pattern(kCapacity, 4));
        for (const char *name : one.left)
            EXPECT_EQ(fs.stat(name, nullptr, nullptr), 0) << "a new file harms no other";
        EXPECT_EQ(bench_.log.count("IOCWR error") + bench_.log.count("not on the chip"), 0);
    }
}

TEST(EefsFamilies, WorkOnTheirOwnChips) {
    EepromBench bench(eeprom_board(eeprom_table(32, 1024) + eeprom_table(32, 1024)));
    EefsChipAttr attributes{};
    ASSERT_EQ(CALL(*bench.library, EEFS_LibInit)(&attributes), 0);
    ASSERT_EQ(CALL(*bench.library, EEFS_MultLibInit)(&attributes, 1), 0);
    const int single = CALL(*bench.library, EEFS_LibOpen_new)("single");
    const int second = CALL(*bench.library, EEFS_MultLibOpen)("second", 1);
    EXPECT_EQ(CALL(*bench.library, EEFS_LibClose_new)(single), 0);
    EXPECT_EQ(CALL(*bench.library, EEFS_MultLibClose_new)(second, 1), 0);
    EXPECT_EQ(CALL(*bench.library, EEFS_LibFindFile_new)("second"), EEFS_NOT_FOUND);
    EXPECT_EQ(CALL(*bench.library, EEFS_MultLibFindFile_new)("second", 1), 0);
    EXPECT_EQ(CALL(*bench.library, EEFS_MultLibOpen_new)(nullptr, 1), -1);
    bench.log.expect({"(EEFS_MultLibOpen_new|"});
}

TEST(EefsDevice, SaysWhatCannotBeOpened) {
    EepromBench bench(eeprom_board(eeprom_table(32, 1024)));
    EefsChipAttr attributes{};
    int fd = 5;
    const auto open_chip = CALL(*bench.library, Eeprom_MultopenDev);
    EXPECT_EQ(CALL(*bench.library, Eeprom_openDev)(&attributes, &fd), 0);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(open_chip(&attributes, &fd, 1), -1) << "no such chip";
    EXPECT_EQ(fd, -1);
    bench.log.expect({"/dev/qecEEPROM1"});
    EXPECT_EQ(open_chip(&attributes, &fd, 0xFFFFFFFF), -1) << "a path too long";
    EXPECT_EQ(CALL(*bench.library, EEFS_MultLibInit)(&attributes, QEL_EEPROM_CHIPS_MAX), -1);
    bench.board.add_fault("/dev/qecEEPROM ioctl:GET_ATTRIBUTES fail EIO");
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
