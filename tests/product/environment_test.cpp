// Boot parameters on every medium: reading, setting, deleting, what flash holds afterwards and which
// device operations that took; by processes that come and go, and against other programs' blocks.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "board/core/chip.h"
#include "qel/qel.h"
#include "tests/product/environment_media.h"
#include "tests/storage/flash_bench.h"
#include "tests/support/library.h"

namespace qel::test {
namespace {

// A board with this process on it and the library loaded.
class Camera {
public:
    explicit Camera(const std::string &description, const std::vector<std::string> &faults = {})
        : board(description) {
        board.enter({.chip = 0, .as = "vesta"});
        for (const std::string &fault : faults) board.add_fault(fault);
        library.emplace();
    }
    ~Camera() {
        library.reset();
        EXPECT_EQ(board.take_misuses(), std::vector<std::string>{});
        board.leave();
    }
    void reload() {
        library.reset();
        library.emplace();
    }
    std::string get(const char *name) {
        char value[QEL_BOOT_PARAMETER_BYTES];
        return CALL(*library, getBootParameter)(name, value, sizeof value) == 0 ? value : "none";
    }
    int set(const char *name, const std::string &value) {
        return CALL(*library, setBootParameter)(name, value.c_str());
    }
    int del(const char *name) { return CALL(*library, QEL_delBootParameter)(name); }

    board::Board board;
    Log log;
    std::optional<Library> library;
};

// What is printed while it lives.
class Printed {
public:
    Printed() { testing::internal::CaptureStdout(); }
    ~Printed() {
        if (!taken_) testing::internal::GetCapturedStdout();
    }
    std::string take() {
        taken_ = true;
        return testing::internal::GetCapturedStdout();
    }

private:
    bool taken_ = false;
};

// The requests to one node, in short: "seek 0", "write 65536", "MEMERASE".
class Trace {
public:
    explicit Trace(board::Board &board) : board_(board), file_(tmpfile()) { board_.trace_to(file_); }
    ~Trace() {
        board_.trace_to(nullptr);
        fclose(file_);
    }
    std::vector<std::string> take(const std::string &node) {
        board_.trace_to(nullptr);
        std::vector<std::string> requests;
        rewind(file_);
        char line[1024];
        while (fgets(line, sizeof line, file_) != nullptr) {
            const std::string text = line;
            if (member(text, "node") != node) continue;
            const std::string op = member(text, "op");
            requests.push_back(op == "ioctl"   ? member(text, "request")
                               : op == "write" ? "write " + member(text, "in")
                               : op == "read"  ? "read " + member(text, "out")
                                               : op + " " + member(text, "result"));
        }
        return requests;
    }

private:
    static std::string member(const std::string &line, const std::string &name) {
        const size_t at = line.find("\"" + name + "\":");
        if (at == std::string::npos) return "";
        const std::string rest = line.substr(at + name.size() + 3);
        return rest[0] == '"' ? rest.substr(1, rest.find('"', 1) - 1)
                              : rest.substr(0, rest.find_first_of(",}"));
    }
    board::Board &board_;
    FILE *file_;
};

class OnMedium : public ::testing::TestWithParam<Medium> {};
INSTANTIATE_TEST_SUITE_P(Environment, OnMedium, ::testing::ValuesIn(kMedia),
                         [](const auto &info) { return std::string(info.param.name); });

TEST_P(OnMedium, TheBoardsParametersAreThereAtLoad) {
    Printed printed;
    Camera camera(GetParam().description());
    EXPECT_EQ(printed.take(), "");
    EXPECT_EQ(camera.get("bootdelay"), "3");
    unsigned char value = 0;
    EXPECT_EQ(CALL(*camera.library, QEL_getHwidExInfo)(7, &value), 0);
    EXPECT_EQ(value, 5);
    EXPECT_EQ(CALL(*camera.library, QEL_hwidProbe)(), 0);
    Trace trace(camera.board);
    EXPECT_EQ(camera.get("netmask"), "255.255.255.0");
    EXPECT_EQ(camera.get("none"), "none");
    EXPECT_EQ(trace.take(GetParam().node), std::vector<std::string>{}) << "a get touches no device";
}

TEST_P(OnMedium, WhatIsSetOrDeletedIsInFlash) {
    Camera camera(GetParam().description());
    std::vector<std::string> wanted = entries_of(block_in_flash(GetParam()));
    const auto expect_in_flash = [&] {
        const Octets block = block_in_flash(GetParam());
        EXPECT_TRUE(has_right_crc(block));
        EXPECT_EQ(entries_of(block), wanted);
    };
    Printed printed;
    EXPECT_EQ(camera.set("new", "1"), 0);
    EXPECT_EQ(printed.take(), "Save environment to flash ,Please wait ..\nNote!! don't power off\nSave Ok\n");
    wanted.push_back("new=1");
    expect_in_flash();
    EXPECT_EQ(camera.set("bootdelay", ""), 0);
    std::erase(wanted, "bootdelay=3");
    wanted.push_back("bootdelay=");
    EXPECT_EQ(camera.del("new"), 0);
    std::erase(wanted, "new=1");
    expect_in_flash();
    EXPECT_EQ(camera.del("none"), 0);
    expect_in_flash();
    camera.reload();
    EXPECT_EQ(camera.get("bootdelay"), "");
    EXPECT_EQ(camera.get("new"), "none");
}

TEST_P(OnMedium, ASetCostsJustTheseOperations) {
    const Medium &medium = GetParam();
    Camera camera(medium.description());
    const std::string bytes = std::to_string(medium.section_bytes());
    const bool nand = std::string(medium.board) == "nand-backup";
    std::vector<std::string> wanted;
    if (nand) {
        for (const uint64_t at : medium.sections) {
            wanted.insert(wanted.end(), {"MEMERASE", "seek " + std::to_string(at), "write " + bytes});
        }
        for (const uint64_t at : medium.sections) {
            wanted.insert(wanted.end(), {"seek " + std::to_string(at), "read " + bytes});
        }
    } else {
        if (std::string(medium.board) == "nor") wanted.emplace_back("MEMERASE");
        wanted.emplace_back("seek 0");
        wanted.insert(wanted.end(), medium.sections.size(), "write " + bytes);
    }
    Trace trace(camera.board);
    EXPECT_EQ(camera.set("new", "1"), 0);
    EXPECT_EQ(trace.take(medium.node), wanted);
}

TEST_P(OnMedium, WhatFlashRefusesIsTold) {
    struct Case {
        std::string operation;
        std::string nand, nor, emmc;  // empty: not for this medium
    };
    const Case cases[] = {
        {"write fail EIO", "Fail to write env section", "Fail to write env sectionFail to write env",
         "Fail to write env sectionFail to write env"},
        {"ioctl:MEMERASE fail EIO", "erase hwid pation error!", "Fail to erase env sectionFail to write env",
         ""},
        {"seek fail EIO", "Fail to write env section", "Fail to lseek env sectionFail to write env",
         "Fail to lseek env sectionFail to write env"},
        {"read fail EIO", "Fail to read env section 0,0,", "", ""},
        {"read flip 4000 at 1", "Fail to check env", "", ""},
    };
    const std::string board = GetParam().board;
    for (const Case &c : cases) {
        const std::string &told = board == "nor" ? c.nor : board == "emmc" ? c.emmc : c.nand;
        if (told.empty()) continue;
        SCOPED_TRACE(c.operation);
        Camera camera(GetParam().description());
        camera.board.add_fault(std::string(GetParam().node) + " " + c.operation);
        Printed printed;
        EXPECT_EQ(camera.set("new", "1"), -1);
        const std::string text = printed.take();
        EXPECT_NE(text.find("Note!! don't power off\n" + told), std::string::npos) << text;
        EXPECT_TRUE(text.ends_with("Fail to save env")) << text;
        EXPECT_EQ(camera.get("new"), "1") << "the processes see it all the same";
        camera.board.clear_faults();
        EXPECT_EQ(camera.set("new", "2"), 0);
        EXPECT_TRUE(has_right_crc(block_in_flash(GetParam())));
    }
}

TEST_P(OnMedium, WhatCannotBeReadIsNoEnvironment) {
    struct Case {
        std::string operation, nand, other;
    };
    const Case cases[] = {
        {"read fail EIO", "Fail to read env section 0,0,", "Fail to read env section: 0, fd = "},
        {"seek fail EIO", "Fail to lseek env section", "Fail to lseek env section"},
    };
    const bool nand = std::string(GetParam().board) == "nand-backup";
    for (const Case &c : cases) {
        SCOPED_TRACE(c.operation);
        Printed printed;
        Camera camera(GetParam().description(), {std::string(GetParam().node) + " " + c.operation});
        const std::string text = printed.take();
        EXPECT_EQ(text.rfind(nand ? c.nand : c.other, 0), 0u) << text;
        EXPECT_TRUE(
            text.ends_with("Fail to read env partition!Get EnvPlatInfo  Failed Fail to init env resource!"))
            << text;
        EXPECT_EQ(camera.set("new", "1"), -1);
        camera.board.clear_faults();
        EXPECT_EQ(camera.get("bootdelay"), "3") << "the next call tries again";
    }
}

TEST(Environment, AValueFitsWithItsTerminator) {
    Camera camera(board::find_board("nor"));
    ASSERT_EQ(camera.set("short", "12345"), 0);
    ASSERT_EQ(camera.set("long", std::string(254, 'x')), 0);
    ASSERT_EQ(camera.set("longer", std::string(255, 'x')), 0);
    const auto get = CALL(*camera.library, get_armboot_para);
    char value[300] = "";
    EXPECT_EQ(get("short", value, 6), 0);
    EXPECT_STREQ(value, "12345");
    for (const int size : {5, 1, 0, -1, INT32_MIN}) {
        value[0] = '~';
        Printed printed;
        EXPECT_EQ(get("short", value, size), -1) << size;
        EXPECT_EQ(printed.take(), "pName short\nRecieve buffer is too smallFail to get env short!\n");
        EXPECT_EQ(value[0], '~');
    }
    EXPECT_EQ(get("long", value, 255), 0);
    EXPECT_EQ(get("long", value, 300), 0);
    EXPECT_EQ(get("longer", value, 300), -1) << "more than 255 count as 255";
    EXPECT_EQ(camera.get("shor"), "none");
    Printed printed;
    EXPECT_EQ(camera.get("none"), "none");
    EXPECT_EQ(printed.take(), "Fail to get env none!\n");
    EXPECT_EQ(get(nullptr, value, 6), -1);
    for (const char *name : {"", "a=b"}) {
        EXPECT_EQ(camera.set(name, "1"), -1);
        EXPECT_EQ(camera.del(name), -1);
    }
    EXPECT_EQ(camera.log.count("): bad argument\n"), 5);
}

TEST(Environment, WhatDoesNotFitLeavesTheSharedCopyAlone) {
    const Medium &nor = kMedia[0];
    Camera camera(nor.description());
    const Octets before = block_in_flash(nor);
    size_t used = 0;
    for (const std::string &entry : entries_of(before)) used += entry.size() + 1;
    // Name, "=", two terminators; the old value makes room for itself.
    const size_t room = kBlockBytes - 4 - used + strlen("bootdelay=3") + 1 - strlen("bootdelay") - 3;
    Printed printed;
    EXPECT_EQ(camera.set("bootdelay", std::string(room + 1, 'x')), -1);
    EXPECT_EQ(printed.take(), "environment overflow, \"bootdelay\" deleted\nset environment to flash fail");
    EXPECT_EQ(block_in_flash(nor), before);
    EXPECT_EQ(camera.get("bootdelay"), "none");
    camera.reload();
    EXPECT_EQ(camera.get("bootdelay"), "3") << "who attaches later reads flash again";
    EXPECT_EQ(camera.set("bootdelay", std::string(room, 'x')), 0);
    EXPECT_EQ(entries_of(block_in_flash(nor)).back().size(), strlen("bootdelay=") + room);
    EXPECT_TRUE(has_right_crc(block_in_flash(nor)));
}

TEST(Environment, HardwareAddressesAreGuardedAndNoted) {
    const std::string guarded = Medium{"", "nor", {{"19 = 0 ", "19 = 1 "}}, "", {}}.description();
    Camera camera(guarded);
    for (const char *name : {"ethaddr", "ethaddr1", "wifiaddr"}) {
        camera.log.clear();
        Printed printed;
        EXPECT_EQ(camera.set(name, "02:00:00:00:00:01"), -1) << name;
        EXPECT_EQ(printed.take(), "set environment to flash fail");
        EXPECT_TRUE(camera.log.contains("[libqel] ERROR  (ENV_setVal|"));
        EXPECT_TRUE(camera.log.contains("): nonsupport set ethaddr!!!\n"));
    }
    EXPECT_EQ(camera.get("ethaddr"), "02:51:45:4c:00:10");
    EXPECT_EQ(camera.set("ethaddr2", "x"), 0);
    std::string host;
    ASSERT_EQ(camera.board.chip(0).tree().resolve("/var/tmp/ethaddr", true, host), 0);
    std::ofstream(host).put('\n');
    EXPECT_EQ(camera.set("wifiaddr", "a2-3:ff"), 0);
    EXPECT_EQ(camera.get("wifiaddr"), "a2-3:ff");
    EXPECT_TRUE(camera.log.contains("hardware address 2 is a2:03:ff:00:00:00\n"));
}

TEST(Environment, GoesOnWithTheKeysItHas) {
    Camera camera(board::find_board("nor"), {"/var/tmp/envfile open fail EROFS"});
    EXPECT_TRUE(camera.log.contains("[libqel] ERROR  (ENV_preInit|"));
    EXPECT_TRUE(camera.log.contains("): ENV_fileInit fail\n"));
    EXPECT_EQ(camera.set("a", "1"), 0);
    EXPECT_EQ(camera.get("a"), "1");
}

TEST(Environment, NeedsAPartitionOfItsSize) {
    struct Case {
        const char *partition;
        std::string keys, told;
    };
    const std::string end = "Get EnvPlatInfo  Failed Fail to init env resource!";
    const Case cases[] = {
        {"hwide", "", "get hwid pation flash info error!\n"},
        {"hwid", "size = 0xC000\n", "Fail to read env partition!"},  // less than a block
    };
    for (const Case &c : cases) {
        Printed printed;
        Camera camera(flash_board("", {{c.partition, c.keys}}));
        const std::string text = printed.take();
        EXPECT_EQ(text.rfind(c.told, 0), 0u) << text;
        EXPECT_TRUE(text.ends_with(end)) << text;
        EXPECT_EQ(camera.set("a", "1"), -1);
        EXPECT_EQ(camera.del("a"), -1);
    }
}

// ---- other chips ----

TEST(Environment, AnswersARequestOfTheMaster) {
    struct Message {
        AdapterMsg header;
        struct {
            int32_t status = 77, spare = 0;
            char value[256] = "";
            char name[32] = "bootdelay";
            uint32_t size = 255, more = 0;
        } payload;
    };
    static_assert(sizeof(Message) == 336);
    const AdapterMsg header = {0, -1, 1, 0, QEL_MODULE_ENVIRONMENT, 1, 304, 0};
    Camera camera(board::find_board("nor"));
    const auto answer = CALL(*camera.library, QEL_envSlaveProc);

    Message good{header, {}};
    EXPECT_EQ(answer(&good.header), 0);
    EXPECT_EQ(good.payload.status, 0);
    EXPECT_STREQ(good.payload.value, "3");

    Message missing{header, {}};
    strcpy(missing.payload.name, "none");
    EXPECT_EQ(answer(&missing.header), -1);
    EXPECT_EQ(missing.payload.status, -1);
    EXPECT_TRUE(camera.log.contains("): QEL_envSlaveProc execute error\n"));

    Message unknown{header, {}};
    unknown.header.cmd = 2;
    EXPECT_EQ(answer(&unknown.header), -1);
    EXPECT_TRUE(camera.log.contains("): xcc cmd:2 err\n"));
    Message unterminated{header, {}};
    memset(unterminated.payload.name, 'x', sizeof unterminated.payload.name);
    EXPECT_EQ(answer(&unterminated.header), -1);
    Message brief{header, {}};
    brief.header.length = 303;
    EXPECT_EQ(answer(&brief.header), -1);
    EXPECT_EQ(brief.payload.status, 77);
    Message large{header, {}};
    large.payload.size = UINT32_MAX;
    EXPECT_EQ(answer(&large.header), 0);
}

TEST(Environment, ByChannelReadsThisChip) {
    Camera camera(board::find_board("nor"));
    const auto get = CALL(*camera.library, getBootParameterByChn);
    char value[8] = "";
    EXPECT_EQ(get(0, "bootdelay", value, sizeof value), 0);
    EXPECT_STREQ(value, "3");
    EXPECT_EQ(get(9, "bootdelay", value, sizeof value), -1);
    EXPECT_TRUE(camera.log.contains("): getBootParameterByChn get chnMapInfo failed\n"));
}

// ---- other programs ----

class Programs : public ::testing::Test {
protected:
    Programs() : folder_((std::filesystem::temp_directory_path() / "qelenv-XXXXXX").string()) {
        if (mkdtemp(folder_.data()) == nullptr) abort();
    }
    ~Programs() override { std::filesystem::remove_all(folder_); }

    std::string path(const char *name) const { return folder_ + "/" + name; }
    static bool has(const char *program) {
        return std::system((std::string("command -v ") + program + " >/dev/null").c_str()) == 0;
    }
    std::string run(const std::string &command) const {
        EXPECT_EQ(std::system(("cd " + folder_ + " && " + command + " >out").c_str()), 0) << command;
        std::ifstream in(path("out"), std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }

    std::string folder_;
};

TEST_F(Programs, ABlockOfMkenvimageIsRead) {
    if (!has("mkenvimage")) GTEST_SKIP() << "mkenvimage (u-boot-tools) is not installed";
    const Medium &emmc = kMedia[4];
    for (const char *padding : {"", "-p 0x00 "}) {
        std::ofstream(path("in")) << "hwidEx=7:8\nbootcmd=a=b; c\nempty=\n";
        run("mkenvimage -s 0x20000 " + std::string(padding) + "-o image in");
        std::ifstream image(path("image"), std::ios::binary);
        const Octets block{std::istreambuf_iterator<char>(image), {}};
        ASSERT_EQ(block.size(), kBlockBytes);
        EXPECT_TRUE(has_right_crc(block));

        Camera camera(emmc.description());
        const int fd = ops().open(emmc.node, 2, 0);
        EXPECT_EQ(ops().write(fd, block.data(), block.size()), static_cast<ssize_t>(block.size()));
        ops().close(fd);
        camera.reload();
        EXPECT_EQ(camera.get("bootcmd"), "a=b; c");
        EXPECT_EQ(camera.get("empty"), "");
        unsigned char value = 0;
        EXPECT_EQ(CALL(*camera.library, QEL_getHwidExInfo)(1, &value), 0);
        EXPECT_EQ(value, 8);
        EXPECT_EQ(camera.get("bootdelay"), "none");
        EXPECT_EQ(camera.set("more", "1"), 0);
        EXPECT_EQ(entries_of(block_in_flash(emmc)),
                  (std::vector<std::string>{"hwidEx=7:8", "bootcmd=a=b; c", "empty=", "more=1"}));
    }
}

TEST_F(Programs, FwPrintenvReadsWhatWasSet) {
    if (!has("fw_printenv")) GTEST_SKIP() << "fw_printenv (libubootenv-tool) is not installed";
    for (const Medium &medium : kMedia) {
        if (medium.bytes != kBlockBytes) continue;
        Camera camera(medium.description());
        ASSERT_EQ(camera.set("bootcmd", "run a; run b=c"), 0);
        ASSERT_EQ(camera.del("serverip"), 0);
        const Octets block = block_in_flash(medium);
        std::ofstream(path("image"), std::ios::binary)
            .write(reinterpret_cast<const char *>(block.data()), static_cast<std::streamsize>(block.size()));
        std::ofstream(path("config")) << path("image") << " 0x0 0x20000\n";
        std::istringstream lines(run("fw_printenv -c config 2>&1"));
        std::vector<std::string> printed;
        for (std::string line; std::getline(lines, line);) printed.push_back(line);
        std::vector<std::string> wanted = entries_of(block);
        std::sort(printed.begin(), printed.end());
        std::sort(wanted.begin(), wanted.end());
        EXPECT_EQ(printed, wanted) << medium.name;
    }
}

}  // namespace
}  // namespace qel::test
