// `qelboard run` as a shell sees it: exit codes, signals, what it starts and what it leaves behind.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>
#include <array>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "board/steps/step_names.h"
#include "tests/support/library.h"

namespace fs = std::filesystem;
using namespace qel::test;

namespace {

using Words = std::vector<std::string>;

const std::string kQelctl = QEL_BIN_DIR "/qelctl";

std::string read_text(const fs::path &path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

class RunTest : public testing::Test {
protected:
    RunTest() {
        std::string path = (fs::temp_directory_path() / "qelrun-XXXXXX").string();
        if (mkdtemp(path.data()) == nullptr) abort();
        dir_ = path;
        fs::create_directory(dir_ / "tmp");
    }
    ~RunTest() override {
        // A server that is just ending may remove things too.
        std::error_code busy;
        for (int i = 0; i < 1000 && (fs::remove_all(dir_, busy), busy); ++i) usleep(10000);
    }

    // Starts it with the test's own folder for temporary files; output goes to files beside that.
    pid_t start(const Words &words) const {
        fflush(nullptr);
        const pid_t pid = fork();
        if (pid != 0) return pid;
        setpgid(0, 0);
        setenv("TMPDIR", (dir_ / "tmp").c_str(), 1);
        unsetenv("QELBOARD_SOCKET");
        for (const auto &[name, fd] : {std::pair("out", STDOUT_FILENO), {"err", STDERR_FILENO}})
            dup2(::open((dir_ / name).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), fd);
        std::vector<char *> arguments = {const_cast<char *>(QEL_BIN_DIR "/qelboard")};
        for (const std::string &word : words) arguments.push_back(const_cast<char *>(word.c_str()));
        arguments.push_back(nullptr);
        execv(arguments[0], arguments.data());
        _exit(99);
    }
    int run(const Words &words) const { return wait_for_child(start(words), 60000); }
    int shell(const std::string &script, Words options = {}) const {
        Words words = {"run", "box"};
        words.insert(words.end(), options.begin(), options.end());
        words.insert(words.end(), {"--", "sh", "-c", script});
        return run(words);
    }
    std::string out() const { return read_text(dir_ / "out"); }
    std::string err() const { return read_text(dir_ / "err"); }
    // Waits until the command has said so.
    bool says(const std::string &text) const {
        for (int i = 0; i < 3000 && out().find(text) == std::string::npos; ++i) usleep(10000);
        return out().find(text) != std::string::npos;
    }
    // A board that nobody keeps leaves nothing, at the latest when its server has noticed.
    bool leaves_nothing() const {
        for (int i = 0; i < 1000 && !fs::is_empty(dir_ / "tmp"); ++i) usleep(10000);
        return fs::is_empty(dir_ / "tmp");
    }

    fs::path dir_;
};

}  // namespace

TEST_F(RunTest, EndsWithTheStatusOfTheCommand) {
    struct Case {
        Words words;
        int code;
        const char *error;
    };
    const std::string file = (dir_ / "tmp").string();
    const Case cases[] = {
        {{"run", "box", "--", "true"}, 0, ""},
        {{"run", "box", "--", "sh", "-c", "exit 7"}, 7, ""},
        {{"run", "box", "--", "sh", "-c", "kill -TERM $$"}, 128 + SIGTERM, ""},
        {{"run", "box", "--", "/no/such/program"}, 127, "cannot run /no/such/program: No such file"},
        {{"run", "box", "--", file}, 126, "Permission denied"},
        {{"run", "box"}, 125, "run needs a command"},
        {{"run", "box", "true"}, 125, "true"},
        {{"run", "no-such-board", "--", "true"}, 125, "there is no board \"no-such-board\""},
        {{"run", "box", "--chip", "1", "--", "true"}, 125, "board box has no chip 1"},
        {{"run", "box", "--as", "sixteen-letters-", "--", "true"}, 125, "at most 15"},
        {{"run", "box", "--fault", "nonsense", "--", "true"}, 125, "nonsense"},
        {{"run", "box", "--emulator", "qemu-arm", "--", "true"}, 125, "--preload"},
        {{"run", "box", "--fault", "step QEL_noInit fail", "--", "true"},
         125,
         "there are: QEL_adapterPreInit"},
        {{"run", "box", "--fault", "chip x step QEL_comInit fail", "--", "true"}, 125, "\"x\" is not a chip"},
        {{"serve", "box", "--fault", "step QEL_comInit fail"}, 1, "qelboard run BOARD --fault"},
        {{"fault", "step QEL_comInit fail"}, 1, "qelboard run BOARD --fault"},
        {{"show", "--dir", file}, 1, "no board answers"},
        {{"fault", "/dev/gpio read fail EIO"}, 1, "which board?"},
        {{"frobnicate"}, 2, "frobnicate"},
    };
    for (const Case &one : cases) {
        std::string words;
        for (const std::string &word : one.words) words += word + " ";
        EXPECT_EQ(run(one.words), one.code) << words << err();
        EXPECT_NE(err().find(one.error), std::string::npos) << words << err();
    }
    EXPECT_TRUE(leaves_nothing());
}

TEST_F(RunTest, PassesSignalsOn) {
    const pid_t pid = start(
        {"run", "box", "--", "sh", "-c", "trap 'exit 42' TERM; echo ready; while :; do sleep 0.05; done"});
    EXPECT_TRUE(says("ready"));
    kill(pid, SIGTERM);
    EXPECT_EQ(wait_for_child(pid, 30000), 42) << err();
    EXPECT_TRUE(leaves_nothing());
}

TEST_F(RunTest, NoticesACommandThatEndsAtOnce) {
    setenv("LD_PRELOAD", QEL_SLOW_FORK, 1);
    setenv("ASAN_OPTIONS", "verify_asan_link_order=0", 1);
    const pid_t pid = start({"run", "box", "--", "sh", "-c", "exit 7"});
    unsetenv("LD_PRELOAD");
    unsetenv("ASAN_OPTIONS");
    EXPECT_EQ(wait_for_child(pid, 30000), 7) << err();
    EXPECT_TRUE(leaves_nothing());
}

// Each run meets a server of another one that starts, serves or ends at that moment.
TEST_F(RunTest, SharesAFolderWithRunsThatComeAndGo) {
    const std::string board = (dir_ / "kept").string();
    constexpr int kAtOnce = 3;
    for (int round = 0; round < 15; ++round) {
        std::array<pid_t, kAtOnce> runs{};
        for (pid_t &pid : runs) pid = start({"run", "box", "--dir", board, "--", "true"});
        for (const pid_t pid : runs) ASSERT_EQ(wait_for_child(pid, 60000), 0) << err();
    }
    EXPECT_TRUE(leaves_nothing());
}

TEST_F(RunTest, LeavesNothingBehindWhenItIsKilled) {
    const pid_t pid = start({"run", "twin", "--as", "vesta", "--", "sh", "-c", "echo ready; exec sleep 1"});
    EXPECT_TRUE(says("ready"));
    EXPECT_FALSE(fs::is_empty(dir_ / "tmp"));
    kill(pid, SIGKILL);
    EXPECT_EQ(wait_for_child(pid, 30000), 128 + SIGKILL);
    EXPECT_TRUE(leaves_nothing());
}

TEST_F(RunTest, LeavesNoServerBehindWhenItIsKilledAtItsStart) {
    for (int i = 0; i < 25; ++i) {
        const pid_t pid = start({"run", "box", "--", "true"});
        usleep(static_cast<useconds_t>(i * 2000));
        kill(pid, SIGKILL);
        wait_for_child(pid, 30000);
    }
    // At worst an empty folder stays: a server would hold the lock in it.
    const auto is_served = [](const fs::path &folder) {
        const int lock = ::open((folder / "server.lock").c_str(), O_RDWR | O_CLOEXEC);
        const bool served = lock >= 0 && flock(lock, LOCK_EX | LOCK_NB) != 0;
        if (lock >= 0) close(lock);
        return served;
    };
    // It may still be clearing up, its lock among the first.
    const auto is_busy = [&](const fs::path &folder) {
        return is_served(folder) || fs::exists(folder / "chip0");
    };
    for (const auto &entry : fs::directory_iterator(dir_ / "tmp")) {
        for (int i = 0; i < 1000 && is_busy(entry.path()); ++i) usleep(10000);
        EXPECT_FALSE(is_served(entry.path())) << entry.path();
    }
}

TEST_F(RunTest, JoinsTheServerOfAFolder) {
    const std::string board = (dir_ / "kept").string();
    const std::string inner = QEL_BIN_DIR "/qelboard ";
    // What runs inside names the board by its folder or needs not name it at all.
    EXPECT_EQ(shell("echo outer $QELBOARD_SOCKET; " + inner + "run box --dir " + board +
                        " -- sh -c 'echo inner $QELBOARD_SOCKET' && " + inner +
                        "poke /dev/gpio drive 3 1 && " + inner + "show --dir " + board,
                    {"--dir", board}),
              0)
        << err();
    const std::string text = out();
    EXPECT_NE(text.find("outer " + board + "/server\ninner " + board + "/server\n"), std::string::npos)
        << text;
    EXPECT_NE(text.find("ir-cut-a    in             1"), std::string::npos) << text;
    // The folder stays, and stays that board's.
    EXPECT_EQ(run({"run", "dome", "--dir", board, "--", "true"}), 125);
    EXPECT_NE(err().find("holds board box, not dome"), std::string::npos) << err();
    EXPECT_EQ(run({"run", "box", "--dir", board, "--", "true"}), 0) << err();
    // Two that share no folder share nothing.
    EXPECT_EQ(shell("echo $QELBOARD_SOCKET; " + inner + "run box -- sh -c 'echo $QELBOARD_SOCKET'"), 0);
    const std::string sockets = out();
    const size_t end = sockets.find('\n');
    EXPECT_NE(sockets.substr(0, end), sockets.substr(end + 1, end));
    EXPECT_TRUE(leaves_nothing());
}

TEST_F(RunTest, SaysWhenTheServerDies) {
    const std::string board = (dir_ / "kept").string();
    EXPECT_EQ(shell(QEL_BIN_DIR "/qelboard poke --dir " + board + " /dev/gpio drive 3 1; " +
                        // The server is the process in a session of its own that this run started.
                        "for p in $(cat /proc/$PPID/task/$PPID/children); do "
                        "[ $p != $$ ] && kill -9 $p; done; sleep 0.5",
                    {"--dir", board}),
              125);
    EXPECT_NE(err().find("the board server died"), std::string::npos) << err();
    // Its socket is in the way of nobody.
    EXPECT_EQ(run({"run", "box", "--dir", board, "--", "true"}), 0) << err();
}

TEST_F(RunTest, StartsTheOtherChipsSoftware) {
    const std::string script =
        "sleep 0.3; for p in $(cat /proc/$PPID/task/$PPID/children); do "
        "echo $(cat /proc/$p/comm) $(tr '\\0' ' ' < /proc/$p/cmdline); done";
    setenv("OSA_LOG", "info", 1);
    EXPECT_EQ(run({"run", "twin", "--as", "vesta", "--", "sh", "-c", script}), 0) << err();
    unsetenv("OSA_LOG");
    EXPECT_NE(out().find("qelboard resident"), std::string::npos) << out();
    EXPECT_NE(out().find("vesta "), std::string::npos) << out();
    EXPECT_NE(err().find("[chip 1] "), std::string::npos) << err();
    for (const Words &options : {Words{"--no-residents", "--as", "vesta"}, Words{"--as", "somebody"}}) {
        Words words = {"run", "twin"};
        words.insert(words.end(), options.begin(), options.end());
        words.insert(words.end(), {"--", "sh", "-c", script});
        EXPECT_EQ(run(words), 0);
        EXPECT_EQ(out().find("qelboard resident"), std::string::npos) << out();
    }
}

// The emulator itself is not the one to preload for: only what it runs is.
TEST_F(RunTest, PreloadsThroughAnEmulator) {
    const std::string emulator = (dir_ / "emulator.sh").string();
    const std::string preload = (dir_ / "libqelboard.so").string();
    std::ofstream(emulator) << "echo \"$@\"; echo \"own: $LD_PRELOAD, name: $QELBOARD_AS\"; exit 3\n";
    std::ofstream(preload) << "";
    const Words options = {"--as",      "vesta", "--emulator", "sh " + emulator + " -L root",
                           "--preload", preload};
    const auto run_on = [&](const char *board) {
        Words words = {"run", board};
        words.insert(words.end(), options.begin(), options.end());
        words.insert(words.end(), {"--", "program", "--option"});
        return run(words);
    };
    EXPECT_EQ(run_on("box"), 3) << err();
    EXPECT_EQ(out(), "-L root -E LD_PRELOAD=" + preload + " program --option\nown: , name: vesta\n");
    // A unit of two chips needs a second emulated process, from beside that library.
    EXPECT_EQ(run_on("twin"), 125);
    EXPECT_NE(err().find("--no-residents"), std::string::npos) << err();
}

TEST_F(RunTest, StartsTheLibraryOnEveryShippedBoardWithoutAnError) {
    ASSERT_EQ(run({"boards"}), 0);
    std::istringstream boards(out());
    setenv("OSA_LOG", "error", 1);
    int count = 0;
    for (std::string board; boards >> board; std::getline(boards, board), ++count) {
        EXPECT_EQ(run({"run", board, "--as", "vesta", "--", kQelctl, "version"}), 0) << board;
        std::istringstream log(err());
        for (std::string line; std::getline(log, line);) {
            // No board has a watchdog yet, which a chip feeds while it waits for the others.
            const bool wrong =
                line.find("ERROR") != std::string::npos || line.find("Fail") != std::string::npos;
            EXPECT_TRUE(!wrong || line.find("(QEL_wdtFeed|") != std::string::npos) << board << ": " << line;
        }
    }
    unsetenv("OSA_LOG");
    EXPECT_GE(count, 8);
}

TEST_F(RunTest, WritesTracesAndBoardFiles) {
    const std::string trace = (dir_ / "trace.jsonl").string();
    const std::string file = (dir_ / "mine.toml").string();
    EXPECT_EQ(run({"new", file}), 0) << err();
    EXPECT_EQ(run({"new", file}), 1);  // would write over it
    EXPECT_EQ(run({"show", file, "--json"}), 0) << err();
    EXPECT_EQ(run({"run", file, "--as", "vesta", "--trace", trace, "--", kQelctl, "info"}), 0) << err();
    EXPECT_EQ(run({"trace", "read", trace}), 0) << err();
    EXPECT_NE(out().find("vesta"), std::string::npos) << out();
    EXPECT_NE(out().find("/dev/qecHwid"), std::string::npos) << out();
    const std::string lines = (dir_ / "lines.jsonl").string();
    EXPECT_EQ(run({"run", "dome", "--trace", lines, "--", kQelctl, "link", "send", "1", "--wait"}), 0)
        << err();
    EXPECT_EQ(run({"trace", "session", lines, "/dev/ttyS7"}), 0) << err();
    EXPECT_NE(out().find("> aa 10 00 02 01 bd"), std::string::npos) << out();
    EXPECT_EQ(run({"trace", "session", lines, "/dev/ttyS7", "--opening", "2"}), 1);
    EXPECT_NE(err().find("has no bytes of /dev/ttyS7 on chip 0"), std::string::npos) << err();
}

#define QEL_TEXT(name) #name,

TEST_F(RunTest, MakesAnyOneStepOfTheChainsFail) {
    const char *const steps[] = {QEL_EACH_START_UP_STEP(QEL_TEXT) QEL_EACH_SHUT_DOWN_STEP(QEL_TEXT)};
    std::string script = "status=0; export OSA_LOG=error;";
    for (const char *step : steps)
        script += " QELBOARD_FAIL_STEPS=" + std::string(step) + " " + kQelctl +
                  " version >/dev/null || status=1; printf '\\n.\\n' >&2;";
    ASSERT_EQ(shell(script + " exit $status", {"--fault", "step QEL_comInit fail", "--as", "vesta"}), 0)
        << err();
    // What each load told, one after the other. Two steps are told of under a neighbour's name.
    std::istringstream loads(err());
    for (const char *step : steps) {
        std::string told;
        for (std::string line; std::getline(loads, line) && line != ".";) told += line + "\n";
        const std::string name = step == std::string("QEL_commlenInit")     ? "QEL_hwidExInit"
                                 : step == std::string("QEL_adapterDeinit") ? "QEL_adapterPreDeinit"
                                                                            : step;
        EXPECT_NE(told.find("): " + name + " "), std::string::npos) << step << " told:\n" << told;
    }
}

TEST_F(RunTest, FailsTheStepOfTheChipMeant) {
    setenv("OSA_LOG", "error", 1);
    EXPECT_EQ(run({"run", "twin", "--as", "vesta", "--fault", "chip 1 step QEL_heatInit fail", "--", kQelctl,
                   "version"}),
              0);
    unsetenv("OSA_LOG");
    EXPECT_NE(err().find("[chip 1]"), std::string::npos) << err();
    EXPECT_NE(err().find("QEL_heatInit execute Error"), std::string::npos) << err();
    EXPECT_EQ(err().find("QEL_heatInit"), err().rfind("QEL_heatInit")) << err();
}
