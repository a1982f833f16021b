// The raw EEPROM objects: files in and out, several chips, and what each operation asks of the chip.
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>

#include <nlohmann/json.hpp>

#include "tests/storage/eeprom_bench.h"

namespace qel::test {
namespace {

constexpr unsigned kPage = 32;
constexpr unsigned kCapacity = 1024;

std::string one_chip(unsigned capacity = kCapacity) { return eeprom_board(eeprom_table(kPage, capacity)); }

// Keeps what is printed out of the test's output.
class Quiet {
public:
    Quiet() { testing::internal::CaptureStdout(); }
    ~Quiet() { testing::internal::GetCapturedStdout(); }
};

// A RawEeprom on a board with one chip.
class Box {
public:
    explicit Box(const std::string &description = one_chip(), const board::Options &options = {})
        : bench(description, options) {
        EXPECT_EQ(CALL(*bench.library, createRawEeprom)(nullptr, &object), 0) << bench.log.all();
    }
    ~Box() {
        if (object != nullptr) object->release(object);
    }
    int store(const std::string &path, const Bytes &data) {
        const Quiet quiet;
        return object->write(object, path.c_str(), data.empty() ? "" : static_cast<const void *>(data.data()),
                             static_cast<unsigned>(data.size()));
    }
    // Release and make it again: what is known afterwards is what the chip holds.
    void restart() {
        object->release(object);
        ASSERT_EQ(CALL(*bench.library, createRawEeprom)(nullptr, &object), 0);
    }
    // Every file's content, exported to a folder of the board.
    std::map<std::string, Bytes> files() {
        namespace fs = std::filesystem;
        const fs::path folder = fs::path(bench.board.welcome(0).root_dir) / "tmp/out";
        fs::remove_all(folder);
        fs::create_directories(folder);
        {
            const Quiet quiet;
            object->read(object, "/tmp/out/");
        }
        std::map<std::string, Bytes> all;
        for (const auto &entry : fs::directory_iterator(folder)) {
            std::ifstream file(entry.path(), std::ios::binary);
            all[entry.path().filename()] = Bytes(std::istreambuf_iterator<char>(file), {});
        }
        return all;
    }

    EepromBench bench;
    RawEeprom *object = nullptr;
};

using Files = std::map<std::string, Bytes>;

TEST(RawEeprom, CarriesWhatTheDriverToldOfTheChip) {
    Box box;
    EXPECT_EQ(box.object->info->references, 1);
    EXPECT_EQ(box.object->info->chip, 7u);
    EXPECT_EQ(box.object->info->word2, 8u);
    RawEepromCaps caps{};
    EXPECT_EQ(box.object->getCaps(box.object, &caps), 0);
    EXPECT_EQ(caps.chip, 7u);
    EXPECT_EQ(caps.capacity_bytes, kCapacity);
    EXPECT_EQ(caps.page_bytes, kPage);
    EXPECT_EQ(box.object->getCaps(box.object, nullptr), -1);
    EXPECT_TRUE(box.bench.log.contains("[libqel] ERROR  (Eeprom_Getcaps|"));
    EXPECT_TRUE(box.bench.log.contains("para:pEepromInfo is NULL\n"));
    EXPECT_EQ(box.object->addRef(nullptr), -1);
    EXPECT_TRUE(box.bench.log.contains("para:thiz is NULL\n"));
    EXPECT_EQ(CALL(*box.bench.library, createRawEeprom)(nullptr, nullptr), -1);
}

TEST(RawEeprom, SharesOneCountAndEndsWithTheFirstRelease) {
    Box box;
    RawEeprom *second = nullptr;
    ASSERT_EQ(CALL(*box.bench.library, createRawEeprom)(nullptr, &second), 0);
    EXPECT_EQ(second->info->references, 2);
    EXPECT_EQ(second->addRef(second), 0);
    EXPECT_EQ(second->info->references, 3);
    const RawEepromInfo *info = second->info;
    EXPECT_EQ(second->release(second), 0);
    EXPECT_EQ(info->references, 0);
    EXPECT_EQ(box.store("a", {1}), -1);
    EXPECT_TRUE(box.bench.log.contains("EEFS didnot init\n"));
    EXPECT_EQ(box.object->release(box.object), 0);
    box.object = nullptr;
    EXPECT_TRUE(box.bench.log.contains("No more eeprom to release(ref=0)!\n"));
}

TEST(RawEeprom, IsNotMadeWithoutAChip) {
    EepromBench bench(eeprom_board(""));
    auto *object = reinterpret_cast<RawEeprom *>(1);
    EXPECT_EQ(CALL(*bench.library, createRawEeprom)(nullptr, &object), -1);
    EXPECT_EQ(object, nullptr);
}

TEST(RawEeprom, StoresFilesUnderTheLastPartOfTheirPath) {
    Box box;
    EXPECT_EQ(box.store("/mnt/mtd/Config/lens.bin", pattern(100, 1)), 0);
    EXPECT_EQ(box.store("plain", pattern(33, 2)), 0);
    EXPECT_EQ(box.store("empty", {}), 0);
    EXPECT_TRUE(box.bench.log.contains("[libqel] write lens.bin 100 bytes to EEPROM done.\n"));
    EXPECT_EQ(box.store("/mnt/dir/", {1}), -1);
    EXPECT_TRUE(box.bench.log.contains("invaild file name /mnt/dir/\n"));
    EXPECT_EQ(box.object->write(box.object, nullptr, "x", 1), -1);
    EXPECT_EQ(box.object->write(box.object, "x", nullptr, 1), -1);
    EXPECT_EQ(box.bench.log.count("param is NULL!\n"), 2);
    EXPECT_EQ(box.store(std::string(40, 'n'), {1}), -1);
    box.restart();
    EXPECT_EQ(box.files(), (Files{{"lens.bin", pattern(100, 1)}, {"plain", pattern(33, 2)}, {"empty", {}}}));
}

TEST(RawEeprom, ShowsItsProgress) {
    Box box;
    testing::internal::CaptureStdout();
    EXPECT_EQ(box.object->write(box.object, "f", pattern(40, 1).data(), 40), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "\rwrite address 0x00000010 (40.00%) \rwrite address 0x00000028 (100.00%) ");
    testing::internal::CaptureStdout();
    EXPECT_EQ(box.object->read(box.object, "/tmp"), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "\rRead address 0x00000028 (100.00%) ");
}

TEST(RawEeprom, WritesOverAFileWhereItFits) {
    Box box;
    EXPECT_EQ(box.store("a", pattern(50, 1)), 0);  // room for 68
    EXPECT_EQ(box.store("b", pattern(50, 2)), 0);
    const uint32_t place = box.bench.word(28);
    EXPECT_EQ(box.store("a", pattern(68, 3)), 0);
    EXPECT_EQ(box.bench.word(28), place);
    EXPECT_EQ(box.bench.log.count("Eeprom_reloadAllFile"), 0);
    EXPECT_TRUE(box.bench.log.contains("[libqel] fileName a Last modification 2"));
    EXPECT_EQ(box.files(), (Files{{"a", pattern(68, 3)}, {"b", pattern(50, 2)}}));

    EXPECT_EQ(box.store("a", pattern(20, 4)), 0);
    Bytes kept = pattern(68, 3);
    std::copy_n(pattern(20, 4).begin(), 20, kept.begin());
    EXPECT_EQ(box.files()["a"], kept) << "a shorter one leaves the end";
    EXPECT_TRUE(box.bench.log.contains("a keeps its 68 bytes, the first 20 are new"));
}

TEST(RawEeprom, LaysAllFilesOutAnewForOneThatGrows) {
    Box box;
    for (const char *name : {"a", "b", "c"}) EXPECT_EQ(box.store(name, pattern(50, name[0])), 0);
    EXPECT_EQ(box.store("b", pattern(200, 9)), 0);
    EXPECT_TRUE(box.bench.log.contains("[libqel] Eeprom_reloadAllFile\n"));
    box.restart();
    EXPECT_EQ(box.files(), (Files{{"a", pattern(50, 'a')}, {"b", pattern(200, 9)}, {"c", pattern(50, 'c')}}));
    char name[EEFS_NAME_BYTES];
    for (const auto &[n, expected] : {std::pair(0u, "a"), std::pair(1u, "c"), std::pair(2u, "b")}) {
        EXPECT_EQ(CALL(*box.bench.library, EEFS_LibGetFileInfo)(n, name, nullptr), 0);
        EXPECT_STREQ(name, expected) << "the others in their order, then the new one";
    }
}

TEST(RawEeprom, TouchesNothingForAFileThatDoesNotFit) {
    Box box;
    EXPECT_EQ(box.store("a", pattern(400, 1)), 0);
    EXPECT_EQ(box.store("b", pattern(60, 2)), 0);
    const unsigned free = CALL(*box.bench.library, EEFS_LibFreeChip)();
    const Bytes before = box.bench.bytes(0, kCapacity);
    EXPECT_EQ(box.store("b", pattern(free + 76 + 1, 3)), -1);
    EXPECT_TRUE(box.bench.log.contains("cannot write freeSpace " + std::to_string(free) + ", size " +
                                       std::to_string(free + 77) + "\n"));
    EXPECT_EQ(box.store("c", pattern(free - 55, 3)), -1) << "one byte more than there is room for";
    EXPECT_EQ(box.bench.bytes(0, kCapacity), before);
    EXPECT_EQ(box.store("b", pattern(free + 76, 3)), 0) << "to the last byte";
    EXPECT_EQ(box.files(), (Files{{"a", pattern(400, 1)}, {"b", pattern(free + 76, 3)}}));
}

// Laid out anew, a file that has used its spare room gets new spare room: the sum may no longer fit,
// though the sizes alone do.
TEST(RawEeprom, CountsTheRoomThatTheOthersWillTake) {
    Box box(one_chip(400));
    EXPECT_EQ(box.store("a", pattern(20, 1)), 0);  // room for 36
    EXPECT_EQ(box.store("a", pattern(36, 2)), 0);
    EXPECT_EQ(box.store("b", pattern(20, 3)), 0);
    const unsigned free = CALL(*box.bench.library, EEFS_LibFreeChip)();
    const Bytes before = box.bench.bytes(0, 400);
    EXPECT_EQ(box.store("b", pattern(free + 36, 4)), -1);
    EXPECT_EQ(box.bench.bytes(0, 400), before);
    EXPECT_EQ(box.store("b", pattern(free + 36 - 16, 4)), 0);
    EXPECT_EQ(box.files(), (Files{{"a", pattern(36, 2)}, {"b", pattern(free + 20, 4)}}));
}

TEST(RawEeprom, KeepsToEightFiles) {
    Box box(one_chip(2048));
    for (char name = '1'; name <= '8'; ++name) EXPECT_EQ(box.store({name}, pattern(20, name)), 0);
    const Bytes before = box.bench.bytes(0, 2048);
    EXPECT_EQ(box.store("9", {1}), -1);
    EXPECT_EQ(box.bench.bytes(0, 2048), before);
    EXPECT_EQ(box.store("4", pattern(300, 4)), 0) << "one of the eight may still grow";
    box.restart();
    EXPECT_EQ(box.files().size(), 8u);
    EXPECT_EQ(box.files()["4"], pattern(300, 4));
}

TEST(RawEeprom, LeavesAFileAloneThatIsOpenElsewhere) {
    Box box;
    EXPECT_EQ(box.store("a", pattern(20, 1)), 0);
    const int open = CALL(*box.bench.library, EEFS_LibOpen)("a");
    EXPECT_EQ(box.store("b", pattern(20, 2)), -1);
    EXPECT_EQ(box.store("a", pattern(200, 3)), -1) << "laying out anew would pull it away";
    EXPECT_EQ(box.object->read(box.object, "/tmp"), -1);
    EXPECT_TRUE(box.bench.log.contains("[libqel] write 0 in 1 error\n"));
    EXPECT_EQ(CALL(*box.bench.library, EEFS_LibClose)(open), 0);
    EXPECT_EQ(box.store("b", pattern(20, 2)), 0);
}

TEST(RawEeprom, ForgetsAStoreThatTheDeviceCutShort) {
    Box box;
    EXPECT_EQ(box.store("a", pattern(50, 1)), 0);
    for (int failing = 1; failing <= 7; ++failing) {
        box.bench.board.add_fault("/dev/qecEEPROM ioctl:WRITE fail EIO at " + std::to_string(failing));
        EXPECT_EQ(box.store("b", pattern(100, 2)), -1) << failing;
        box.bench.board.clear_faults();
        EXPECT_EQ(box.files(), (Files{{"a", pattern(50, 1)}})) << failing;
    }
    EXPECT_EQ(box.store("b", pattern(100, 2)), 0);
    EXPECT_EQ(box.files(), (Files{{"a", pattern(50, 1)}, {"b", pattern(100, 2)}}));
}

TEST(RawEeprom, LosesNoOtherFileToAReadThatFails) {
    Box box;
    EXPECT_EQ(box.store("a", pattern(50, 1)), 0);
    EXPECT_EQ(box.store("b", pattern(50, 2)), 0);
    const Bytes before = box.bench.bytes(0, kCapacity);
    for (int failing = 1; failing <= 3; ++failing) {
        box.bench.board.add_fault("/dev/qecEEPROM ioctl:READ fail EIO at " + std::to_string(failing));
        EXPECT_EQ(box.store("a", pattern(200, 3)), -1) << failing;
        box.bench.board.clear_faults();
        EXPECT_EQ(box.bench.bytes(0, kCapacity), before) << failing;
    }
    EXPECT_TRUE(box.bench.log.contains("[libqel] EEFS_LibRead 50, actually 0\n"));
}

TEST(RawEeprom, KeepsNoMoreOfAFileThanItsRoom) {
    Box box;
    EXPECT_EQ(box.store("a", pattern(50, 1)), 0);  // room for 68
    EXPECT_EQ(box.store("b", pattern(50, 2)), 0);
    box.bench.set_words(120 + 8, {600});  // a length that reaches into the next file
    const Bytes room = box.bench.bytes(176, 68);
    EXPECT_EQ(box.files()["a"], room);
    EXPECT_EQ(box.store("b", pattern(100, 3)), 0);
    EXPECT_TRUE(box.bench.log.contains("[libqel] EEFS_LibRead 600, actually 68\n"));
    EXPECT_EQ(box.files(), (Files{{"a", room}, {"b", pattern(100, 3)}}));
}

TEST(RawEeprom, ExportsOnlyIntoTheDirectory) {
    Box box;
    EXPECT_EQ(box.object->read(box.object, "/tmp"), -1);
    EXPECT_TRUE(box.bench.log.contains("Fail to GetFileCount or Eeprom FileCount = 0\n"));
    EXPECT_EQ(box.store("a", pattern(300, 1)), 0);
    EXPECT_EQ(CALL(*box.bench.library, QEL_RawEepromRdById)(nullptr, 0, "/no/such/folder"), -1);
    EXPECT_TRUE(box.bench.log.contains("Can NOT open /no/such/folder/a!\n"));
    EXPECT_TRUE(box.bench.log.contains("open file error\n"));
    EXPECT_EQ(CALL(*box.bench.library, QEL_RawEepromRdById)(nullptr, 0, "/tmp"), 0);
    EXPECT_TRUE(box.bench.log.contains("[libqel] FileOpen /tmp/a\n"));
    EXPECT_TRUE(box.bench.log.contains("[libqel] copy 300 bytes to /tmp/a from EEPROM done.\n"));
    EXPECT_EQ(CALL(*box.bench.library, QEL_RawEepromRdById)(nullptr, 1, "/tmp"), -1);
    EXPECT_EQ(CALL(*box.bench.library, QEL_RawEepromRdById)(nullptr, 0, nullptr), -1);

    unsigned done = 0;
    const int open = CALL(*box.bench.library, EEFS_LibOpen)("../../evil");
    EXPECT_EQ(CALL(*box.bench.library, EEFS_LibWrite)(open, "x", 1, &done), 0);
    EXPECT_EQ(CALL(*box.bench.library, EEFS_LibClose)(open), 0);
    EXPECT_EQ(CALL(*box.bench.library, QEL_RawEepromRdById)(nullptr, 1, "/tmp/out"), -1);
    EXPECT_FALSE(std::filesystem::exists(box.bench.board.welcome(0).root_dir + "/evil"));
    EXPECT_EQ(CALL(*box.bench.library, EEFS_LibOpen)("a"), 0) << "nothing was left open";
}

TEST(RawEeprom, ErasesAndDumps) {
    Box box;
    EXPECT_EQ(box.store("a", pattern(30, 1)), 0);
    EXPECT_EQ(box.object->dump(box.object), 0);
    EXPECT_TRUE(box.bench.log.contains("30 bytes, room for 48"));
    box.bench.board.add_fault("/dev/qecEEPROM ioctl:WRITE fail EIO at 3");
    EXPECT_EQ(box.object->eraseChip(box.object), -1);
    EXPECT_TRUE(box.bench.log.contains("Fail to erase eepromChip!\n"));
    EXPECT_EQ(box.object->eraseChip(box.object), 0);
    EXPECT_EQ(box.bench.bytes(0, kCapacity), Bytes(kCapacity, 0));
}

// ---- several chips ----

TEST(RawMultEeprom, KeepsItsChipsApart) {
    const Quiet quiet;
    EepromBench bench(eeprom_board(eeprom_table(32, 1024) + eeprom_table(64, 2048)));
    unsigned chips = 0;
    EXPECT_EQ(CALL(*bench.library, getEepromInfo)(&chips), 0);
    EXPECT_EQ(chips, 2u);
    RawMultEeprom *object = nullptr;
    ASSERT_EQ(CALL(*bench.library, createRawMultEeprom)(nullptr, &object), 0);
    EXPECT_EQ(object->info[1].capacity_bytes, 2048u);
    EXPECT_EQ(object->info[1].references, 1);
    RawEepromCaps caps{};
    EXPECT_EQ(object->getCaps(object, &caps, 1), 0);
    EXPECT_EQ(caps.page_bytes, 64u);
    EXPECT_EQ(object->getCaps(object, &caps, 2), -1);
    EXPECT_EQ(object->addRef(object), 0);

    EXPECT_EQ(object->write(object, "/x/one", "1", 1, 0), 0);
    EXPECT_EQ(object->write(object, "/x/two", "22", 2, 1), 0);
    EXPECT_EQ(object->write(object, "/x/three", "3", 1, 2), -1);
    EXPECT_EQ(bench.bytes(176, 1, 0), Bytes(1, '1'));
    EXPECT_EQ(bench.bytes(176, 2, 1), Bytes(2, '2'));
    EXPECT_EQ(object->read(object, "/tmp", 1), 0);
    EXPECT_TRUE(std::filesystem::exists(bench.board.welcome(0).root_dir + "/tmp/two"));
    EXPECT_FALSE(std::filesystem::exists(bench.board.welcome(0).root_dir + "/tmp/one"));
    EXPECT_EQ(CALL(*bench.library, QEL_MultRawEepromRdById)(nullptr, 0, "/tmp", 0), 0);
    EXPECT_TRUE(std::filesystem::exists(bench.board.welcome(0).root_dir + "/tmp/one"));
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
        EXPECT_TRUE(bench.log.contains("[libqel] ERROR  (getEepromInfo|"));
        EXPECT_TRUE(bench.log.contains("get EEPROM NUM failed\n"));
        EXPECT_TRUE(bench.log.contains("Fail to get EEPROM number\n"));
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

struct Traffic {
    size_t read_bytes = 0;
    size_t written_bytes = 0;
    size_t twice_bytes = 0;  // read more than once
};

// The transfers of `operation`, from the board's trace.
template <typename Operation>
Traffic traffic_of(Box &box, Operation operation) {
    char *text = nullptr;
    size_t length = 0;
    FILE *file = open_memstream(&text, &length);
    box.bench.board.trace_to(file);
    operation();
    box.bench.board.trace_to(nullptr);
    fclose(file);
    Traffic traffic;
    std::vector<int> reads(kCapacity);
    std::istringstream lines(std::string(text, length));
    free(text);
    for (std::string line; std::getline(lines, line);) {
        const auto entry = nlohmann::json::parse(line);
        const std::string request = entry.value("request", "");
        if (request != "READ" && request != "WRITE") continue;
        const std::string data = entry["data"];
        const auto little_endian = [&](size_t at) {
            return __builtin_bswap32(static_cast<uint32_t>(std::stoul(data.substr(2 * at, 8), nullptr, 16)));
        };
        const uint32_t address = little_endian(0);
        const uint32_t bytes = little_endian(4);
        (request == "READ" ? traffic.read_bytes : traffic.written_bytes) += bytes;
        for (uint32_t i = 0; request == "READ" && i < bytes; ++i)
            traffic.twice_bytes += ++reads[address + i] > 1 ? 1 : 0;
    }
    return traffic;
}

// What the format makes necessary, byte for byte.
TEST(RawEeprom, ReadsNoByteTwiceAndWritesNoMoreThanTheFormatAsks) {
    Box box;
    const size_t commit = kHeader + 12 + 24;  // header, entry and start of the head
    Traffic traffic = traffic_of(box, [&] { box.store("a", pattern(100, 1)); });
    EXPECT_EQ(traffic.read_bytes, 12u + 24) << "a new file: entry and start of the head";
    EXPECT_EQ(traffic.written_bytes, kHeader + 100 + commit);
    EXPECT_EQ(traffic.twice_bytes, 0u);

    box.store("b", pattern(100, 2));
    box.store("c", pattern(100, 3));
    box.restart();
    traffic = traffic_of(box, [&] { CALL(*box.bench.library, EEFS_LibOpen)("b"); });
    EXPECT_EQ(traffic.read_bytes, 2 * kHeader) << "open: the headers up to its own";
    EXPECT_EQ(traffic.written_bytes, 0u);
    traffic = traffic_of(box, [&] { CALL(*box.bench.library, EEFS_LibClose)(1); });
    EXPECT_EQ(traffic.read_bytes + traffic.written_bytes, 0u);

    traffic = traffic_of(box, [&] { box.store("b", pattern(110, 4)); });
    EXPECT_EQ(traffic.read_bytes, 2 * kHeader) << "in place: as open";
    EXPECT_EQ(traffic.written_bytes, 110 + kHeader);

    traffic = traffic_of(box, [&] { box.store("b", pattern(200, 5)); });
    EXPECT_EQ(traffic.read_bytes, 3 * kHeader + 200 + kHead)
        << "laid out anew: headers, the others' data, the new head";
    EXPECT_EQ(traffic.written_bytes, size_t{2} * kHead + size_t{3} * (kHeader + commit) + 400);
    EXPECT_LE(traffic.twice_bytes, kHead) << "only the head is read back";

    traffic = traffic_of(box, [&] { box.files(); });
    EXPECT_EQ(traffic.read_bytes, 3 * kHeader + 400);
    EXPECT_EQ(traffic.twice_bytes, 0u);
}

}  // namespace
}  // namespace qel::test
