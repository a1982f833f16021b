// Key-value text files: what the readers find in texts of every shape, and what the writer leaves.
#include <atomic>
#include <climits>
#include <cstring>
#include <thread>

#include "tests/storage/flash_bench.h"

namespace qel::test {
namespace {

constexpr const char *kPath = "/tmp/settings";

// A board with a file, and the library on it.
class KeyValue : public ::testing::Test {
protected:
    KeyValue() : unit(flash_board("kind = 'nor'\n", {{"config"}})) { unit.log.clear(); }

    // What a reader answered, copied out, and the first word.
    struct Read {
        int status;
        std::string text, word;
        bool operator==(const Read &) const = default;
    };
    template <typename Call>
    Read read(Call call) {
        char word[QEL_KEY_VALUE_TEXT_BYTES + 1];
        char text[QEL_KEY_VALUE_TEXT_BYTES + 1];
        memset(word, '~', sizeof word);
        memset(text, '~', sizeof text);
        word[sizeof word - 1] = text[sizeof text - 1] = '\0';
        const int status = call(word, text);
        EXPECT_EQ(call(nullptr, nullptr), status) << "both outputs may be left out";
        return {status, text[0] == '~' ? "-" : text, word[0] == '~' ? "-" : word};
    }
    Read plain(const std::string &content, const char *key, char separator = '=') {
        unit.put_file(kPath, content);
        return read([&](char *word, char *text) {
            return UNIT_CALL(unit, string_get_value)(kPath, key, separator, word, text);
        });
    }
    Read section(const std::string &content, unsigned number, const char *key) {
        unit.put_file(kPath, content);
        return read([&](char *word, char *text) {
            return UNIT_CALL(unit, QEL_strGetValIdx)(kPath, number, key, '=', word, text);
        });
    }
    int checked(const char *key) {
        return UNIT_CALL(unit, QEL_strGetValCheckSum)(kPath, key, '=', nullptr, nullptr);
    }
    int save(const std::vector<KeyValueRecord> &records) {
        return UNIT_CALL(unit, QEL_saveKeysValue)(kPath, records.data(),
                                                  static_cast<unsigned>(records.size()));
    }

    Unit unit;
};

const std::string kLong(126, 'x');

TEST_F(KeyValue, TheValueStandsBehindKeyAndSeparator) {
    const std::tuple<std::string, const char *, Read> cases[] = {
        {"a=1\nb= two words\n", "b", {0, " two words\n", "two"}},
        {"maxgain=5\ngain=7\n", "gain", {0, "5\n", "5"}},
        {"a=1 // b=2\n", "b", {-1, "-", "-"}},
        {"a=1 // b=2\n", "a", {0, "1 ", "1"}},
        {"\n\r\na=1\r\n", "a", {0, "1\r\n", "1"}},
        {"a", "a", {0, "", "-"}},
        {"a:9", "a", {0, "9", "9"}},
        {kLong + "a=1\n", "a", {0, "", "-"}},  // the line's first piece ends behind the key
        {kLong + "=a=1\n", "a", {0, "1\n", "1"}},
        {std::string("b\0a=1\na=2\n", 10), "a", {0, "2\n", "2"}},
    };
    for (const auto &[content, key, wanted] : cases) EXPECT_EQ(plain(content, key), wanted) << content << key;
    EXPECT_EQ(plain("ab\n", "a", '\0'), (Read{0, "b\n", "b"}));
    EXPECT_EQ(plain("a=" + std::string(125, 'v') + "\n", "a").text, std::string(125, 'v'));
}

TEST_F(KeyValue, ASectionEndsWhereTheNextBegins) {
    const std::string content = "x=0\n[cfg1]\nx=1\n[cfg2] x=9\ny=2 // x=3\n[cfg3]\nx=3\n";
    EXPECT_EQ(section(content, 1, "x"), (Read{0, "1\n", "1"}));
    EXPECT_EQ(section(content, 2, "y"), (Read{0, "2 ", "2"}));
    EXPECT_EQ(section(content, 3, "x"), (Read{0, "3\n", "3"}));
    EXPECT_EQ(section(content, 3, "y").status, -1);
    EXPECT_EQ(section(content, 4, "x").status, -1);
    EXPECT_EQ(unit.log.all(), "") << "the end of the file is not the end of a section";
    EXPECT_EQ(section(content, 2, "x").status, -1);
    unit.log.expect({"[libqel] x is not found in [cfg2]\n"});
    EXPECT_EQ(section("[cfg4294967295]\nx=1\n[cfg0]\ny=2\n", UINT_MAX, "y").status, -1);
}

TEST_F(KeyValue, ATagBlockHoldsNumbers) {
    unit.put_file(kPath,
                  "other:\nx=1\nEND\n lens:\nlens: 1\nx=3 //old\nmain_x=-4\nlist=10,007,8, 9\nEND\nz=1\n");
    const auto value = [&](const char *tag, const char *key) {
        int out = 77;
        return UNIT_CALL(unit, QEL_getTagKeyVal)(kPath, tag, key, &out) == 0 ? out : -1000;
    };
    EXPECT_EQ(value("lens", "x"), -4);
    EXPECT_EQ(value("other", "x"), 1);
    EXPECT_EQ(value("lens", "list"), 10);
    unit.log.clear();
    EXPECT_EQ(value("lens", "z"), -1000);
    EXPECT_EQ(unit.log.all(), "[libqel] z is not found in lens\n");
    EXPECT_EQ(value("len", "x"), -1000);

    const auto group = [&](int count) {
        std::vector<int> out(8, 77);
        EXPECT_EQ(UNIT_CALL(unit, QEL_getGropKeyVal)(kPath, "lens", "list", out.data(), count), 0);
        return out;
    };
    EXPECT_EQ(group(-1), std::vector<int>(8, 77));
    // "007" is written back as "7": the next number starts inside the old one.
    EXPECT_EQ(group(6), (std::vector<int>{10, 7, 7, 8, 9, 0, 77, 77}));
    std::vector<int> most(QEL_MAX_GROUP_VALUES + 1, 77);
    EXPECT_EQ(UNIT_CALL(unit, QEL_getGropKeyVal)(kPath, "lens", "list", most.data(), INT_MAX), 0);
    EXPECT_EQ(most[QEL_MAX_GROUP_VALUES - 1], 0);
    EXPECT_EQ(most[QEL_MAX_GROUP_VALUES], 77);

    unit.put_file(kPath, "t:\nbig=99999999999999999999,1\nlow=-99999999999999999999\n");
    EXPECT_EQ(value("t", "big"), INT_MAX);
    EXPECT_EQ(value("t", "low"), INT_MIN);
}

TEST_F(KeyValue, WhatCannotBeReadIsTold) {
    const std::string longest(127, 'k');
    EXPECT_EQ(plain("", longest.c_str()).status, -1);
    EXPECT_EQ(plain("", (longest + "k").c_str()).status, -22);
    EXPECT_EQ(section("", 1, (longest + "k").c_str()).status, -1);
    unit.log.expect({"(string_get_value|", "): OSA_strlen=128\n"});
    int value = 0;
    EXPECT_EQ(UNIT_CALL(unit, string_get_value)("/tmp/none", "a", '=', nullptr, nullptr), -2);
    EXPECT_EQ(UNIT_CALL(unit, QEL_strGetValCheckSum)("/tmp/none", "a", '=', nullptr, nullptr), -2);
    EXPECT_EQ(unit.log.count("[libqel] open /tmp/none failed\n"), 2);
    EXPECT_EQ(UNIT_CALL(unit, QEL_strGetValIdx)("/tmp/none", 1, "a", '=', nullptr, nullptr), -1);
    EXPECT_EQ(UNIT_CALL(unit, QEL_getTagKeyVal)("/tmp/none", "t", "a", &value), -1);
    EXPECT_EQ(UNIT_CALL(unit, QEL_getGropKeyVal)("/tmp/none", "t", "a", &value, 1), -1);
    EXPECT_EQ(unit.log.count("): open /tmp/none failed\n"), 3);
    EXPECT_EQ(UNIT_CALL(unit, QEL_getTagKeyVal)(kPath, "t", "a", nullptr), -1);
    unit.log.expect({"): bad argument\n"});
}

TEST_F(KeyValue, ASaveCanBeReadAndChecked) {
    EXPECT_EQ(save({{"gain", 5}, {"shift", -3}}), 0);
    unit.log.expect({"[libqel] open file falied\n"});
    // 9 + "gain=5" + 9 + "shift=-3"
    EXPECT_EQ(unit.file(kPath), "\tgain=5\n\tshift=-3\n\tcrcSum=" + std::to_string(9 + 528 + 9 + 700) + "\n");
    EXPECT_EQ(checked("gain"), 0);

    // Comments and foreign lines stay, keys inside other keys are replaced as well, the sum is last.
    unit.put_file(kPath, "# head\r\n\tcrcSum=1\nmaxgain=1\n\n tail");
    EXPECT_EQ(checked("maxgain"), -1);
    unit.log.expect({"): fileCrcSum = 1,calCrcSum = "});
    EXPECT_EQ(save({{"gain", 2}, {"new", INT_MIN}}), 0);
    const std::string wanted = "# head\r\n\tgain=2\n\n tail\n\tnew=-2147483648\n\tcrcSum=";
    EXPECT_EQ(unit.file(kPath).substr(0, wanted.size()), wanted);
    EXPECT_EQ(checked("new"), 0);
    EXPECT_EQ(checked("none"), -1);
}

TEST_F(KeyValue, OnlyAChangeIsWritten) {
    EXPECT_EQ(save({{"a", 1}, {"b", 2}}), 0);
    unit.board.add_fault(std::string(kPath) + " write fail EIO");
    EXPECT_EQ(save({{"a", 1}, {"b", 2}}), 0);
    EXPECT_EQ(save({{"b", 2}}), 0);
    EXPECT_EQ(UNIT_CALL(unit, QEL_saveKeysValue)(kPath, nullptr, 0), 0);
    unit.board.clear_faults();
    EXPECT_EQ(checked("b"), 0);
    // Two lines with the key are a change: both hold the value afterwards.
    unit.put_file(kPath, "\ta=1\n\ta=1\n");
    EXPECT_EQ(save({{"a", 1}}), 0);
    EXPECT_EQ(unit.file(kPath), "\ta=1\n\ta=1\n\tcrcSum=" + std::to_string(2 * (9 + 'a' + '=' + '1')) + "\n");
}

TEST_F(KeyValue, TheSumCoversAllLinesAndWraps) {
    std::string content;
    for (int i = 0; i < 128; ++i) content += std::string(62, '\xFF') + "\n";
    const unsigned sum = 128u * 62 * 255 & 0xFFFF;
    unit.put_file(kPath, content + "\tcrcSum=" + std::to_string(sum) + "\n");
    EXPECT_EQ(checked("\xFF"), 0);
    unit.put_file(kPath, content);
    EXPECT_EQ(checked("\xFF"), -1) << "without its line the sum counts as 0";
}

TEST_F(KeyValue, AFullFileTakesNoMore) {
    std::vector<KeyValueRecord> records(128);
    for (size_t i = 0; i < records.size(); ++i) {
        const std::string key = "key" + std::to_string(1000 + i).substr(1) + "-as-long-as-keys-may-be";
        key.copy(records[i].key, sizeof records[i].key - 1);
        records[i].value = INT_MIN;
    }
    EXPECT_EQ(save(records), 0);
    const std::string full = unit.file(kPath);
    EXPECT_EQ(checked("key127"), 0);
    records.push_back({"another", 1});
    for (const auto &more : {records, std::vector<KeyValueRecord>{{"another", 1}}}) {
        EXPECT_EQ(save(more), -1);
        EXPECT_EQ(unit.file(kPath), full);
    }
    EXPECT_EQ(unit.log.count("): line num out of limit\n"), 2);
    // Lines behind the 128th are never lost.
    unit.put_file(kPath, "x=1\n" + full);
    EXPECT_EQ(save({{"x", 2}}), -1);
    EXPECT_EQ(unit.file(kPath), "x=1\n" + full);
}

TEST_F(KeyValue, AWriteThatFailsIsAnError) {
    KeyValueRecord unterminated = {"", 1};
    memset(unterminated.key, 'k', sizeof unterminated.key);
    for (const KeyValueRecord &bad : {unterminated, {"", 1}, {"a\nb", 1}, {"my_crcSum", 1}})
        EXPECT_EQ(save({bad}), -1) << std::string(bad.key, 8);
    EXPECT_EQ(unit.log.count("): bad argument\n"), 4);
    const KeyValueRecord record = {"a", 1};
    EXPECT_EQ(UNIT_CALL(unit, QEL_saveKeysValue)("/tmp/no/such/folder", &record, 0), 0);
    EXPECT_EQ(UNIT_CALL(unit, QEL_saveKeysValue)("/tmp/no/such/folder", &record, 1), -1);
    unit.log.expect({"): Open and create failed\n"});
    EXPECT_EQ(save({{"a", 1}}), 0) << "the text is free again";
}

TEST_F(KeyValue, ThreadsTakeTurns) {
    std::atomic<int> failed{0};
    const auto save_and_read = [&](int number) {
        const std::string path = "/tmp/settings" + std::to_string(number);
        for (int i = 1; i <= 50; ++i) {
            const KeyValueRecord record = {"value", i * number};
            int ok = UNIT_CALL(unit, QEL_saveKeysValue)(path.c_str(), &record, 1);
            char word[QEL_KEY_VALUE_TEXT_BYTES] = "";
            ok |= UNIT_CALL(unit, QEL_strGetValCheckSum)(path.c_str(), "value", '=', word, nullptr);
            failed += ok != 0 || word != std::to_string(i * number) ? 1 : 0;
        }
    };
    std::vector<std::thread> threads;
    for (int number = 0; number < 4; ++number) threads.emplace_back(save_and_read, number);
    for (std::thread &thread : threads) thread.join();
    EXPECT_EQ(failed, 0);
    EXPECT_EQ(*static_cast<int *>(unit.library->symbol("gIsMutexCreate")), 1);
}

}  // namespace
}  // namespace qel::test
