// The examples do what their own comments and the documentation say of them.
#include <gtest/gtest.h>

#include <string>

#include "tests/tools/command.h"

namespace qel::test {
namespace {

TEST(Examples, TheTourPassesOnEveryBoardAndCallsTheOtherChip) {
    for (const std::string board : {"box", "dome", "traffic", "twin"}) {
        const Outcome tour = run("qelboard run " + board + " --as vesta -- qel-tour");
        expect_end(tour, 0, " 0 failed\n");
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
        SCOPED_TRACE(fault);
        expect_end(run("qelboard run twin --as vesta --fault '" + fault + "' -- qel-tour"), 1, "FAIL  ");
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
    expect_end(outcome, 0, "chip 1 is up for ");
    expect_end(outcome, 0, "chip 1 serves");
}

TEST(Examples, TheSmallestProgramNamesTheBoardOrSaysWhyNot) {
    expect_end(run("qelboard run box -- qel-minimal"), 0, "BX-200, board type 3\n");
    expect_end(run("qelboard run box --fault '/dev/qecHwid open fail ENODEV' -- qel-minimal"), 1,
               "the library does not know this board");
}

TEST(Examples, AQuestionOnAPortGetsItsAnswer) {
    const Outcome asked = run("qelboard run dome --as vesta -- qel-rs485 2 'who is there?'");
    EXPECT_EQ(asked.code, 0) << asked.err;
    EXPECT_EQ(asked.out, "who is there?\n");
    expect_end(run("qelboard run box --as vesta -- qel-rs485 9 hello"), 1, "there is no port 9");
}

}  // namespace
}  // namespace qel::test
