// The start-up and shut-down chains of the real library: their order, and that no step stops them.
//
// This program defines every step itself. The loader prefers a program's own functions, so the chains
// come through here: each step is noted, made to fail when it is its turn, and else handed to the
// library's own.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "board/core/board.h"
#include "board/steps/step_names.h"
#include "qel/qel.h"
#include "tests/support/library.h"

namespace {

struct Steps {
    std::string failing;
    std::vector<std::string> taken;
    std::map<std::string, int (*)()> own;
};
Steps steps;

int take(const char *name) {
    steps.taken.push_back(name);
    const bool fails = steps.failing == name;
    const bool takes_down = std::string_view(name).find("De") != std::string_view::npos;
    if (fails && !takes_down) return -1;
    int (*&own)() = steps.own[name];
    if (own == nullptr) {
        void *library = dlopen(QEL_LIB_DIR "/libqel.so.1", RTLD_NOW | RTLD_NOLOAD);
        own = reinterpret_cast<int (*)()>(dlsym(library, name));
        dlclose(library);
    }
    const int result = own();
    return fails ? -1 : result;  // a failing step down still gives back what it has
}

struct Step {
    const char *name;
    const char *message;
};

#define EXECUTE(name, told) \
    { #name, #told " execute Error and return OSA_EFAIL\n" }
#define FAILED(name, told) \
    { #name, #told " failed!\n" }

const Step kStartUp[] = {
    EXECUTE(QEL_adapterPreInit, QEL_adapterPreInit),
    EXECUTE(QEL_productInit, QEL_productInit),
    EXECUTE(QEL_hwidGet, QEL_hwidGet),
    EXECUTE(QEL_chnMapInit, QEL_chnMapInit),
    EXECUTE(QEL_configInit, QEL_configInit),
    EXECUTE(QEL_sramfileInit, QEL_sramfileInit),
    EXECUTE(QEL_miscInit, QEL_miscInit),
    EXECUTE(QEL_rtcInit, QEL_rtcInit),
    EXECUTE(QEL_TwoEyesComInit, QEL_TwoEyesComInit),
    EXECUTE(QEL_fpgaInit, QEL_fpgaInit),
    EXECUTE(QEL_flashIinit, QEL_flashIinit),
    EXECUTE(QEL_comInit, QEL_comInit),
    EXECUTE(QEL_heatInit, QEL_heatInit),
    EXECUTE(QEL_mcuInit, QEL_mcuInit),
    EXECUTE(QEL_recordInit, QEL_recordInit),
    FAILED(QEL_MemInit, QEL_MemInit),
    FAILED(QEL_flagfileInit, QEL_flagfileInit),
    FAILED(QEL_netInit, QEL_netInit),
    FAILED(QEL_semLockInit, QEL_semLockInit),
    FAILED(QEL_hwidExInit, QEL_hwidExInit),
    FAILED(QEL_commlenInit, QEL_hwidExInit),
    EXECUTE(QEL_adapterInit, QEL_adapterInit),
    FAILED(QEL_coprocInit, QEL_coprocInit),
    FAILED(QEL_notifyInit, QEL_notifyInit),
};

const Step kShutDown[] = {
    FAILED(QEL_coprocDeinit, QEL_coprocDeinit),
    EXECUTE(QEL_adapterDeinit, QEL_adapterPreDeinit),
    FAILED(QEL_commlenDeinit, QEL_commlenDeinit),
    FAILED(QEL_semLockDeinit, QEL_semLockDeinit),
    FAILED(QEL_flagfileDeInit, QEL_flagfileDeInit),
    FAILED(QEL_netDeInit, QEL_netDeInit),
    FAILED(QEL_MemDeinit, QEL_MemDeinit),
    EXECUTE(QEL_recordDeinit, QEL_recordDeinit),
    EXECUTE(QEL_mcuDeinit, QEL_mcuDeinit),
    EXECUTE(QEL_comDeinit, QEL_comDeinit),
    EXECUTE(QEL_heatDeinit, QEL_heatDeinit),
    EXECUTE(QEL_flashDeinit, QEL_flashDeinit),
    EXECUTE(QEL_fpgaDeinit, QEL_fpgaDeinit),
    EXECUTE(QEL_TwoEyesComDeInit, QEL_TwoEyesComDeInit),
    EXECUTE(QEL_rtcDeinit, QEL_rtcDeinit),
    EXECUTE(QEL_miscDeinit, QEL_miscDeinit),
    EXECUTE(QEL_sramfileDeInit, QEL_sramfileDeInit),
    EXECUTE(QEL_chnMapDeinit, QEL_chnMapDeinit),
    EXECUTE(QEL_productDeinit, QEL_productDeinit),
    EXECUTE(QEL_adapterPreDeinit, QEL_adapterPreDeinit),
};

std::vector<std::string> all_steps() {
    std::vector<std::string> names;
    for (const Step &step : kStartUp) names.push_back(step.name);
    for (const Step &step : kShutDown) names.push_back(step.name);
    return names;
}

}  // namespace

#define TAKE(name) \
    extern "C" int name() { return take(#name); }
QEL_EACH_START_UP_STEP(TAKE)
QEL_EACH_SHUT_DOWN_STEP(TAKE)

namespace qel::test {
namespace {

class Chain : public testing::Test {
protected:
    // Loads and unloads on `board`, with one step failing.
    void run(const std::string &failing) {
        steps = {failing, {}, {}};
        log_.clear();
        Library library;
        // Resolved now: nothing can be looked up in a library that is going.
        for (const Step &step : kShutDown) steps.own[step.name] = library.function<int()>(step.name);
        library.unload();
    }
    std::vector<std::string> errors() const {
        std::vector<std::string> found;
        for (const LogLine &line : log_.lines()) {
            if (line.level == 0) found.push_back(line.text);
        }
        return found;
    }

    board::Board board_{board::find_board("box")};
    Log log_;
};

// "[libqel] ERROR  (function|LINE): message" with the line cut out into `line`.
bool is_error_line(const std::string &text, const std::string &function, const std::string &message,
                   int *line) {
    const std::string head = "[libqel] ERROR  (" + function + "|";
    if (text.rfind(head, 0) != 0) return false;
    size_t digits = 0;
    const int found = std::stoi(text.substr(head.size()), &digits);
    if (text.substr(head.size() + digits) != "): " + message) return false;
    *line = found;
    return true;
}

TEST_F(Chain, TakesItsStepsInOrderAndGoesOnAfterAFailure) {
    board_.enter({.chip = 0, .as = "vesta"});
    run("");
    EXPECT_EQ(steps.taken, all_steps());
    EXPECT_EQ(errors(), std::vector<std::string>{});

    int previous_line = 0;
    const auto fails = [&](const Step &step, const char *chain) {
        SCOPED_TRACE(step.name);
        run(step.name);
        EXPECT_EQ(steps.taken, all_steps());
        int line = 0;
        int matching = 0;
        for (const std::string &text : errors())
            matching += is_error_line(text, chain, step.message, &line) ? 1 : 0;
        EXPECT_EQ(matching, 1) << log_.all();
        EXPECT_GT(line, previous_line) << "each step names a line of its own";
        previous_line = line;
    };
    for (const Step &step : kStartUp) fails(step, "QEL_preInit");
    for (const Step &step : kShutDown) fails(step, "QEL_preDeinit");
    board_.leave();
}

TEST_F(Chain, BeginsWithTheBuildBanner) {
    board_.enter({.chip = 0, .as = "vesta"});
    run("");
    const std::vector<LogLine> lines = log_.lines();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[0].text.rfind("[libqel] libqel.so Build on ", 0), 0u) << lines[0].text;
    EXPECT_NE(lines[0].text.find(" at "), std::string::npos);
    EXPECT_EQ(lines[1].text, "[libqel] SVN NUM: 71554.\n");
    for (int i : {0, 1}) {
        EXPECT_EQ(lines[i].level, 2);
        EXPECT_EQ(lines[i].attribute, 2);
    }
    board_.leave();
}

TEST_F(Chain, FindsEverythingItWantsOnEveryBoard) {
    for (const std::string &name : board::shipped_boards()) {
        SCOPED_TRACE(name);
        board::Board board(board::find_board(name));
        if (board.chip_count() != 1) continue;  // wants the other chips, see below
        board.enter({.chip = 0, .as = "vesta"});
        run("");
        EXPECT_EQ(errors(), std::vector<std::string>{});
        board.leave();
    }
}

// What a board can do to the chain by itself.
TEST_F(Chain, LoadsWhateverTheProductDriverDoes) {
    struct Case {
        const char *fault;
        std::vector<std::string> told;
    };
    const Case cases[] = {
        {"/dev/qecHwid open fail ENOENT",
         {"(QEL_adapterPreInit|", "Can't open /dev/qecHwid\n", "QEL_adapterPreInit execute Error",
          "QEL_productInit execute Error", "QEL_hwidGet execute Error", "QEL_getChipInfo err\n",
          "QEL_productDeinit execute Error"}},
        {"/dev/qecHwid ioctl:0xC0044800 fail EIO",
         {"Ioctl execute error\n", "QEL_productInit execute Error"}},
        {"/dev/qecHwid ioctl:0xC0044806 fail EIO", {"GET_SENSOREXT_CFG fail!\n", "QEL product Init OK!\n"}},
        {"/dev/qecHwid ioctl:0xC0044800 fail EIO at 1",
         {"QEL_adapterPreInit execute Error", "QEL product Init OK!\n", "QEL hwid Get OK!\n"}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.fault);
        board_.enter({.chip = 0, .as = "vesta"});
        board_.add_fault(c.fault);
        run("");
        EXPECT_EQ(steps.taken, all_steps());
        for (const std::string &text : c.told)
            EXPECT_TRUE(log_.contains(text)) << text << " in\n" << log_.all();
        board_.clear_faults();
        board_.leave();
    }
}

// Without a channel library the defaults fail, and a unit of two chips is on its own.
TEST_F(Chain, LoadsWithoutAChannelLibrary) {
    board::Board twin(board::find_board("twin"));
    for (const uint32_t chip : {0u, 1u}) {
        SCOPED_TRACE(chip);
        twin.enter({.chip = chip, .as = "vesta"});
        steps = {};
        log_.clear();
        {
            Library library;
            for (const Step &step : kShutDown) steps.own[step.name] = library.function<int()>(step.name);
            EXPECT_EQ(CALL(library, QEL_adapterGetChipNum)(), 1u);
            AdapterMsg msg{};
            msg.chip = 1;
            EXPECT_EQ(CALL(library, QEL_adapterMasterProc)(&msg), -1);
        }
        EXPECT_TRUE(log_.contains("Xcc init fail !\n"));
        EXPECT_TRUE(log_.contains(chip == 0 ? "(QEL_openMasterXcc|" : "(QEL_openSlaveXcc|"));
        EXPECT_TRUE(log_.contains(chip == 0 ? "QEL_openXcc[1] err\n" : "QEL_openSlaveXcc err\n"));
        EXPECT_TRUE(log_.contains("[libqel] QEL Adapter Init err !\n"));
        EXPECT_TRUE(log_.contains("QEL_adapterPreInit execute Error and return OSA_EFAIL\n"));
        EXPECT_TRUE(log_.contains("Handle Need Init !\n"));
        twin.leave();
    }
}

TEST_F(Chain, LinksNothingBehindItself) {
    board_.enter({.chip = 0, .as = "vesta"});
    steps = {};
    Library library;
    for (const Step &step : kShutDown) steps.own[step.name] = library.function<int()>(step.name);
    log_.clear();
    EXPECT_EQ(CALL(library, sysStaticInit)(), 0);
    EXPECT_EQ(log_.find("QEL_staticInit").text, "[libqel] QEL_staticInit\n");
    library.unload();
    EXPECT_EQ(dlopen(QEL_LIB_DIR "/libqel.so.1", RTLD_NOW | RTLD_NOLOAD), nullptr) << "still loaded";
    board_.leave();
}

}  // namespace
}  // namespace qel::test
