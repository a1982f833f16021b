// The raw EEPROM objects: files in and out, several chips, and what each operation asks of the chip.
#include <array>
#include <filesystem>
#include <map>

#include "tests/storage/eeprom_bench.h"
#include "tests/support/trace.h"

namespace qel::test {
namespace {

constexpr unsigned kPage = 32;
constexpr unsigned kCapacity = 1024;

std::string one_chip(unsigned capacity) { return eeprom_board(eeprom_table(kPage, capacity)); }

// A RawEeprom on a board with one chip.
class Box : public EepromBench {
public:
    using Files = std::map<std::string, Bytes>;
    explicit Box(const Files &stored = {}, unsigned capacity = kCapacity) : EepromBench(one_chip(capacity)) {
        EXPECT_EQ(CALL(*library, createRawEeprom)(nullptr, &object), 0) << log.all();
        for (const auto &[name, data] : stored) EXPECT_EQ(store(name, data), 0);
    }
    ~Box() {
        if (object != nullptr) object->release(object);
    }
    int store(const std::string &path, const Bytes &data) {
        const Printed quiet;
        return object->write(object, path.c_str(), data.empty() ? "" : static_cast<const void *>(data.data()),
                             static_cast<unsigned>(data.size()));
    }
    // Release and make it again: what is known afterwards is what the chip holds.
    void restart() {
        object->release(object);
        ASSERT_EQ(CALL(*library, createRawEeprom)(nullptr, &object), 0);
    }
    // Every file's content, exported to a folder of the board.
    Files files() {
        const Printed quiet;
        const std::string folder = host_path("/tmp/out");
        std::filesystem::remove_all(folder);
        std::filesystem::create_directories(folder);
        object->read(object, "/tmp/out/");
        Files all;
        for (const auto &entry : std::filesystem::directory_iterator(folder)) {
            const std::string content = file("/tmp/out/" + entry.path().filename().string());
            all[entry.path().filename()] = {content.begin(), content.end()};
        }
        return all;
    }

    RawEeprom *object = nullptr;
};

using Files = Box::Files;

TEST(RawEeprom, TellsOfItsChipAndEndsWithTheFirstRelease) {
    Box box;
    EXPECT_EQ(box.object->info->word2, 8u);
    RawEepromCaps caps{};
    EXPECT_EQ(box.object->getCaps(box.object, &caps), 0);
    EXPECT_EQ((std::array{caps.chip, caps.capacity_bytes, caps.page_bytes}),
              (std::array{7u, kCapacity, kPage}));
    EXPECT_EQ(box.object->getCaps(box.object, nullptr), -1);
    EXPECT_EQ(box.object->addRef(nullptr), -1);
    RawEeprom *second = nullptr;
    ASSERT_EQ(CALL(*box.library, createRawEeprom)(nullptr, &second), 0);
    EXPECT_EQ(second->addRef(second), 0);
    EXPECT_EQ(box.object->info->references, 3);
    EXPECT_EQ(second->release(second), 0);
    EXPECT_EQ(box.object->info->references, 0);
    EXPECT_EQ(box.store("a", {1}), -1);
    EXPECT_EQ(box.object->release(box.object), 0);
    box.object = nullptr;
    box.log.expect({"[libqel] ERROR  (Eeprom_Getcaps|", "para:pEepromInfo is NULL\n", "para:thiz is NULL\n",
                    "EEFS didnot init\n", "No more eeprom to release(ref=0)!\n"});
}

TEST(RawEeprom, StoresFilesUnderTheLastPartOfTheirPath) {
    Box box;
    EXPECT_EQ(box.store("/mnt/mtd/Config/lens.bin", pattern(100, 1)), 0);
    EXPECT_EQ(box.store("plain", pattern(33, 2)), 0);
    EXPECT_EQ(box.store("empty", {}), 0);
    EXPECT_EQ(box.store("/mnt/dir/", {1}), -1);
    box.log.expect({"[libqel] write lens.bin 100 bytes to EEPROM done.\n", "invaild file name /mnt/dir/\n"});
    EXPECT_EQ(box.object->write(box.object, nullptr, "x", 1), -1);
    EXPECT_EQ(box.object->write(box.object, "x", nullptr, 1), -1);
    EXPECT_EQ(box.log.count("param is NULL!\n"), 2);
    EXPECT_EQ(box.store(std::string(40, 'n'), {1}), -1);
    box.restart();
    EXPECT_EQ(box.files(), (Files{{"lens.bin", pattern(100, 1)}, {"plain", pattern(33, 2)}, {"empty", {}}}));
}

TEST(RawEeprom, WritesOverAFileWhereItFits) {
    Box box({{"a", pattern(50, 1)}, {"b", pattern(50, 2)}});  // room for 68
    const uint32_t place = box.word(28);
    EXPECT_EQ(box.store("a", pattern(68, 3)), 0);
    EXPECT_EQ(box.word(28), place);
    EXPECT_EQ(box.log.count("Eeprom_reloadAllFile"), 0);
    EXPECT_EQ(box.files(), (Files{{"a", pattern(68, 3)}, {"b", pattern(50, 2)}}));

    EXPECT_EQ(box.store("a", pattern(20, 4)), 0);
    const Bytes kept = box.files()["a"];
    EXPECT_EQ(slice(kept, 0, 20), pattern(20, 4));
    EXPECT_EQ(slice(kept, 20, 48), slice(pattern(68, 3), 20, 48)) << "a shorter one leaves the end";
    box.log.expect({"[libqel] fileName a Last modification 2", "a keeps its 68 bytes, the first 20 are new"});
}

TEST(RawEeprom, LaysAllFilesOutAnewForOneThatGrows) {
    Box box;
    for (const char *name : {"a", "b", "c"}) EXPECT_EQ(box.store(name, pattern(50, name[0])), 0);
    EXPECT_EQ(box.store("b", pattern(200, 9)), 0);
    box.log.expect({"[libqel] Eeprom_reloadAllFile\n"});
    box.restart();
    EXPECT_EQ(box.files(), (Files{{"a", pattern(50, 'a')}, {"b", pattern(200, 9)}, {"c", pattern(50, 'c')}}));
    char name[EEFS_NAME_BYTES];
    for (const auto &[n, expected] : {std::pair(0u, "a"), std::pair(1u, "c"), std::pair(2u, "b")}) {
        EXPECT_EQ(CALL(*box.library, EEFS_LibGetFileInfo)(n, name, nullptr), 0);
        EXPECT_STREQ(name, expected) << "the others in their order, then the new one";
    }
}

TEST(RawEeprom, TouchesNothingForAFileThatDoesNotFit) {
    Box box({{"a", pattern(400, 1)}, {"b", pattern(60, 2)}});
    const unsigned free = CALL(*box.library, EEFS_LibFreeChip)();
    const Bytes before = box.bytes(0, kCapacity);
    EXPECT_EQ(box.store("b", pattern(free + 76 + 1, 3)), -1);
    box.log.expect(
        {"cannot write freeSpace " + std::to_string(free) + ", size " + std::to_string(free + 77) + "\n"});
    EXPECT_EQ(box.store("c", pattern(free - 55, 3)), -1) << "one byte more than there is room for";
    EXPECT_EQ(box.bytes(0, kCapacity), before);
    EXPECT_EQ(box.store("b", pattern(free + 76, 3)), 0) << "to the last byte";
    EXPECT_EQ(box.files(), (Files{{"a", pattern(400, 1)}, {"b", pattern(free + 76, 3)}}));
}

// Laid out anew, a file that has used its spare room gets new spare room: the sum may no longer fit,
// though the sizes alone do.
TEST(RawEeprom, CountsTheRoomThatTheOthersWillTake) {
    Box box({}, 400);
    EXPECT_EQ(box.store("a", pattern(20, 1)), 0);  // room for 36
    EXPECT_EQ(box.store("a", pattern(36, 2)), 0);
    EXPECT_EQ(box.store("b", pattern(20, 3)), 0);
    const unsigned free = CALL(*box.library, EEFS_LibFreeChip)();
    const Bytes before = box.bytes(0, 400);
    EXPECT_EQ(box.store("b", pattern(free + 36, 4)), -1);
    EXPECT_EQ(box.bytes(0, 400), before);
    EXPECT_EQ(box.store("b", pattern(free + 36 - 16, 4)), 0);
    EXPECT_EQ(box.files(), (Files{{"a", pattern(36, 2)}, {"b", pattern(free + 20, 4)}}));
}

TEST(RawEeprom, KeepsToEightFiles) {
    Box box({}, 2048);
    for (char name = '1'; name <= '8'; ++name) EXPECT_EQ(box.store({name}, pattern(20, name)), 0);
    const Bytes before = box.bytes(0, 2048);
    EXPECT_EQ(box.store("9", {1}), -1);
    EXPECT_EQ(box.bytes(0, 2048), before);
    EXPECT_EQ(box.store("4", pattern(300, 4)), 0) << "one of the eight may still grow";
    box.restart();
    EXPECT_EQ(box.files().size(), 8u);
    EXPECT_EQ(box.files()["4"], pattern(300, 4));
}

TEST(RawEeprom, LeavesAFileAloneThatIsOpenElsewhere) {
    Box box({{"a", pattern(20, 1)}});
    const int open = CALL(*box.library, EEFS_LibOpen)("a");
    EXPECT_EQ(box.store("b", pattern(20, 2)), -1);
    EXPECT_EQ(box.store("a", pattern(200, 3)), -1) << "laying out anew would pull it away";
    EXPECT_EQ(box.object->read(box.object, "/tmp"), -1);
    box.log.expect({"[libqel] write 0 in 1 error\n"});
    EXPECT_EQ(CALL(*box.library, EEFS_LibClose)(open), 0);
    EXPECT_EQ(box.store("b", pattern(20, 2)), 0);
}

TEST(RawEeprom, ForgetsAStoreThatTheDeviceCutShort) {
    Box box({{"a", pattern(50, 1)}});
    for (int failing = 1; failing <= 7; ++failing) {
        box.board.add_fault("/dev/qecEEPROM ioctl:WRITE fail EIO at " + std::to_string(failing));
        EXPECT_EQ(box.store("b", pattern(100, 2)), -1) << failing;
        box.board.clear_faults();
        EXPECT_EQ(box.files(), (Files{{"a", pattern(50, 1)}})) << failing;
    }
    EXPECT_EQ(box.store("b", pattern(100, 2)), 0);
    EXPECT_EQ(box.files(), (Files{{"a", pattern(50, 1)}, {"b", pattern(100, 2)}}));
}

TEST(RawEeprom, LosesNoOtherFileToAReadThatFails) {
    Box box({{"a", pattern(50, 1)}, {"b", pattern(50, 2)}});
    const Bytes before = box.bytes(0, kCapacity);
    for (int failing = 1; failing <= 3; ++failing) {
        box.board.add_fault("/dev/qecEEPROM ioctl:READ fail EIO at " + std::to_string(failing));
        EXPECT_EQ(box.store("a", pattern(200, 3)), -1) << failing;
        box.board.clear_faults();
        EXPECT_EQ(box.bytes(0, kCapacity), before) << failing;
    }
    box.log.expect({"[libqel] EEFS_LibRead 50, actually 0\n"});
}

TEST(RawEeprom, KeepsNoMoreOfAFileThanItsRoom) {
    Box box({{"a", pattern(50, 1)}, {"b", pattern(50, 2)}});  // room for 68
    box.set_words(120 + 8, {600});                            // a length that reaches into the next file
    const Bytes room = box.bytes(176, 68);
    EXPECT_EQ(box.files()["a"], room);
    EXPECT_EQ(box.store("b", pattern(100, 3)), 0);
    box.log.expect({"[libqel] EEFS_LibRead 600, actually 68\n"});
    EXPECT_EQ(box.files(), (Files{{"a", room}, {"b", pattern(100, 3)}}));
}

TEST(RawEeprom, ExportsOnlyIntoTheDirectory) {
    Box box;
    EXPECT_EQ(box.object->read(box.object, "/tmp"), -1);
    EXPECT_EQ(box.store("a", pattern(300, 1)), 0);
    const auto read_one = CALL(*box.library, QEL_RawEepromRdById);
    EXPECT_EQ(read_one(nullptr, 0, "/no/such/folder"), -1);
    EXPECT_EQ(read_one(nullptr, 0, "/tmp"), 0);
    EXPECT_EQ(read_one(nullptr, 1, "/tmp"), -1);
    EXPECT_EQ(read_one(nullptr, 0, nullptr), -1);
    box.log.expect({"Fail to GetFileCount or Eeprom FileCount = 0\n", "Can NOT open /no/such/folder/a!\n",
                    "open file error\n", "[libqel] FileOpen /tmp/a\n",
                    "[libqel] copy 300 bytes to /tmp/a from EEPROM done.\n"});

    const auto open = CALL(*box.library, EEFS_LibOpen);
    EXPECT_EQ(CALL(*box.library, EEFS_LibClose)(open("../../evil")), 0);
    EXPECT_EQ(read_one(nullptr, 1, "/tmp/out"), -1);
    EXPECT_FALSE(std::filesystem::exists(box.host_path("/evil")));
    EXPECT_EQ(open("a"), 0) << "nothing was left open";
}

TEST(RawEeprom, ErasesAndDumps) {
    Box box({{"a", pattern(30, 1)}});
    EXPECT_EQ(box.object->dump(box.object), 0);
    box.board.add_fault("/dev/qecEEPROM ioctl:WRITE fail EIO at 3");
    EXPECT_EQ(box.object->eraseChip(box.object), -1);
    box.log.expect({"30 bytes, room for 48", "Fail to erase eepromChip!\n"});
    EXPECT_EQ(box.object->eraseChip(box.object), 0);
    EXPECT_EQ(box.bytes(0, kCapacity), Bytes(kCapacity, 0));
}

// ---- several chips ----

TEST(RawMultEeprom, KeepsItsChipsApart) {
    const Printed quiet;
    EepromBench bench(eeprom_board(eeprom_table(32, 1024) + eeprom_table(64, 2048)));
    RawMultEeprom *object = nullptr;
    ASSERT_EQ(CALL(*bench.library, createRawMultEeprom)(nullptr, &object), 0);
    EXPECT_EQ(object->info[1].capacity_bytes, 2048u);
    RawEepromCaps caps{};
    EXPECT_EQ(object->getCaps(object, &caps, 1), 0);
    EXPECT_EQ(caps.page_bytes, 64u);
    EXPECT_EQ(object->getCaps(object, &caps, 2), -1);
    EXPECT_EQ(object->addRef(object), 0);
    EXPECT_EQ(object->info[1].references, 2);

    EXPECT_EQ(object->write(object, "/x/one", "1", 1, 0), 0);
    EXPECT_EQ(object->write(object, "/x/two", "22", 2, 1), 0);
    EXPECT_EQ(object->write(object, "/x/three", "3", 1, 2), -1);
    EXPECT_EQ(bench.bytes(176, 1, 0), Bytes(1, '1'));
    EXPECT_EQ(bench.bytes(176, 2, 1), Bytes(2, '2'));
    EXPECT_EQ(object->read(object, "/tmp", 1), 0);
    EXPECT_EQ(bench.file("/tmp/two"), "22");
    EXPECT_EQ(bench.file("/tmp/one"), "");
    EXPECT_EQ(CALL(*bench.library, QEL_MultRawEepromRdById)(nullptr, 0, "/tmp", 0), 0);
    EXPECT_EQ(bench.file("/tmp/one"), "1");
    EXPECT_EQ(object->dump(object, 1), 0);
    EXPECT_EQ(object->eraseChip(object, 1), 0);
    EXPECT_EQ(bench.bytes(176, 1, 0), Bytes(1, '1'));
    EXPECT_EQ(bench.bytes(0, 2048, 1), Bytes(2048, 0));
    EXPECT_EQ(object->release(object), 0);
}

TEST(RawMultEeprom, IsNotMadeWhereTheNumberOfChipsIsNotKnown) {
    for (const auto &[tables, misc] :
         {std::pair(eeprom_table(32, 1024), "counts_eeproms = false"), std::pair(std::string(), "")}) {
        EepromBench bench(eeprom_board(tables, misc));
        auto *object = reinterpret_cast<RawMultEeprom *>(1);
        EXPECT_EQ(CALL(*bench.library, createRawMultEeprom)(nullptr, &object), -1);
        EXPECT_EQ(object, nullptr);
        bench.log.expect(
            {"[libqel] ERROR  (getEepromInfo|", "get EEPROM NUM failed\n", "Fail to get EEPROM number\n"});
        if (!tables.empty()) continue;
        auto *single = reinterpret_cast<RawEeprom *>(1);
        EXPECT_EQ(CALL(*bench.library, createRawEeprom)(nullptr, &single), -1);
        EXPECT_EQ(single, nullptr);
    }
}

TEST(RawMultEeprom, InitialisesAllChipsOrNone) {
    EepromBench bench(eeprom_board(eeprom_table(32, 1024) + eeprom_table(32, 1024)));
    bench.board.add_fault("/dev/qecEEPROM1 open fail EIO");
    RawMultEeprom *object = nullptr;
    EXPECT_EQ(CALL(*bench.library, createRawMultEeprom)(nullptr, &object), -1);
    EXPECT_EQ(CALL(*bench.library, EEFS_MultLibExit)(0), -1) << "chip 0 was taken back";
    EefsChipAttr attributes{};
    EXPECT_EQ(CALL(*bench.library, EEFS_MultLibInit)(&attributes, 0), 0);
    EXPECT_EQ(CALL(*bench.library, createRawMultEeprom)(nullptr, &object), -1);
    EXPECT_EQ(CALL(*bench.library, EEFS_MultLibExit)(0), 0) << "another's chip 0 was left alone";
}

// ---- what an operation asks of the chip ----

// Bytes that an operation read from the chip and wrote to it.
using Traffic = std::pair<size_t, size_t>;

template <typename Operation>
Traffic traffic_of(Box &box, Operation operation) {
    Trace trace(box.board);
    operation();
    Traffic traffic;
    for (const auto &entry : trace.take("/dev/qecEEPROM")) {
        const std::string request = entry.value("request", "");
        if (request != "READ" && request != "WRITE") continue;
        const std::string length = entry["data"].get<std::string>().substr(8, 8);  // little-endian
        (request == "READ" ? traffic.first : traffic.second) +=
            __builtin_bswap32(static_cast<uint32_t>(std::stoul(length, nullptr, 16)));
    }
    return traffic;
}

// What the format makes necessary, byte for byte: nothing is read twice.
TEST(RawEeprom, ReadsAndWritesNoMoreThanTheFormatAsks) {
    Box box;
    const size_t head = kHead, header = kHeader;
    const size_t entry = 12 + 24, commit = header + entry;  // entry and start of the head
    EXPECT_EQ(traffic_of(box, [&] { box.store("a", pattern(100, 1)); }),
              (Traffic{entry, header + 100 + commit}));
    box.store("b", pattern(100, 2));
    box.store("c", pattern(100, 3));
    EXPECT_EQ(traffic_of(box, [&] { box.store("b", pattern(110, 4)); }), (Traffic{2 * header, 110 + header}))
        << "in place: the headers up to its own";
    // Laid out anew: headers, the others' data, and the new head, which is read back.
    EXPECT_EQ(traffic_of(box, [&] { box.store("b", pattern(200, 5)); }),
              (Traffic{3 * header + 200 + head, 2 * head + 3 * (header + commit) + 400}));
    EXPECT_EQ(traffic_of(box, [&] { box.files(); }), (Traffic{3 * header + 400, 0}));
}

}  // namespace
}  // namespace qel::test
