// The boot environment when the power goes while it is written: what docs/power-cuts.md promises of it.
#include <map>
#include <string>

#include "product/env_block.h"
#include "tests/powercut/cuts.h"

namespace qel::test {
namespace {

using Parameters = std::map<std::string, std::string>;

struct Medium {
    const char *name;
    const char *flash;       // keys of its table
    const char *properties;  // decide the size of the block
    uint32_t block_bytes;
    uint32_t partition_bytes;  // in good blocks
    int write_bytes;           // of the longest device write
    bool erases;               // before it writes: no value is ever half new and half old
};

constexpr Medium kMedia[] = {
    {"NOR", "kind = \"nor\"\nerase_bytes = 0x1000\npage_bytes = 0x100\n", "5 = 5\n19 = 4\n", 0x4000, 0x6000,
     0x1000, true},
    {"NAND", "kind = \"nand\"\nerase_bytes = 0x4000\npage_bytes = 0x800\n", "5 = 3\n", 0x20000, 0x28000,
     0x4000, true},
    {"eMMC", "kind = \"emmc\"\nerase_bytes = 0x4000\npage_bytes = 0x200\n", "5 = 3\n", 0x20000, 0x28000,
     0x200, false},
};

std::string board_on(const Medium &medium) {
    const bool bad = std::string(medium.name) == "NAND";
    const uint32_t size = medium.partition_bytes + (bad ? 0x8000 : 0);
    return "name = \"bench\"\n[[chip]]\n[chip.hwid]\nname = \"BX-200\"\n[chip.hwid.properties]\n" +
           std::string(medium.properties) + "[chip.flash]\n" + medium.flash +
           "environment_bytes = " + std::to_string(medium.block_bytes) +
           "\npartition = [\n{ name = \"before\", size = 0x8000 },\n{ name = \"hwid\", size = " +
           std::to_string(size) + (bad ? ", bad = [0, 2]" : "") +
           " },\n{ name = \"behind\", size = 0x8000 },\n]\n[chip.environment]\nHWID = "
           "\"BX-200:01:03:00:00:00\"\n"
           "ethaddr = \"02:51:45:4c:00:01\"\nipaddr = \"192.0.2.108\"\nbootargs = \"console=ttyS0 "
           "root=/dev/x\"\n";
}

const Parameters kBefore = {{"HWID", "BX-200:01:03:00:00:00"},
                            {"ethaddr", "02:51:45:4c:00:01"},
                            {"ipaddr", "192.0.2.108"},
                            {"bootargs", "console=ttyS0 root=/dev/x"}};
constexpr const char *kNames[] = {"HWID", "ethaddr", "ipaddr", "bootargs", "added"};

struct Change {
    const char *what;
    OnBoard work;
    Parameters after;
};

std::vector<Change> changes() {
    Parameters set = kBefore;
    set["ipaddr"] = "198.51.100.77";
    Parameters added = kBefore;
    added["added"] = std::string(200, 'x');
    Parameters deleted = kBefore;
    deleted.erase("HWID");
    return {
        {"set",
         [](Started &on) {
             CALL(on.library, setBootParameter)
             ("ipaddr", "198.51.100.77");
         },
         set},
        {"set of a new one",
         [](Started &on) {
             CALL(on.library, setBootParameter)
             ("added", std::string(200, 'x').c_str());
         },
         added},
        {"delete",
         [](Started &on) {
             CALL(on.library, QEL_delBootParameter)
             ("HWID");
         },
         deleted},
    };
}

void check_values(Started &on, const Medium &medium, const Parameters &after) {
    for (const char *name : kNames) {
        char value[256] = {};
        if (CALL(on.library, getBootParameter)(name, value, 255) != 0) continue;
        const auto known = [&](const Parameters &all) {
            const auto found = all.find(name);
            return found != all.end() && found->second == value;
        };
        if (medium.erases) {
            EXPECT_TRUE(known(kBefore) || known(after)) << name << "=" << value;
        }
    }
}

bool crc_is_right(const Content &block) {
    const uint32_t stored = block[0] | block[1] << 8 | block[2] << 16 | uint32_t{block[3]} << 24;
    return environment::crc_of(block) == stored;
}

// The next set mends the check sum.
void check_usable(Started &on, const Content &left) {
    EXPECT_EQ(CALL(on.library, setBootParameter)("again", "1"), 0);
    char value[256] = {};
    EXPECT_EQ(CALL(on.library, getBootParameter)("again", value, 255), 0);
    EXPECT_STREQ(value, "1");
    EXPECT_TRUE(crc_is_right(flash_content(on, "hwid", static_cast<uint32_t>(left.size()))));
}

class EnvironmentCut : public testing::TestWithParam<Medium> {
protected:
    void try_change(const Change &change, const std::vector<int> &torn) {
        const Medium &medium = GetParam();
        Cuts cuts(board_on(medium), [](Started &) {});
        const auto block = [&](Started &on) { return flash_content(on, "hwid", medium.block_bytes); };
        const auto neighbours = [](Started &on) {
            Content both = flash_content(on, "before", 0x8000);
            const Content behind = flash_content(on, "behind", 0x8000);
            both.insert(both.end(), behind.begin(), behind.end());
            return both;
        };
        const Content old_block = cuts.before(block);
        const Content new_block = cuts.after(change.work, block);
        const Content others = cuts.before(neighbours);
        ASSERT_TRUE(crc_is_right(old_block));
        ASSERT_TRUE(crc_is_right(new_block));
        ASSERT_NE(old_block, new_block);
        cuts.at_every_write(
            std::string(medium.name) + ", " + change.what, torn, change.work, [&](Started &on) {
                const Content left = block(on);
                if (crc_is_right(left)) {
                    EXPECT_TRUE(left == old_block || left == new_block) << "a right check sum over a mixture";
                }
                check_values(on, medium, change.after);
                check_usable(on, left);
                EXPECT_EQ(neighbours(on), others);
            });
    }
};

INSTANTIATE_TEST_SUITE_P(PowerCut, EnvironmentCut, testing::ValuesIn(kMedia),
                         [](const auto &info) { return std::string(info.param.name); });

std::vector<int> torn_of(const Medium &medium) {
    // Around the check sum, inside the entries, in the rest, before the end and behind it.
    std::vector<int> torn = {
        0, 1, 4, 30, 100, medium.write_bytes / 2, medium.write_bytes - 1, medium.write_bytes};
    return torn;
}

TEST_P(EnvironmentCut, SetNamesWhatItLoses) { try_change(changes()[0], torn_of(GetParam())); }
TEST_P(EnvironmentCut, SetOfANewOneNamesWhatItLoses) { try_change(changes()[1], {0, 4, 200}); }
TEST_P(EnvironmentCut, DeleteNamesWhatItLoses) { try_change(changes()[2], {0, 4, 50}); }

}  // namespace
}  // namespace qel::test
