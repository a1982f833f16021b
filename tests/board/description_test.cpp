// What a board file may say, and what is said to somebody whose file is wrong.
#include "board/core/description.h"

#include <gtest/gtest.h>

#include "board/core/board.h"

using qel::board::Board;
using qel::board::DescriptionError;

namespace {

struct Wrong {
    const char *what;
    const char *text;
    int line;
    const char *key;
    const char *says;
};

const Wrong kWrong[] = {
    {"no TOML", "name = \"x\"\n[[chip]\n", 2, "", "line 2"},
    {"a key twice", "name = \"x\"\nname = \"y\"\n", 2, "", "line 2"},
    {"no name", "[[chip]]\n", 1, "name", "is missing"},
    {"no chip", "name = \"x\"\n", 1, "chip", "at least one"},
    {"chip is no table", "name = \"x\"\nchip = 3\n", 2, "chip", "must be a table"},
    {"a key nobody knows", "name = \"x\"\n[[chip]]\n[chip.gpio]\nlines = 4\nlnes = 4\n", 5, "chip.gpio.lnes",
     "is not a known key"},
    {"a device nobody knows", "name = \"x\"\n[[chip]]\n[chip.toaster]\n", 3, "chip.toaster",
     "is not a known key"},
    {"a key of the second chip", "name = \"x\"\n[[chip]]\n[[chip]]\ncolour = 1\n", 4, "chip.colour",
     "is not a known key"},
    {"a text for a number", "name = \"x\"\n[[chip]]\n[chip.gpio]\nlines = \"4\"\n", 4, "chip.gpio.lines",
     "from 1 to 1024"},
    {"a number out of range", "name = \"x\"\n[[chip]]\n[chip.gpio]\nlines = 1025\n", 4, "chip.gpio.lines",
     "from 1 to 1024"},
    {"an element out of range", "name = \"x\"\n[[chip]]\n[chip.gpio]\nlines = 4\nhigh = [3, 4]\n", 5,
     "chip.gpio.high", "from 0 to 3"},
    {"a line of a port that is not in the map",
     "name = \"x\"\n[[chip]]\n[chip.misc]\n[[chip.tty]]\nnode = \"/dev/ttyS1\"\nport = 1\n", 6,
     "chip.tty.port", "is not in the port map"},
    {"two lines of one port",
     "name = \"x\"\n[[chip]]\n[chip.misc]\n[[chip.port]]\nnumber = 1\n[[chip.uart]]\nnumber = 1\nport = 1\n"
     "[chip.mcu]\nraw = { port = 1 }\n",
     10, "chip.mcu.raw.port", "another line has it"},
    {"a wire to itself", "name = \"x\"\n[[chip]]\n[chip.gpio]\nwire = [{ from = 1, to = 1 }]\n", 4,
     "chip.gpio.wire", "two different lines"},
    {"no product name", "name = \"x\"\n[[chip]]\n[chip.hwid]\n", 3, "chip.hwid.name", "is missing"},
    {"a product name of 32 bytes",
     "name = \"x\"\n[[chip]]\n[chip.hwid]\nname = \"01234567890123456789012345678901\"\n", 4,
     "chip.hwid.name", "1 to 31"},
    {"half a byte", "name = \"x\"\n[[chip]]\n[chip.hwid]\nname = \"n\"\ninfo = \"0 1\"\n", 5,
     "chip.hwid.info", "hexadecimal"},
    {"one byte too many",
     "name = \"x\"\n[[chip]]\n[chip.hwid]\nname = \"n\"\n[chip.hwid.bytes]\n455 = \"0102\"\n", 6,
     "chip.hwid.bytes.455", "more than 1 bytes"},
    {"a property that does not exist",
     "name = \"x\"\n[[chip]]\n[chip.hwid]\nname = \"n\"\nproperties = { 7 = 1 }\n", 5,
     "chip.hwid.properties.7", "not the number of a board property"},
    {"an error that does not exist", "name = \"x\"\n[[chip]]\n[chip.machine]\nunmount = \"EBROKEN\"\n", 4,
     "chip.machine.unmount", "name of an error"},
    {"a relative file", "name = \"x\"\n[[chip]]\n[chip.files]\n\"etc/x\" = \"\"\n", 4, "chip.files.etc/x",
     "begins with"},
    {"the same node twice", "name = \"x\"\n[[chip]]\n[[chip.gpio]]\n[[chip.gpio]]\n", 4, "chip.gpio",
     "exists already"},
};

}  // namespace

TEST(BoardDescription, NamesTheLineAndTheKeyOfWhatIsWrong) {
    for (const Wrong &wrong : kWrong) {
        SCOPED_TRACE(wrong.what);
        try {
            const Board board(wrong.text);
            ADD_FAILURE() << "was taken";
        } catch (const DescriptionError &error) {
            EXPECT_EQ(error.line(), wrong.line);
            EXPECT_EQ(error.key(), wrong.key);
            EXPECT_NE(std::string(error.what()).find(wrong.says), std::string::npos) << error.what();
        }
    }
}

TEST(BoardDescription, OfEveryShippedBoardIsWhole) {
    const auto boards = qel::board::shipped_boards();
    EXPECT_GE(boards.size(), 5U);
    for (const std::string &name : boards) {
        SCOPED_TRACE(name);
        const Board board(qel::board::find_board(name));
        EXPECT_EQ(board.name(), name);
        EXPECT_GE(board.chip_count(), 1U);
    }
}

TEST(BoardDescription, OfAnUnknownNameListsTheKnownOnes) {
    try {
        qel::board::find_board("dromedary");
        ADD_FAILURE();
    } catch (const DescriptionError &error) {
        EXPECT_NE(std::string(error.what()).find("dome"), std::string::npos) << error.what();
    }
    EXPECT_THROW(qel::board::find_board("./missing.toml"), DescriptionError);
}
