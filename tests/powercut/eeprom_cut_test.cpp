// The EEPROM when the power goes while a file is stored: what docs/power-cuts.md promises of it.
#include <map>
#include <string>

#include "tests/powercut/cuts.h"

namespace qel::test {
namespace {

constexpr int kPage = 32;

constexpr const char *kBoard = R"(name = "bench"
[[chip]]
[chip.hwid]
name = "BX-200"
[chip.misc]
[[chip.eeprom]]
page_bytes = 32
capacity_bytes = 1024
)";

using Files = std::map<std::string, Content>;

const Files kBefore = {{"a", filling(60, 1)}, {"b", filling(90, 2)}, {"c", filling(33, 3)}};

int store(Started &on, const std::string &name, const Content &data) {
    RawEeprom *object = nullptr;
    EXPECT_EQ(CALL(on.library, createRawEeprom)(nullptr, &object), 0);
    if (object == nullptr) return -1;
    const int result = object->write(object, name.c_str(), data.data(), static_cast<unsigned>(data.size()));
    object->release(object);
    return result;
}

Content content_of(const Library &library, const char *name, unsigned bytes) {
    Content data(bytes);
    unsigned done = 0;
    const int index = CALL(library, EEFS_LibOpen)(name);
    if (bytes > 0) CALL(library, EEFS_LibRead)(index, data.data(), bytes, &done);
    CALL(library, EEFS_LibClose)(index);
    data.resize(done);
    return data;
}

// As a process that starts now finds them.
Files files(Started &on) {
    EefsChipAttr attributes{};
    unsigned count = 0;
    EXPECT_EQ(CALL(on.library, EEFS_LibInit)(&attributes), 0) << "a later run always loads";
    EXPECT_EQ(CALL(on.library, EEFS_LibGetFileCount)(&count), 0);
    Files found;
    for (unsigned n = 0; n < count; ++n) {
        char name[EEFS_NAME_BYTES] = {};
        unsigned bytes = 0;
        EXPECT_EQ(CALL(on.library, EEFS_LibGetFileInfo)(n, name, &bytes), 0);
        found[name] = content_of(on.library, name, bytes);
    }
    CALL(on.library, EEFS_LibExit)();
    return found;
}

// A file can still be stored, and that harms no other.
void check_usable(Started &on, const Files &left) {
    EXPECT_EQ(store(on, "later", filling(20, 8)), 0);
    Files after = files(on);
    EXPECT_EQ(after["later"], filling(20, 8));
    after.erase("later");
    EXPECT_EQ(after, left);
}

class EepromCut : public testing::Test {
protected:
    Cuts cuts{kBoard, [](Started &on) {
                  for (const auto &[name, data] : kBefore) EXPECT_EQ(store(on, name, data), 0);
              }};
};

TEST_F(EepromCut, ANewFileIsThereAsAWholeOrNotAtAll) {
    const Content data = filling(70, 5);
    cuts.at_every_write(
        "EEPROM, new file", torn_bytes(kPage), [&](Started &on) { store(on, "new", data); },
        [&](Started &on) {
            const Files left = files(on);
            Files others = left;
            if (others.erase("new") != 0) {
                EXPECT_EQ(left.at("new"), data);
            }
            EXPECT_EQ(others, kBefore);
            check_usable(on, left);
        });
}

TEST_F(EepromCut, AFileStoredOverHoldsNewBytesThenOldOnes) {
    const Content data = filling(100, 6);
    cuts.at_every_write(
        "EEPROM, file stored over", torn_bytes(kPage), [&](Started &on) { store(on, "b", data); },
        [&](Started &on) {
            const Files left = files(on);
            Files others = left;
            others["b"] = kBefore.at("b");
            EXPECT_EQ(others, kBefore);
            const Content &old_data = kBefore.at("b");
            const Content &mixed = left.at("b");
            EXPECT_TRUE(mixed.size() == old_data.size() || mixed.size() == data.size()) << mixed.size();
            size_t next = 0;
            while (next < mixed.size() && mixed[next] == data[next]) ++next;
            for (; next < std::min(mixed.size(), old_data.size()); ++next)
                EXPECT_EQ(mixed[next], old_data[next]) << next;
            check_usable(on, left);
        });
}

TEST_F(EepromCut, LaidOutAnewFilesComeBackWholeOneByOne) {
    const Content data = filling(200, 7);
    cuts.at_every_write(
        "EEPROM, laid out anew", torn_bytes(kPage), [&](Started &on) { store(on, "b", data); },
        [&](Started &on) {
            const Files left = files(on);
            for (const auto &[name, content] : left) {
                const bool whole = content == (name == "b" ? data : kBefore.at(name));
                EXPECT_TRUE(whole || (name == "b" && content == kBefore.at(name))) << name;
            }
            check_usable(on, left);
        });
}

}  // namespace
}  // namespace qel::test
