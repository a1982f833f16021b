// What the library knows of its board: hardware id, channel map, sensors. Each case describes the
// board it needs.
#include <atomic>
#include <cstring>
#include <thread>

#include "tests/support/unit.h"

namespace qel::test {
namespace {

// The parts of a board: the hardware id's own keys, its properties, other tables of the chip.
std::string described(const std::string &hwid, const std::string &properties, const std::string &more = "") {
    return "name = \"bench\"\n[[chip]]\n[chip.hwid]\nname = \"BX-200\"\n" + hwid +
           "\n[chip.hwid.properties]\n" + properties + "\n" + more + "\n";
}

struct Info {
    int chip = -1, type = -1, channel = -1, category = -1;
    bool operator==(const Info &) const = default;
};

Info info_of(const Unit &unit, unsigned channel) {
    unsigned char info[4] = {};
    if (UNIT_CALL(unit, QEL_chnMapGetInfo)(channel, info) != 0) return {};
    return {info[0], info[1], info[2], info[3]};
}

int channels_of(const Unit &unit) { return UNIT_CALL(unit, QEL_chnMapGetTotalNum)(); }

TEST(Identity, TellsWhatTheRecordHolds) {
    const Unit unit(described("master_slave_mark = 7\ninfo = \"0102ff\"\nbase_config = \"a0\"",
                              "1 = 2\n5 = 300\n19 = 1\n29 = 65535"));
    EXPECT_EQ(UNIT_CALL(unit, QEL_productGetHwidInfo)(29), 65535);
    EXPECT_EQ(UNIT_CALL(unit, QEL_productGetCfgNum)(), 1);
    const char *name = nullptr;
    EXPECT_EQ(UNIT_CALL(unit, QEL_productGetName)(&name), 0);
    EXPECT_STREQ(name, "BX-200");
    std::string type(96, 'x');
    EXPECT_EQ(UNIT_CALL(unit, QEL_productTypeGet)(type.data()), 0);
    EXPECT_EQ(type, std::string(64, 'x') + "BX-200" + std::string(26, '\0'));

    Bytes block(QEL_PRODUCT_INFO_BYTES + 1, 0xEE);
    Bytes wanted = {1, 2, 0xFF};
    wanted.resize(QEL_PRODUCT_INFO_BYTES);
    wanted.push_back(0xEE);
    EXPECT_EQ(UNIT_CALL(unit, QEL_productGetInfo)(block.data()), 0);
    EXPECT_EQ(block, wanted);
    EXPECT_EQ(UNIT_CALL(unit, QEL_productGetBaseCfg)(block.data()), 0);
    EXPECT_EQ(block[0], 0xA0);
    EXPECT_EQ(slice(block, QEL_BASE_CFG_BYTES, 1), slice(wanted, QEL_BASE_CFG_BYTES, 1));
    unsigned char mark = 0;
    EXPECT_EQ(UNIT_CALL(unit, QEL_getMasterSlaveMark)(&mark), 0);
    EXPECT_EQ(mark, 7);
}

TEST(Identity, ComparesTheProductName) {
    const Unit unit(described("", "1 = 1"));
    const auto check = UNIT_CALL(unit, QEL_checkProductType);
    const auto is_model = UNIT_CALL(unit, QEL_isModel);
    EXPECT_EQ(check("BX-200"), 0);
    for (const char *other : {"BX-20", "BX-2000", "bx-200", ""}) EXPECT_EQ(check(other), -1) << other;
    for (const char *prefix : {"", "B", "BX-200"}) EXPECT_EQ(is_model(prefix), 1) << prefix;
    for (const char *prefix : {"X", "BX-200X"}) EXPECT_EQ(is_model(prefix), 0) << prefix;
    EXPECT_EQ(is_model(nullptr), -1);
}

TEST(Identity, RefusesWhatDoesNotExist) {
    Unit unit(described("", "1 = 1\n5 = 3"));
    unit.log.clear();
    testing::internal::CaptureStderr();
    EXPECT_EQ(UNIT_CALL(unit, QEL_productGetHwidInfoByChip)(1, 5), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(unit.log.all(), "");
    testing::internal::CaptureStderr();
    EXPECT_EQ(UNIT_CALL(unit, QEL_productGetHwidInfo)(7), -1);
    const std::string told = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(told.starts_with("err: FILE -> qel_product, LINE -> ")) << told;
    EXPECT_TRUE(told.ends_with(": \nInvalid HWID Info Command\n")) << told;
    EXPECT_EQ(UNIT_CALL(unit, QEL_productGetHwidInfo)(5), 3) << "the mutex is free again";

    EXPECT_EQ(UNIT_CALL(unit, QEL_productGetInfo)(nullptr), -1);
    EXPECT_EQ(UNIT_CALL(unit, QEL_productGetName)(nullptr), -1);
    EXPECT_EQ(UNIT_CALL(unit, QEL_productGetBaseCfg)(nullptr), -1);
    EXPECT_EQ(UNIT_CALL(unit, QEL_getChipInfo)(nullptr), -1);
    EXPECT_EQ(unit.log.count("): The paramenter pProductName is NULL\n"), 2);
    unit.log.expect({"(QEL_productGetInfo|", "): The paramenter pBaseCfg is NULL\n"});
}

TEST(Identity, AChipCountThatIsNotSetIsOne) {
    const Unit unit(described("chips = 0\nchip_index = 3", "1 = 1"));
    unsigned char info[2] = {};
    EXPECT_EQ(UNIT_CALL(unit, QEL_getChipInfo)(info), 0);
    EXPECT_EQ(info[0], 1);
    EXPECT_EQ(info[1], 0);
    EXPECT_EQ(UNIT_CALL(unit, QEL_adapterGetChipNum)(), 1u);
}

TEST(Identity, AChipNumberOutsideTheUnitIsRefused) {
    const Unit unit(described("chips = 2\nchip_index = 2", "1 = 1"));
    unit.log.expect({"id err :[2] [2] !\n", "QEL_adapterPreInit execute Error"});
}

TEST(Identity, ProcessNamesAreLookedForInOrder) {
    const std::pair<const char *, int> cases[] = {
        {"VideoDaemon", 1},    {"my-vesta-2", 2}, {"vestaVideoDaemo", 2},
        {"systools-vesta", 4}, {"sh", -1},        {"Vesta", -1}};
    for (const auto &[name, id] : cases) {
        const Unit unit(described("", "1 = 1"), {}, name);
        EXPECT_EQ(UNIT_CALL(unit, QEL_adapterGetProcessID)(), id) << name;
        EXPECT_EQ(UNIT_CALL(unit, QEL_adapterGetProcessID)(), id);
        EXPECT_EQ(unit.log.count("QEL run in"), 1) << "asked once, unknown or not";
        EXPECT_EQ(unit.log.find("QEL run in").text, std::string("[libqel] QEL run in ") + name + "\r\n");
    }
}

const std::string kTwo = "sensor = [{ entry = \"0102\" }, { entry = \"0304\" }]";

const SensorDrvInfo *sensors_of(const Unit &unit) {
    void *out = nullptr;
    EXPECT_EQ(UNIT_CALL(unit, QEL_getSensorInfo)(&out), 0);
    return static_cast<const SensorDrvInfo *>(out);
}

TEST(Sensors, AreThoseOfTheDriver) {
    {
        const Unit unit(described("", "1 = 1"));
        EXPECT_EQ(UNIT_CALL(unit, QEL_getSensorDrvInfo)(), 0);
        EXPECT_EQ(sensors_of(unit)->count, 0u);
        EXPECT_EQ(sensors_of(unit)->entries, nullptr);
    }
    const Unit whole(described(kTwo, "1 = 1"));
    whole.log.expect({"[libqel] Sensor has 2 sensor(s)\n"});
    ASSERT_EQ(sensors_of(whole)->count, 2u);
    EXPECT_EQ(sensors_of(whole)->entries[0].bytes[1], 2);
    EXPECT_EQ(sensors_of(whole)->entries[1].bytes[0], 3);
}

TEST(Sensors, ThatCannotBeReadAreReadLater) {
    for (const char *fault :
         {"/dev/qecHwid ioctl:0xC0044806 fail EIO at 1", "/dev/qecHwid ioctl:0xC0044806 fail EIO at 2"}) {
        const Unit unit(described(kTwo, "1 = 1"), {fault});
        unit.log.expect({"QEL product Init OK!\n"});
        EXPECT_EQ(sensors_of(unit)->entries, nullptr) << fault;
        EXPECT_EQ(UNIT_CALL(unit, QEL_getSensorDrvInfo)(), 0) << "works again";
        EXPECT_EQ(sensors_of(unit)->count, 2u);
    }
}

constexpr const char *kProperties = "1 = 4\n5 = 261\n19 = 258";  // 0x105 and 0x102: more than a byte

TEST(ChannelMap, WithoutADriverCountsTheChannelsOfThisChip) {
    const Unit unit(described("", kProperties));
    EXPECT_EQ(channels_of(unit), 4);
    EXPECT_EQ(UNIT_CALL(unit, QEL_chnMapGetLocalNum)(), 4);
    EXPECT_EQ(info_of(unit, 3), (Info{0, 5, 3, 2}));
    EXPECT_EQ(info_of(unit, 4), Info{});
    EXPECT_TRUE(unit.log.contains("[libqel] >>logChn[3]:phyChip[0]:5, phyChn[3]:2\n"));
    // By channel the map's bytes answer, by chip the record's words.
    EXPECT_EQ(UNIT_CALL(unit, QEL_productGetHwidInfoByChn)(3, 5), 5);
    EXPECT_EQ(UNIT_CALL(unit, QEL_productGetHwidInfoByChn)(3, 19), 2);
    EXPECT_EQ(UNIT_CALL(unit, QEL_productGetHwidInfoByChn)(3, 1), 4);
    EXPECT_EQ(UNIT_CALL(unit, QEL_productGetHwidInfo)(5), 261);
}

TEST(ChannelMap, MissesAreErrors) {
    const Unit unit(described("", kProperties));
    unsigned char info[4] = {9, 9, 9, 9};
    EXPECT_EQ(UNIT_CALL(unit, QEL_getMapInfoByLogChn)(77, info), -1);
    EXPECT_EQ(info[0], 9);
    EXPECT_EQ(UNIT_CALL(unit, QEL_getMapInfoByLogChn)(0, nullptr), -1);
    EXPECT_EQ(UNIT_CALL(unit, QEL_chnMapGetInfo)(0, nullptr), -1);
    EXPECT_EQ(UNIT_CALL(unit, QEL_productGetHwidInfoByChn)(77, 5), -1);
    unit.log.expect({"[libqel] WARN  (QEL_getMapInfoByLogChn|", "): QEL_chnMapGetInfo Failed!, logChn 77\n",
                     "): QEL_chnMapGetInfo error\n"});
    EXPECT_EQ(UNIT_CALL(unit, QEL_chnMapDeinit)(), 0);
    EXPECT_EQ(channels_of(unit), -1);
    EXPECT_EQ(UNIT_CALL(unit, QEL_chnMapGetInfo)(0, info), -1);
}

constexpr const char *kMap =
    "[chip.channel_map]\n"
    "channel = [{ logical = 1, chip = 1, channel = 0, type = 16, category = 1 },\n"
    "           { logical = 0, chip = 0, channel = 1 }]\n";

TEST(ChannelMap, IsEmptyWhereThereIsNothingToMap) {
    const std::string claims = "[chip.channel_map]\ntotal = ";
    const std::tuple<std::string, std::string, std::string> cases[] = {
        {"1 = 0", "", "vesta"},
        {"1 = 1024", "", "vesta"},
        {"1 = 4", kMap, "sh"},
        {"1 = 4", claims + "0\n", "vesta"},
        {"1 = 4", claims + "1024\n", "vesta"},
    };
    for (const auto &[properties, more, as] : cases) {
        SCOPED_TRACE(properties + " " + more + as);
        const Unit unit(described("", properties, more), {}, as);
        EXPECT_EQ(channels_of(unit), 0);
        EXPECT_EQ(UNIT_CALL(unit, QEL_chnMapGetLocalNum)(), 0);
        EXPECT_EQ(info_of(unit, 0), Info{});
        EXPECT_EQ(unit.log.count(">>logChn"), 0);
    }
}

TEST(ChannelMap, TakesTheMostThatABoardMayHave) {
    const Unit unit(described("", "1 = 1023"));
    EXPECT_EQ(channels_of(unit), 1023);
    EXPECT_EQ(info_of(unit, 255).channel, 255);
    EXPECT_EQ(info_of(unit, 256), Info{}) << "the table counts channels in a byte";
}

TEST(ExtendedId, IsMissingWithoutTheBootEnvironment) {
    const std::string told =
        "get hwid pation flash info error!\nGet EnvPlatInfo  Failed Fail to init env resource!";
    Printed printed;
    const Unit unit(described("", "1 = 1"));
    unsigned char value = 0xEE;
    unsigned status = 0xEE;
    EXPECT_EQ(UNIT_CALL(unit, QEL_getHwidExInfo)(0, &value), -1);
    EXPECT_EQ(UNIT_CALL(unit, QEL_getHwidExInfo)(16, &value), -1);
    EXPECT_EQ(UNIT_CALL(unit, QEL_getHwidExInfo)(0, nullptr), -1);
    EXPECT_EQ(UNIT_CALL(unit, QEL_getFuncStatus)(&status), -1);
    EXPECT_EQ(UNIT_CALL(unit, QEL_getFuncStatus)(nullptr), -1);
    EXPECT_EQ(value, 0xEE);
    EXPECT_EQ(UNIT_CALL(unit, QEL_hwidProbe)(), -1);
    EXPECT_EQ(printed.take(), told + told) << "at load and at the probe";
    unit.log.expect({"): infoId  too large!\n", "): para:pCmdVal is NULL\n", "): pFuncParam is null!\n",
                     "): Get armboot para HWID error\n"});
}

// A look-up that never returns: in a child process, which does not wait for it.
int asserts_in(const char *function, void (*look_up)(const Library &)) {
    return run_in_child([=] {
        Unit unit(described("", "1 = 1"), {"/dev/qecHwid open fail ENODEV"});
        std::atomic<bool> returned{false};
        std::thread([&] {
            look_up(*unit.library);
            returned = true;
        }).detach();
        const std::string line = std::string("[libqel] ASSERT (") + function + "|";
        if (!unit.log.wait_for(line)) return 1;
        const LogLine told = unit.log.find(line);
        if (told.level != 0 || told.attribute != 1 || !told.text.ends_with(")\r\n")) return 2;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        end_child(returned ? 3 : 0);  // without unloading under the thread that spins
    });
}

TEST(Assertions, HoldTheThreadThatAsksAModuleThatDidNotStart) {
    const auto name = [](const Library &library) {
        const char *out = nullptr;
        CALL(library, QEL_productGetName)(&out);
    };
    const auto property = [](const Library &library) {
        const auto look_up = CALL(library, QEL_productGetHwidInfo);
        look_up(5);
    };
    const auto type = [](const Library &library) {
        const auto check = CALL(library, QEL_checkProductType);
        check(nullptr);
    };
    EXPECT_EQ(asserts_in("QEL_productGetName", name), 0);
    EXPECT_EQ(asserts_in("QEL_productGetHwidInfoByChip", property), 0);
    EXPECT_EQ(asserts_in("QEL_checkProductType", type), 0);
}

}  // namespace
}  // namespace qel::test
