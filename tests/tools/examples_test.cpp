// The examples do what their own comments and the documentation say of them.
#include <gtest/gtest.h>

#include <string>

#include "tests/tools/command.h"

namespace qel::test {
namespace {

bool holds(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }

TEST(Examples, TheTourPassesOnEveryBoardAndCallsTheOtherChip) {
    for (const std::string board : {"box", "dome", "traffic", "twin"}) {
        const Outcome tour = run("qelboard run " + board + " --as vesta -- qel-tour");
        EXPECT_EQ(tour.code, 0) << board << "\n" << tour.out << tour.err;
        EXPECT_TRUE(holds(tour.out, " 0 failed\n")) << tour.out;
        EXPECT_EQ(holds(tour.out, "PASS  a call to chip 1 came back with an answer"), board == "twin")
            << tour.out;
    }
}

TEST(Examples, TheTourFailsWhereTheUnitIsNotWhole) {
    const char *const faults[] = {
        "chip 0 /dev/qecHwid ioctl fail EIO",
        "chip 0 /dev/qecHwid open fail EIO at 1",  // never learns of the other chip
    };
    for (const std::string fault : faults) {
        const Outcome tour = run("qelboard run twin --as vesta --fault '" + fault + "' -- qel-tour");
        EXPECT_EQ(tour.code, 1) << fault << "\n" << tour.out << tour.err;
        EXPECT_TRUE(holds(tour.out, "FAIL  ")) << fault << "\n" << tour.out;
    }
}

TEST(Examples, TheHandlerAnswersTheMasterFromTheOtherChip) {
    const Scratch scratch;
    const std::string on_board =
        "qelboard run twin --dir " + scratch.path() + "/board --no-residents --as vesta ";
    // Both sides wait for each other while the library loads, so the order does not matter.
    const Outcome outcome =
        run(on_board + "--chip 1 -- qel-handler > " + scratch.path() + "/slave & slave=$!\n" + on_board +
            "--chip 0 -- qel-handler; status=$?\n" + "kill -TERM $slave; wait $slave; cat " + scratch.path() +
            "/slave; exit $status");
    EXPECT_EQ(outcome.code, 0) << outcome.out << outcome.err;
    EXPECT_TRUE(holds(outcome.out, "chip 1 is up for ")) << outcome.out << outcome.err;
    EXPECT_TRUE(holds(outcome.out, "chip 1 serves")) << outcome.out << outcome.err;
}

TEST(Examples, TheSmallestProgramNamesTheBoardOrSaysWhyNot) {
    EXPECT_TRUE(holds(run("qelboard run box -- qel-minimal").out, "BX-200, board type 3\n"));
    const Outcome broken = run("qelboard run box --fault '/dev/qecHwid open fail ENODEV' -- qel-minimal");
    EXPECT_EQ(broken.code, 1);
    EXPECT_TRUE(holds(broken.err, "the library does not know this board")) << broken.err;
}

TEST(Examples, AQuestionOnAPortGetsItsAnswer) {
    const Outcome asked = run("qelboard run dome --as vesta -- qel-rs485 2 'who is there?'");
    EXPECT_EQ(asked.code, 0) << asked.err;
    EXPECT_EQ(asked.out, "who is there?\n");
    const Outcome nobody = run("qelboard run box --as vesta -- qel-rs485 9 hello");
    EXPECT_EQ(nobody.code, 1);
    EXPECT_TRUE(holds(nobody.err, "there is no port 9")) << nobody.err;
}

}  // namespace
}  // namespace qel::test
