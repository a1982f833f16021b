// The flag pages when the power goes while one is written or a block of them is erased: what
// docs/power-cuts.md promises of them.
#include <string>

#include "tests/powercut/cuts.h"

namespace qel::test {
namespace {

constexpr uint8_t kErased = 0xFF;

struct Medium {
    const char *name;
    const char *flash;  // keys of its table
    int page_bytes;
    int erase_bytes;
};

constexpr Medium kMedia[] = {
    {"NOR", "kind = \"nor\"\nerase_bytes = 0x1000\npage_bytes = 0x40\n", 64, 0x1000},
    {"NAND", "kind = \"nand\"\nerase_bytes = 0x4000\npage_bytes = 0x200\n", 512, 0x4000},
    {"eMMC", "kind = \"emmc\"\nerase_bytes = 0x4000\npage_bytes = 0x200\n", 512, 0x4000},
};

std::string board_on(const Medium &medium) {
    return "name = \"bench\"\n[[chip]]\n[chip.hwid]\nname = \"BX-200\"\n[chip.hwid.properties]\n5 = 3\n"
           "[chip.flash]\n" +
           std::string(medium.flash) +
           "partition = [\n{ name = \"before\", size = 0x8000 },\n{ name = \"updateflag\", size = 0x20000" +
           (std::string(medium.name) == "NAND" ? ", bad = [1]" : "") +
           " },\n{ name = \"behind\", size = 0x8000 },\n]\n";
}

struct Flag {
    uint32_t block;
    uint32_t page;
    uint32_t byte;
    uint8_t value;
};

// Marks of an upgrade that has come to its second step, and an error count.
constexpr Flag kBefore[] = {{0, 0, 0, 0x55}, {0, 1, 0, 0xAA}, {1, 0, 0, 3}, {1, 1, 0, 2}};

int flag_at(Started &on, uint32_t block, uint32_t page, uint32_t byte) {
    uint8_t value = 0;
    EXPECT_EQ(CALL(on.library, QEL_flashReadBackUpFlag)(block, page, byte, &value), 0);
    return value;
}

class FlagCut : public testing::TestWithParam<Medium> {
protected:
    const Medium &medium() const { return GetParam(); }
    std::string named(const char *what) const { return std::string(medium().name) + ", " + what; }

    // Flags of other blocks, and the partitions around.
    static void check_others(Started &on, uint32_t changed_block, const Content &others) {
        for (const Flag &flag : kBefore) {
            if (flag.block == changed_block) continue;
            EXPECT_EQ(flag_at(on, flag.block, flag.page, flag.byte), flag.value);
        }
        EXPECT_EQ(neighbours(on), others);
    }
    static Content neighbours(Started &on) {
        Content both = flash_content(on, "before", 0x8000);
        const Content behind = flash_content(on, "behind", 0x8000);
        both.insert(both.end(), behind.begin(), behind.end());
        return both;
    }

    Cuts cuts{board_on(GetParam()), [](Started &on) {
                  for (const Flag &flag : kBefore) {
                      EXPECT_EQ(CALL(on.library, QEL_flashWriteBackUpFlag)(flag.block, flag.page, flag.byte,
                                                                           flag.value),
                                0);
                  }
              }};
    const Content others = cuts.before(neighbours);
};

INSTANTIATE_TEST_SUITE_P(PowerCut, FlagCut, testing::ValuesIn(kMedia),
                         [](const auto &info) { return std::string(info.param.name); });

TEST_P(FlagCut, AFlagIsSetOrNotAndCanBeSetAgain) {
    cuts.at_every_write(
        named("flag byte"), torn_bytes(medium().page_bytes + 1, 1),
        [](Started &on) {
            CALL(on.library, QEL_flashWriteBackUpFlag)
            (0, 2, 5, 0x5A);
        },
        [&](Started &on) {
            const int left = flag_at(on, 0, 2, 5);
            EXPECT_TRUE(left == kErased || left == 0x5A) << left;
            EXPECT_EQ(flag_at(on, 0, 0, 0), 0x55);
            EXPECT_EQ(flag_at(on, 0, 1, 0), 0xAA);
            EXPECT_EQ(CALL(on.library, QEL_flashWriteBackUpFlag)(0, 2, 5, 0x5A), 0);
            EXPECT_EQ(flag_at(on, 0, 2, 5), 0x5A);
            // A page that was torn before its first byte that is not 0xFF looks like an erased one.
            for (const std::string &misuse : on.board.take_misuses())
                EXPECT_NE(misuse.find("second write without an erase"), std::string::npos) << misuse;
            check_others(on, 0, others);
        });
}

TEST_P(FlagCut, APageOfRecordsIsThereUpToSomeByte) {
    const Content records = filling(64, 4);
    const auto page = [](Started &on) {
        Content read(64);
        for (uint32_t i = 0; i < 64; ++i) read[i] = static_cast<uint8_t>(flag_at(on, 2, 0, i));
        return read;
    };
    cuts.at_every_write(
        named("page of records"), torn_bytes(66),
        [&](Started &on) {
            CALL(on.library, QEL_flashWriteCrc)
            (records.data(), 8);
        },
        [&](Started &on) {
            const Content left = page(on);
            size_t next = 0;
            while (next < left.size() && left[next] == records[next]) ++next;
            for (; next < left.size(); ++next) EXPECT_EQ(left[next], kErased) << next;
            EXPECT_EQ(CALL(on.library, QEL_flashClearCrc)(), 0);
            EXPECT_EQ(CALL(on.library, QEL_flashWriteCrc)(records.data(), 8), 0);
            EXPECT_EQ(page(on), records);
            check_others(on, 2, others);
        });
}

TEST_P(FlagCut, AStateThatIsClearedIsTheOldOneOrNoneAndCanBeClearedAgain) {
    cuts.at_every_write(
        named("clearing of the state"), torn_bytes(2 * medium().page_bytes + 2, medium().page_bytes / 8),
        [](Started &on) {
            CALL(on.library, QEL_gotoStateInit)
            ();
        },
        [&](Started &on) {
            const int state = CALL(on.library, QEL_getUpdateState)();
            EXPECT_TRUE(state == 0xAA || state == kErased) << state;
            EXPECT_EQ(CALL(on.library, QEL_gotoStateInit)(), 0);
            EXPECT_EQ(CALL(on.library, QEL_getUpdateState)(), kErased);
            EXPECT_EQ(CALL(on.library, QEL_flashWriteBackUpFlag)(0, 0, 0, 0x55), 0);
            check_others(on, 0, others);
        });
}

TEST_P(FlagCut, AnErrorCountThatIsClearedIsTheOldOneOrReadsAsErased) {
    cuts.at_every_write(
        named("clearing of the error count"), torn_bytes(medium().page_bytes + 2, medium().page_bytes / 16),
        [](Started &on) {
            CALL(on.library, QEL_writeBackupVer)(2);
            CALL(on.library, QEL_clearResetCount)();
        },
        [&](Started &on) {
            const int count = flag_at(on, 1, 0, 0);
            EXPECT_TRUE(count == 3 || count == kErased || count == 0) << count;
            EXPECT_EQ(CALL(on.library, QEL_clearResetCount)(), 0);
            EXPECT_EQ(CALL(on.library, QEL_readSysState)(), 0);
            check_others(on, 1, others);
        });
}

}  // namespace
}  // namespace qel::test
