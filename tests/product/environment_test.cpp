// Boot parameters on every medium: reading, setting, deleting, what flash holds afterwards and which
// device operations that took; by processes that come and go, and against other programs' blocks.
#include <cstdlib>
#include <cstring>
#include <map>
#include <sstream>

#include "tests/product/environment_media.h"
#include "tests/storage/flash_bench.h"
#include "tests/support/scratch.h"
#include "tests/support/trace.h"

namespace qel::test {
namespace {

// A board with the library, and the calls on its environment.
class Camera : public Unit {
public:
    using Unit::Unit;
    std::string get(const char *name) {
        char value[QEL_BOOT_PARAMETER_BYTES];
        return CALL(*library, getBootParameter)(name, value, sizeof value) == 0 ? value : "none";
    }
    int set(const char *name, const std::string &value) {
        return CALL(*library, setBootParameter)(name, value.c_str());
    }
    int del(const char *name) { return CALL(*library, QEL_delBootParameter)(name); }
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
    EXPECT_EQ(trace.take(GetParam().node).size(), 0u) << "a get touches no device";
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
    const int sections = static_cast<int>(medium.sections.size());
    const std::map<std::string, std::map<std::string, int>> wanted = {
        {"nand-backup",
         {{"MEMERASE", sections}, {"seek", 2 * sections}, {"write", sections}, {"read", sections}}},
        {"nor", {{"MEMERASE", 1}, {"seek", 1}, {"write", sections}}},
        {"emmc", {{"seek", 1}, {"write", sections}}}};
    Camera camera(medium.description());
    Trace trace(camera.board);
    EXPECT_EQ(camera.set("new", "1"), 0);
    std::map<std::string, int> counted;
    for (const auto &request : trace.take(medium.node)) ++counted[request.value("request", request["op"])];
    EXPECT_EQ(counted, wanted.at(medium.board));
}

TEST_P(OnMedium, WhatFlashRefusesIsTold) {
    using Told = std::map<std::string, std::string>;
    const std::string write = "Fail to write env section", seek = "Fail to lseek env section",
                      end = "Fail to write env";
    const std::pair<std::string, Told> cases[] = {
        {"write fail EIO", {{"nand-backup", write}, {"nor", write + end}, {"emmc", write + end}}},
        {"ioctl:MEMERASE fail EIO",
         {{"nand-backup", "erase hwid pation error!"}, {"nor", "Fail to erase env section" + end}}},
        {"seek fail EIO", {{"nand-backup", write}, {"nor", seek + end}, {"emmc", seek + end}}},
        {"read fail EIO", {{"nand-backup", "Fail to read env section 0,0,"}}},
        {"read flip 4000 at 1", {{"nand-backup", "Fail to check env"}}},
    };
    for (const auto &[operation, told] : cases) {
        if (!told.contains(GetParam().board)) continue;
        SCOPED_TRACE(operation);
        Camera camera(GetParam().description());
        camera.board.add_fault(std::string(GetParam().node) + " " + operation);
        Printed printed;
        EXPECT_EQ(camera.set("new", "1"), -1);
        const std::string text = printed.take();
        EXPECT_NE(text.find("Note!! don't power off\n" + told.at(GetParam().board)), std::string::npos)
            << text;
        EXPECT_TRUE(text.ends_with("Fail to save env")) << text;
        EXPECT_EQ(camera.get("new"), "1") << "the processes see it all the same";
        camera.board.clear_faults();
        EXPECT_EQ(camera.set("new", "2"), 0);
        EXPECT_TRUE(has_right_crc(block_in_flash(GetParam())));
    }
}

TEST_P(OnMedium, WhatCannotBeReadIsNoEnvironment) {
    const bool nand = std::string(GetParam().board) == "nand-backup";
    const std::pair<const char *, const char *> cases[] = {
        {"read fail EIO", nand ? "Fail to read env section 0,0," : "Fail to read env section: 0, fd = "},
        {"seek fail EIO", "Fail to lseek env section"},
    };
    for (const auto &[operation, told] : cases) {
        SCOPED_TRACE(operation);
        Printed printed;
        Camera camera(GetParam().description(), {std::string(GetParam().node) + " " + operation});
        const std::string text = printed.take();
        EXPECT_TRUE(text.starts_with(told)) << text;
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
    char value[300] = "~";
    Printed printed;
    for (const int size : {5, 0, INT32_MIN}) EXPECT_EQ(get("short", value, size), -1) << size;
    EXPECT_EQ(value[0], '~');
    EXPECT_EQ(get("short", value, 6), 0);
    EXPECT_STREQ(value, "12345");
    EXPECT_EQ(get("long", value, 255), 0);
    EXPECT_EQ(get("longer", value, 300), -1) << "more than 255 count as 255";
    EXPECT_EQ(camera.get("none"), "none");
    const std::string text = printed.take();
    EXPECT_TRUE(text.starts_with("pName short\nRecieve buffer is too smallFail to get env short!\n")) << text;
    EXPECT_TRUE(text.ends_with("Fail to get env none!\n")) << text;
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
        camera.log.expect({"[libqel] ERROR  (ENV_setVal|", "): nonsupport set ethaddr!!!\n"});
    }
    EXPECT_EQ(camera.get("ethaddr"), "02:51:45:4c:00:10");
    EXPECT_EQ(camera.set("ethaddr2", "x"), 0);
    camera.put_file("/var/tmp/ethaddr", "\n");
    EXPECT_EQ(camera.set("wifiaddr", "a2-3:ff"), 0);
    EXPECT_EQ(camera.get("wifiaddr"), "a2-3:ff");
    camera.log.expect({"hardware address 2 is a2:03:ff:00:00:00\n"});
}

TEST(Environment, GoesOnWithTheKeysItHas) {
    Camera camera(board::find_board("nor"), {"/var/tmp/envfile open fail EROFS"});
    camera.log.expect({"[libqel] ERROR  (ENV_preInit|", "): ENV_fileInit fail\n"});
    EXPECT_EQ(camera.set("a", "1"), 0);
    EXPECT_EQ(camera.get("a"), "1");
}

TEST(Environment, NeedsAPartitionOfItsSize) {
    const std::pair<Part, std::string> cases[] = {
        {{"hwide"}, "get hwid pation flash info error!\n"},
        {{"hwid", "size = 0xC000\n"}, "Fail to read env partition!"},  // less than a block
    };
    for (const auto &[part, told] : cases) {
        Printed printed;
        Camera camera(flash_board("", {part}));
        EXPECT_EQ(printed.take(), told + "Get EnvPlatInfo  Failed Fail to init env resource!");
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

    const struct {
        const char *what;
        void (*change)(Message &);
        int answer, status;
    } cases[] = {
        {"good", [](Message &) {}, 0, 0},
        {"much room", [](Message &request) { request.payload.size = UINT32_MAX; }, 0, 0},
        {"missing", [](Message &request) { strcpy(request.payload.name, "none"); }, -1, -1},
        {"no end of the name", [](Message &request) { memset(request.payload.name, 'x', 32); }, -1, 77},
        {"unknown command", [](Message &request) { request.header.cmd = 2; }, -1, 77},
        {"too short", [](Message &request) { request.header.length = 303; }, -1, 77},
    };
    for (const auto &one : cases) {
        Message request{header, {}};
        one.change(request);
        EXPECT_EQ(answer(&request.header), one.answer) << one.what;
        EXPECT_EQ(request.payload.status, one.status) << one.what;
        EXPECT_STREQ(request.payload.value, one.answer == 0 ? "3" : "") << one.what;
    }
    camera.log.expect({"): QEL_envSlaveProc execute error\n", "): xcc cmd:2 err\n"});
}

// ---- other programs ----

bool has(const char *program) {
    return std::system((std::string("command -v ") + program + " >/dev/null").c_str()) == 0;
}

TEST(OtherPrograms, MakeBlocksThatAreRead) {
    if (!has("mkenvimage")) GTEST_SKIP() << "this machine lacks mkenvimage (u-boot-tools)";
    const Medium &emmc = kMedia[4];
    const Scratch folder;
    const std::string text = folder.file("text", "hwidEx=7:8\nbootcmd=a=b; c\nempty=\n");
    for (const char *padding : {"", "-p 0x00 "}) {
        const std::string image = folder.path("image");
        ASSERT_EQ(std::system(("mkenvimage -s 0x20000 " + (padding + ("-o " + image)) + " " + text).c_str()),
                  0);
        const std::string block = read_all(image);
        ASSERT_EQ(block.size(), kBlockBytes);

        Camera camera(emmc.description());
        const int fd = ops().open(emmc.node, 2, 0);
        EXPECT_EQ(ops().write(fd, block.data(), block.size()), static_cast<ssize_t>(block.size()));
        ops().close(fd);
        camera.reload();
        EXPECT_EQ(camera.get("bootcmd"), "a=b; c");
        EXPECT_EQ(camera.get("empty"), "");
        EXPECT_EQ(camera.get("bootdelay"), "none");
        EXPECT_EQ(camera.set("more", "1"), 0);
        EXPECT_EQ(entries_of(block_in_flash(emmc)),
                  (std::vector<std::string>{"hwidEx=7:8", "bootcmd=a=b; c", "empty=", "more=1"}));
    }
}

TEST(OtherPrograms, ReadWhatWasSet) {
    if (!has("fw_printenv")) GTEST_SKIP() << "this machine lacks fw_printenv (libubootenv-tool)";
    for (const Medium &medium : kMedia) {
        if (medium.bytes != kBlockBytes) continue;
        Camera camera(medium.description());
        ASSERT_EQ(camera.set("bootcmd", "run a; run b=c"), 0);
        ASSERT_EQ(camera.del("serverip"), 0);
        const Octets block = block_in_flash(medium);
        const Scratch folder;
        const std::string image = folder.file("image", {block.begin(), block.end()});
        const std::string config = folder.file("config", image + " 0x0 0x20000\n");
        ASSERT_EQ(std::system(("fw_printenv -c " + config + " >" + folder.path("out")).c_str()), 0);
        std::istringstream lines(read_all(folder.path("out")));
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
