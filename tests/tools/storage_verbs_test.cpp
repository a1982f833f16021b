// The verbs of qelctl that work on storage, on virtual boards, as a user runs them.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/tools/schema.h"

namespace qel::test {
namespace {

// One board that stays from command to command, in a folder that is also the commands' own.
class Unit {
public:
    explicit Unit(const std::string &board) : board_(board) {}

    Outcome sh(const std::string &script, const std::string &options = "") const {
        const std::string file = scratch_.file("script", script);
        return run("cd " + scratch_.path() + " && qelboard run " + board_ + " --dir board --as systools " +
                   options + " -- sh " + file);
    }
    // What a command that must succeed prints.
    std::string text(const std::string &command) const {
        const Outcome outcome = sh(command);
        EXPECT_EQ(outcome.code, kOk) << command << "\n" << outcome.err;
        return outcome.out;
    }
    // The same with --json, which must keep to the schema.
    json document(const std::string &command, const std::string &definition, int code = kOk) const {
        return test::document(sh(command + " --json"), definition, code);
    }
    std::string file(const std::string &name, const std::string &content) const {
        return scratch_.file(name, content);
    }
    std::string content(const std::string &name) const { return read_all(scratch_.path() + "/" + name); }

private:
    Scratch scratch_;
    std::string board_;
};

// ---- boot environment ----

TEST(EnvVerbs, ChangeAndCheckTheBlockOnEveryMedium) {
    for (const char *board : {"nor", "nand-backup", "emmc"}) {
        SCOPED_TRACE(board);
        const Unit unit(board);
        const json before = unit.document("qelctl env check", "environment");
        EXPECT_EQ(unit.document("qelctl env set colour 'deep blue' --yes", "parameter")["value"],
                  "deep blue");
        EXPECT_EQ(unit.text("qelctl env get colour"), "deep blue\n");
        EXPECT_TRUE(holds(unit.text("qelctl env list"), "\ncolour=deep blue\n"));
        const json after = unit.document("qelctl env check", "environment");
        EXPECT_EQ(after["free_bytes"], before["free_bytes"].get<int>() - 17);
        EXPECT_EQ(after["parameters"], before["parameters"].get<int>() + 1);
        EXPECT_EQ(unit.document("qelctl env del colour --yes", "parameter")["value"], json());
        EXPECT_EQ(unit.sh("qelctl env get colour").code, kFailed);
        EXPECT_EQ(unit.document("qelctl env check", "environment"), before);
    }
}

TEST(EnvVerbs, CheckTellsADamagedBlock) {
    const Unit unit("nor");
    unit.text("qelboard poke /dev/mtd/1 write 8 00");
    const json damaged = unit.document("qelctl env check", "environment", kFailed);
    EXPECT_EQ(damaged["crc_right"], false);
    EXPECT_EQ(damaged["nameless"], json::array({"HWID", "BX-210:01:03:00:00:00"}));
    expect_end(unit.sh("qelctl env list"), kOk, "qelctl: the check sum is wrong");
}

// ---- EEPROM ----

TEST(EepromVerbs, StoreListAndCopyFiles) {
    const Unit unit("traffic");
    const std::string data = noise(300);
    unit.file("net.conf", data);
    unit.text("qelctl eeprom put net.conf --chip 2");
    unit.text("printf 12345 | qelctl eeprom put - --name serial --chip 2");
    const json list = unit.document("qelctl eeprom ls --chip 2", "eeprom");
    EXPECT_EQ(list["capacity_bytes"], 2048);
    EXPECT_EQ(list["files"][0]["name"], "net.conf");
    EXPECT_EQ(list["files"][0]["bytes"], 300);
    EXPECT_EQ(unit.text("qelctl eeprom get serial --chip 2"), "12345");
    unit.text("qelctl eeprom get net.conf --chip 2 -o copy");
    EXPECT_EQ(unit.content("copy"), data);
    EXPECT_EQ(unit.document("qelctl eeprom get serial --chip 2", "eeprom_content")["content"], "3132333435");
    EXPECT_EQ(unit.document("qelctl eeprom export /mnt/pd --chip 2", "eeprom_export")["files"].size(), 2U);
    EXPECT_EQ(unit.content("board/chip0/root/mnt/pd/net.conf"), data);
    EXPECT_TRUE(holds(unit.sh("qelctl eeprom dump --chip 2").err, "1: header"));
    EXPECT_EQ(unit.text("qelctl eeprom ls"), "no files\n\n8072 of 8192 bytes free\n") << "chip 0 is another";
}

TEST(EepromVerbs, SayWhatAStoreOverALongerFileKeeps) {
    const Unit unit("box");
    unit.text("printf longer-one | qelctl eeprom put - --name f");
    expect_end(unit.sh("printf SHORT | qelctl eeprom put - --name f"), kOk,
               "f was longer before and keeps its end: 5 new bytes, then 5 old ones.");
    EXPECT_EQ(unit.text("qelctl eeprom get f"), "SHORTr-one");
    EXPECT_EQ(unit.document("qelctl eeprom erase --yes", "eeprom_erased")["erased"], true);
    EXPECT_EQ(unit.text("qelctl eeprom ls"), "no files\n\n8072 of 8192 bytes free\n");
}

// ---- flash ----

TEST(FlashVerbs, WriteReadAndEraseOnEveryMedium) {
    const std::string image = noise(300000);
    for (const char *board : {"nor", "nand-backup", "emmc"}) {
        SCOPED_TRACE(board);
        const Unit unit(board);
        unit.file("image", image);
        EXPECT_EQ(unit.document("qelctl flash write web image --yes", "flash_change")["written_bytes"],
                  300000);
        EXPECT_EQ(unit.document("qelctl flash read web copy --bytes 300000", "flash_change")["bytes"],
                  300000);
        EXPECT_TRUE(unit.content("copy") == image);
        EXPECT_TRUE(unit.text("qelctl flash read web --offset 100 --bytes 1000") == image.substr(100, 1000));
        const json blocks = unit.document("qelctl flash blocks web", "blocks");
        const int erase_bytes = blocks["erase_bytes"];
        EXPECT_EQ(blocks["partitions"][0]["written"], (300000 + erase_bytes - 1) / erase_bytes);
        unit.document("qelctl flash erase web --yes", "flash_change");
        EXPECT_EQ(unit.document("qelctl flash blocks web", "blocks")["partitions"][0]["written"], 0);
        EXPECT_EQ(unit.document("qelctl flash info", "flash")["erase_bytes"], erase_bytes);
        EXPECT_FALSE(unit.document("qelctl flash parts", "partitions")["partitions"].empty());
    }
}

TEST(FlashVerbs, StepOverBadBlocksAndDrawThem) {
    const Unit unit("nand-backup");
    unit.file("image", noise(0x60000));
    unit.text("qelctl flash write romfs image --yes");
    const json romfs = unit.document("qelctl flash blocks romfs", "blocks")["partitions"][0];
    EXPECT_EQ(romfs["bad"], json::array({0, 17, 18, 159}));
    const std::string map = romfs["map"];
    EXPECT_EQ(map.substr(0, 20), "B###.............BB.");
    const std::string drawn = unit.text("qelctl flash blocks romfs");
    EXPECT_TRUE(holds(drawn, "romfs  160 blocks, 3 written, 153 erased, 4 bad\n  B###....")) << drawn;
}

TEST(FlashVerbs, RefuseWhatDoesNotFitBeforeAnythingIsTouched) {
    const Unit unit("nor");
    unit.file("image", noise(0x20001));
    const std::pair<const char *, const char *> cases[] = {
        {"write partition image --yes", "does not fit"},
        {"write nowhere image --yes", "there are: U-Boot, hwid, partition, Kernel"},
        {"write partition /dev/null --yes", "is empty"},
        {"read partition out --offset 131073", "131072 bytes in good blocks"},
    };
    for (const auto &[command, message] : cases) {
        SCOPED_TRACE(command);
        expect_end(unit.sh(std::string("qelctl flash ") + command), kFailed, message);
    }
    EXPECT_EQ(unit.document("qelctl flash blocks partition", "blocks")["partitions"][0]["written"], 0);
}

TEST(FlashVerbs, EndBetweenTwoBlocksWhenInterrupted) {
    const Unit unit("nand-backup");
    unit.file("image", noise(0x280000));
    const Outcome outcome = unit.sh(
        "qelctl flash write romfs image --yes --progress json 2>told & writer=$!\n"
        "until grep -q done_bytes told; do sleep 0.02; done\n"
        "kill -INT $writer; wait $writer; code=$?; cat told >&2; exit $code",
        "--fault '/dev/mtd/5 write delay 100'");
    expect_end(outcome, kInterrupted, "bytes, between two blocks.");
    const json romfs = unit.document("qelctl flash blocks romfs", "blocks")["partitions"][0];
    EXPECT_GT(romfs["written"], 0);
    EXPECT_LT(romfs["written"], 20);
    unit.text(
        "qelctl flash write romfs image --yes && qelctl flash read romfs copy --bytes 2621440 && "
        "cmp image copy");
}

TEST(FlashVerbs, ReadTheDescriptionOfAnImage) {
    const Unit unit("nand-backup");
    const std::string image = QEL_CRAMFS_IMAGES "/version1";
    const json document = unit.document("qelctl flash check-description " + image, "description");
    EXPECT_EQ(document["version"], 1);
    EXPECT_EQ(document["description"][1]["name"], "romfs");
    EXPECT_EQ(document["description"][1]["on_device"], "differs");
    EXPECT_EQ(unit.sh("qelctl flash check-description /dev/null").code, kFailed);
}

TEST(FlashVerbs, ShowProgressWhereItIsWanted) {
    const Unit unit("nor");
    unit.file("image", noise(200000));
    EXPECT_EQ(unit.sh("qelctl flash write romfs image --yes").err, "") << "nothing on a pipe";
    const std::string lines = unit.sh("qelctl flash write romfs image --yes --progress json").err;
    EXPECT_EQ(documents(lines, "progress").back()["done_bytes"], 200000);
    const Outcome terminal =
        unit.sh("TERM=xterm script -qec 'qelctl flash write romfs image --yes' /dev/null");
    EXPECT_TRUE(holds(terminal.out, "\rwriting romfs [########################################] 100 %"))
        << terminal.out;
}

// ---- upgrade state ----

TEST(UpgradeStateVerbs, ShowSetAndClear) {
    const Unit unit("nand-backup");
    const Outcome outcome = unit.sh(
        "qelctl upgrade-state set --flag 0 0 0 85 --yes --json; qelctl upgrade-state wait --yes;"
        "qelctl upgrade-state show; qelctl upgrade-state clear --yes; qelctl upgrade-state clear errors "
        "--yes; qelctl upgrade-state set --kind 2 --backup-version 4 --yes; qelctl upgrade-state show");
    for (const char *part : {"\"state_name\": \"started\"", "state           started\n",
                             "upgrades        refused: waiting for the backup\n",
                             "state           idle\nupgrades        allowed\nsystem          normal\n",
                             "upgrade         in progress, no backup bookkeeping\nbackup version  4\n"}) {
        expect_end(outcome, kOk, part);
    }
    const json after = unit.document("qelctl upgrade-state show", "upgrade_state");
    EXPECT_EQ(after["backup_version"], json()) << "what stands in /tmp goes with the power";
    EXPECT_EQ(after["flags"]["error_count"], 0);
}

TEST(UpgradeStateVerbs, SayWhereThereIsNone) {
    const Unit unit("nor");
    EXPECT_EQ(unit.document("qelctl upgrade-state show", "upgrade_state")["flags"], json());
    for (const char *command : {"clear", "wait", "set --flag 0 0 0 1"})
        expect_end(unit.sh(std::string("qelctl upgrade-state ") + command + " --yes"), kFailed,
                   "this device keeps no backup copies");
}

// ---- key-value files ----

TEST(KeyValueVerbs, SaveReadAndCheck) {
    const Unit unit("box");
    const std::string file = "/mnt/mtd/Config/lens.txt";
    unit.document("qelctl kv set " + file + " gain=5 offset=-3", "keys_saved");
    EXPECT_EQ(unit.document("qelctl kv get " + file + " offset", "key_value")["value"], "-3");
    EXPECT_EQ(unit.text("qelctl kv get " + file + " gain --checked"), "5\n");
    EXPECT_EQ(unit.document("qelctl kv check " + file, "keys_checked")["right"], true);

    unit.file("board/chip0/root" + file,
              "gain=7\n\tcrcSum=1\nzoom:\ncurve=1,-2,3\nEND\n[cfg2]\na=b c // d\n");
    EXPECT_EQ(unit.document("qelctl kv check " + file, "keys_checked", kFailed)["right"], false);
    EXPECT_EQ(unit.sh("qelctl kv get " + file + " gain --checked").code, kFailed);
    EXPECT_EQ(unit.document("qelctl kv get " + file + " curve --tag zoom --count 3", "key_value")["values"],
              json::array({1, -2, 3}));
    EXPECT_TRUE(unit.text("qelctl kv get " + file + " a --section 2").starts_with("b c"));
    expect_end(unit.sh("qelctl kv get /mnt/pd/none a"), kFailed, "cannot open /mnt/pd/none on this device.");
}

// ---- all of them ----

TEST(StorageVerbs, WantYesWhereNobodyCanBeAskedAndRefuseWrongUse) {
    const std::pair<const char *, const char *> cases[] = {
        {"env set a b", "Give --yes"},
        {"flash write a b", "Give --yes"},
        {"upgrade-state clear", "Give --yes"},
        {"upgrade-state set --kind 1", "Give --yes"},
        {"upgrade-state set --yes", "set what?"},
        {"upgrade-state set --kind 3 --yes", "See qelctl upgrade-state set --help."},
        {"env set a=b c --yes", "a name without ="},
        {"eeprom ls --chip 8", "See qelctl eeprom ls --help."},
        {"eeprom put -", "needs a --name"},
        {"eeprom put x --name 1234567890123456789012345678901234567890", "1 to 39 characters"},
        {"flash read a --json", "name a file"},
        {"kv set f a", "a is no KEY=NUMBER"},
        {"kv set f a=99999999999", "32 bits"},
    };
    for (const auto &[command, message] : cases) {
        SCOPED_TRACE(command);
        const Outcome outcome = run(std::string("qelctl ") + command + " </dev/null");
        expect_end(outcome, kUsage, message);
        EXPECT_EQ(outcome.out, "");
    }
}

TEST(StorageVerbs, AskOnATerminalAndTakeOnlyYesForYes) {
    const Unit unit("box");
    unit.text("printf 1 | qelctl eeprom put - --name f");
    const auto answered = [&unit](const char *answer) {
        return unit.sh(std::string("printf '") + answer +
                       "\\n' | script -qec 'qelctl eeprom erase' /dev/null; qelctl eeprom ls");
    };
    const Outcome no = answered("maybe");
    for (const char *part : {"every file on it is lost.\r\nGo on? [y/N] ", "nothing was changed.", "\nf "})
        expect_end(no, kOk, part);
    expect_end(answered("y"), kOk, "no files\n");
}

}  // namespace
}  // namespace qel::test
