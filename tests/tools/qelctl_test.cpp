// qelctl on virtual boards, as a user runs it.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/tools/schema.h"

namespace qel::test {
namespace {

// The document that a command prints.
json printed(const std::string &command, const std::string &definition) {
    return document(run(command), definition);
}

constexpr int kPropertyIds[] = {1,  3,  4,  5,  6,  8,  9,  11, 12, 13, 14, 15, 16,
                                18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29};

// A unit of two chips on which no two facts are alike: property N of chip C is 1000 * (C + 1) + N.
std::string probe_board() {
    std::string text = "name = \"probe\"\n";
    for (int chip = 0; chip < 2; ++chip) {
        text += "[[chip]]\n[chip.hwid]\nname = \"PRB-" + std::to_string(chip) + "\"\n";
        text += "master_slave_mark = 7\ninfo = \"c0 ff ee\"\nbase_config = \"0d\"\n[chip.hwid.properties]\n";
        for (const int id : kPropertyIds)
            text += std::to_string(id) + " = " + std::to_string(1000 * (chip + 1) + id) + "\n";
    }
    // Low bytes of 1005, 1019, 2005 and 2019: 237, 251, 213 and 227.
    const std::string map =
        "[chip.channel_map]\nchannel = [{ logical = 4, chip = 0, channel = 6 }, "
        "{ logical = 9, chip = 1, channel = 2 }, { logical = 5, chip = 1, channel = 3 }]\n";
    const size_t second = text.find("[[chip]]", text.find("[[chip]]") + 1);
    return text.insert(second, map);
}

json properties_of_probe(int chip) {
    json list = json::array();
    for (const int id : kPropertyIds) {
        json entry;
        entry["id"] = id;
        entry["value"] = 1000 * (chip + 1) + id;
        if (id == 1) entry["name"] = "channels";
        if (id == 5) entry["name"] = "board type";
        if (id == 19) entry["name"] = "product category";
        list.push_back(entry);
    }
    return list;
}

class Probe : public testing::Test {
protected:
    std::string on_board(const std::string &command, const std::string &options = "--as vesta") const {
        return "qelboard run " + board_ + " " + options + " -- " + command;
    }

private:
    Scratch scratch_;
    std::string board_ = scratch_.file("probe.toml", probe_board());
};

TEST_F(Probe, InfoTellsEveryFactOfBothChips) {
    const json info = printed(on_board("qelctl info --json"), "info");
    json expected = json::parse(R"({
        "process": {"name": "vesta", "identity": "vesta"},
        "product": "PRB-0",
        "chip_count": 2,
        "own_chip": 0,
        "master_slave_mark": 7,
        "chips": [{"chip": 0, "answered": true}, {"chip": 1, "answered": true}],
        "channel_map": {"total": 3, "local": 1, "channels": [
            {"logical": 4, "chip": 0, "channel": 6, "board_type": 237, "category": 251},
            {"logical": 5, "chip": 1, "channel": 3, "board_type": 213, "category": 227},
            {"logical": 9, "chip": 1, "channel": 2, "board_type": 213, "category": 227}]},
        "extended_id": null})");
    for (int chip = 0; chip < 2; ++chip) expected["chips"][chip]["properties"] = properties_of_probe(chip);
    expected["information"] = "c0ffee" + std::string(82, '0');
    expected["base_configuration"] = "0d" + std::string(62, '0');
    EXPECT_EQ(info, expected) << json::diff(info, expected).dump(1);
}

TEST_F(Probe, PropertiesAreThoseOfTheChipOrChannelAskedFor) {
    const json both = printed(on_board("qelctl properties --json"), "chips");
    ASSERT_EQ(both.size(), 2U);
    EXPECT_EQ(both[0]["properties"], properties_of_probe(0));
    const json second = printed(on_board("qelctl properties --chip 1 --json"), "chips");
    ASSERT_EQ(second.size(), 1U);
    EXPECT_EQ(second[0], both[1]);

    // Of a channel, board type and category come from the map, which keeps 8 bits of them.
    json expected = properties_of_probe(1);
    for (json &entry : expected) {
        const int id = entry["id"];
        if (id == 5 || id == 19) entry["value"] = entry["value"].get<int>() & 0xFF;
    }
    const json of_channel = printed(on_board("qelctl properties --chn 5 --json"), "properties_of_channel");
    EXPECT_EQ(of_channel["logical"], 5);
    EXPECT_EQ(of_channel["properties"], expected);
}

TEST_F(Probe, TablesShowTheSameToPeople) {
    const Outcome info = run(on_board("sh -c 'qelctl info && qelctl channels'"));
    for (const char *line :
         {"chips         2, this is chip 0 (master)\n", "channels      3, 1 of them on chip 0\n",
          "extended id   none\n", " 5  board type          1005    2005\n",
          "22  property 22         1022    2022\n"})
        expect_end(info, kOk, line);
    const std::string titles = "channel  chip  channel there  board type  product category\n";
    expect_end(info, kOk, titles + "      4     0              6         237               251\n");
}

TEST_F(Probe, WithoutANameOfItsOwnItTakesNobodysPlace) {
    const json info = printed(on_board("qelctl info --json", ""), "info");
    EXPECT_EQ(info["process"], json::parse(R"({"name": "qelctl", "identity": null})"));
    EXPECT_EQ(info["chip_count"], 2);
    EXPECT_EQ(info["chips"].size(), 1U);
    EXPECT_EQ(info["channel_map"]["total"], 0);
    const Outcome text = run(on_board("qelctl channels", ""));
    EXPECT_EQ(text.out, "no channels\n");
    expect_end(text, kOk, "Use --as with one of them that is not running.");
}

TEST_F(Probe, ASlaveKnowsItsOwnChipByItsOwnNumber) {
    const json info = printed(on_board("qelctl info --json", "--chip 1"), "info");
    EXPECT_EQ(info["own_chip"], 1);
    ASSERT_EQ(info["chips"].size(), 1U);
    EXPECT_EQ(info["chips"][0]["chip"], 1);
    EXPECT_EQ(info["chips"][0]["properties"], properties_of_probe(1));
}

TEST_F(Probe, WhatGoesWrongHasItsMessageAndExitCode) {
    struct Case {
        const char *what;
        const char *board;  // options of the board
        const char *command;
        Exit code;
        const char *message;
    };
    const Case cases[] = {
        {"no hardware id device", "--as vesta --fault '/dev/qecHwid open fail ENODEV'", "info", kFailed,
         "qelctl: the library could not read the hardware id of this board (/dev/qecHwid)"},
        {"the hardware id cannot be read", "--as vesta --fault 'chip 0 /dev/qecHwid ioctl fail EIO'",
         "channels", kFailed,
         "qelctl: the library could not read the hardware id of this board (/dev/qecHwid)"},
        {"a channel map device that contradicts itself",
         "--as vesta --fault 'chip 0 /dev/qecChnMap ioctl:GET_TABLE fail EIO'", "--timeout 2 info", kNoAnswer,
         "qelctl: no answer in time while loading the library."},
        {"nobody on the other chip", "--as vesta --no-residents", "--timeout 1 info", kNoAnswer,
         "OSA_LOG=info shows how far it came; --timeout SECONDS changes the limit."},
        {"no such chip", "--as vesta", "properties --chip 2", kFailed,
         "qelctl: chip 2 is not known to this process; known: 0, 1."},
        {"no such channel", "--as vesta", "properties --chn 3", kFailed,
         "qelctl: channel 3 is not in the channel map; `qelctl channels` lists those that are."},
        {"a library without our functions", "--as vesta", "--library libc.so.6 info", kNoLibrary,
         "it is older than this qelctl."},
        {"two names at once", "--as vesta", "--as systools info", kFailed,
         "qelctl: asked to be systools, but this process was made vesta."},
        {"no room for the output", "--as vesta", "info > /dev/full", kNoOutput,
         "qelctl: cannot write the output: No space left on device."},
    };
    for (const Case &c : cases) {
        const Outcome outcome = run(on_board(std::string("sh -c 'exec qelctl ") + c.command + "'", c.board));
        EXPECT_EQ(outcome.code, c.code) << c.what << "\n" << outcome.err;
        EXPECT_TRUE(holds(outcome.err, c.message)) << c.what << "\n" << outcome.err;
        EXPECT_EQ(outcome.out, "") << c.what;
    }
}

TEST_F(Probe, AChipThatDidNotAnswerLeavesTheRestReadable) {
    const Outcome outcome = run(on_board(
        "qelctl info --json", "--as vesta --no-residents --fault 'chip 0 /dev/qecHwid open fail EIO at 1'"));
    EXPECT_TRUE(holds(outcome.err, "qelctl: chip 1 did not answer when the library started")) << outcome.err;
    const json info = document(outcome, "info", kFailed);
    EXPECT_EQ(info["chips"][0]["properties"], properties_of_probe(0));
    EXPECT_EQ(info["chips"][1], json::parse(R"({"chip": 1, "answered": false, "properties": []})"));
}

TEST(Qelctl, TakesTheNameAskedForBeforeTheLibraryLoads) {
    const json info = printed("qelboard run box -- qelctl --as systools info --json", "info");
    EXPECT_EQ(info["process"], json::parse(R"({"name": "systools", "identity": "systools"})"));
    EXPECT_EQ(info["channel_map"]["total"], 1);
}

TEST(Qelctl, KeepsTheLibrarysMessagesOutOfItsOutput) {
    const Outcome quiet = run("qelboard run box -- qelctl info --json");
    EXPECT_EQ(quiet.err, "");
    const Outcome loud = run("OSA_LOG=debug qelboard run box -- qelctl info --json");
    EXPECT_EQ(loud.out, quiet.out);
    EXPECT_TRUE(holds(loud.err, "[libqel] QEL run in qelctl")) << loud.err;
}

TEST(Qelctl, ColoursOnATerminalOnlyAndNotWhereItIsRefused) {
    const auto coloured = [](const std::string &settings) {
        // script gives its command a terminal.
        const Outcome outcome = run("export TERM=xterm; " + settings +
                                    " script -qec 'qelboard run box -- qelctl properties' /dev/null");
        EXPECT_TRUE(holds(outcome.out, "board type")) << outcome.out << outcome.err;
        return holds(outcome.out, "\033[");
    };
    EXPECT_TRUE(coloured(""));
    EXPECT_FALSE(coloured("NO_COLOR=1"));
    EXPECT_FALSE(coloured("TERM=dumb"));
    EXPECT_FALSE(holds(run("TERM=xterm qelboard run box -- qelctl properties").out, "\033["));
}

TEST(Qelctl, RefusesWrongUseBeforeItTouchesTheBoard) {
    const std::pair<const char *, const char *> cases[] = {
        {"", "qelctl: which verb?\nSee qelctl --help.\n"},
        {"nope", "qelctl: there is no verb nope.\nSee qelctl --help.\n"},
        {"info --chip 1", "See qelctl info --help.\n"},
        {"properties --chip -1", "See qelctl properties --help.\n"},
        {"properties --chip 0 --chn 0", "See qelctl properties --help.\n"},
        {"--as a-name-of-16-chr info", "a process name has 1 to 15 characters"},
        {"--as 'two words' info", "a process name is plain text without blanks"},
        {"--timeout 86401 info", "not in range"},
    };
    for (const auto &[arguments, message] : cases) {
        const Outcome outcome = run(std::string("qelctl ") + arguments);
        EXPECT_EQ(outcome.code, kUsage) << arguments;
        EXPECT_EQ(outcome.out, "") << arguments;
        EXPECT_TRUE(holds(outcome.err, message)) << arguments << "\n" << outcome.err;
    }
}

TEST(Qelctl, CompletesVerbsOptionsAndNames) {
    const std::pair<const char *, const char *> cases[] = {
        {"qelctl in", "info"},
        {"qelctl --as v", "vesta"},
        {"qelctl --as vesta ch", "channels"},
        {"qelctl properties --ch", "--chip --chn"},
        {"qelctl properties --chip ", ""},
        {"qelctl comp", ""},
        {"qelctl upgrade-state cl", "clear"},
        {"qelctl flash read --progress j", "json"},
    };
    for (const auto &[line, expected] : cases) {
        std::string words = line;
        if (words.back() == ' ') words += "\"\"";
        const Outcome outcome =
            run("bash -c '. " QEL_COMPLETION "; COMP_WORDS=(" + words +
                "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _qelctl; echo \"${COMPREPLY[*]}\"'");
        EXPECT_EQ(outcome.out, std::string(expected) + "\n") << line << outcome.err;
    }
}

TEST(Qelctl, HelpAndManualTellOfVerbsAndExitCodes) {
    const Outcome help = run("qelctl --help");
    const Outcome manual = run("qelctl manual");
    for (const char *line : {"\n  upgrade-state ", "\n  6   "}) expect_end(help, kOk, line);
    for (const char *line : {".SS \"qelctl upgrade\\-state\"\n", "\n.B 6\n"}) expect_end(manual, kOk, line);
    expect_end(run("qelctl kv --help"), kOk, "Examples:\n  qelctl ");
}

}  // namespace
}  // namespace qel::test
