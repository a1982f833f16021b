// A process on a board: what the gate's operations do there, and what a board keeps and tells.
#include <gtest/gtest.h>
#include <pty.h>
#include <sys/sem.h>
#include <unistd.h>
#include <array>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "board/core/trace.h"
#include "tests/board/probe.h"
#include "tests/support/library.h"

using namespace qel::test;

namespace {

class TemporaryDir {
public:
    TemporaryDir() { EXPECT_NE(mkdtemp(path_), nullptr); }
    ~TemporaryDir() { std::filesystem::remove_all(path_); }
    std::string path() const { return path_; }

private:
    char path_[32] = "/tmp/qel-board-XXXXXX";
};

std::string own_name() {
    char name[32] = {};
    const int fd = ops().open("/proc/self/comm", O_RDONLY, 0);
    EXPECT_GT(ops().read(fd, name, sizeof(name) - 1), 0);
    EXPECT_EQ(ops().close(fd), 0);
    return name;
}

}  // namespace

TEST(Process, WithoutABoardReachesNothing) {
    EXPECT_EQ(run_in_child([] {
                  unsetenv("QELBOARD_SOCKET");
                  const qel_world *world = qel_world_hook();
                  EXPECT_NE(world, nullptr);
                  qel_os_file_info info{};
                  char path[64];
                  EXPECT_EQ(world->os->open("/dev/null", O_RDWR, 0), -ENODEV);
                  EXPECT_EQ(world->os->stat("/etc/passwd", &info), -ENODEV);
                  EXPECT_EQ(world->os->run("true"), -ENODEV);
                  EXPECT_EQ(world->os->reboot(1), -ENODEV);
                  EXPECT_EQ(world->map_path("/tmp/x", path, sizeof(path)), -ENODEV);
                  return 0;
              }),
              0);
}

TEST(Process, WithAServerThatIsNotThereReachesNothing) {
    EXPECT_EQ(run_in_child([] {
                  setenv("QELBOARD_SOCKET", "/nonexistent/socket", 1);
                  EXPECT_EQ(qel_world_hook()->os->open("/dev/null", O_RDWR, 0), -ENODEV);
                  return 0;
              }),
              0);
}

TEST(Process, TakesANameAndGivesItBack) {
    const std::string before = process_name();
    {
        OnBoard here("", {}, {.chip = 0, .as = "VideoDaemon"});
        EXPECT_EQ(own_name(), "VideoDaemon\n");
    }
    EXPECT_EQ(process_name(), before);
}

TEST(Process, LivesOnOneBoardAtATimeBehindOneWorld) {
    const qel_world *world = qel_world_hook();
    uint32_t salt = 0;
    for (const uint32_t scale : {1U, 100U}) {
        OnBoard here("", {.dir = "", .time_scale = scale});
        EXPECT_EQ(qel_world_hook(), world);
        EXPECT_EQ(world->time_scale, scale);
        EXPECT_TRUE(std::filesystem::is_directory(world->run_dir));
        EXPECT_NE(world->ipc_salt, 0U);
        EXPECT_NE(world->ipc_salt, salt);
        salt = world->ipc_salt;
        Board other("name = \"other\"\n[[chip]]\n");
        EXPECT_THROW(other.enter(), std::logic_error);
    }
    EXPECT_FALSE(std::filesystem::exists(world->run_dir));
}

TEST(Process, MayLoadTheLibraryOnOneBoardAfterTheOther) {
    const struct {
        const char *board;
        uint32_t channels;
    } kBoards[] = {{"dome", 1}, {"traffic", 2}, {"box", 1}};
    for (const auto &one : kBoards) {
        Board board(find_board(one.board));
        board.enter({.chip = 0, .as = "vesta"});
        const Library library;
        EXPECT_EQ(library.function<int(int)>("QEL_productGetHwidInfo")(1), static_cast<int>(one.channels))
            << one.board;
        board.leave();
    }
}

TEST(Process, OpensItsChipsNodes) {
    const std::string tables =
        "[chip.probe]\nnode = \"/dev/master\"\n[[chip]]\n[chip.probe]\nnode = \"/dev/slave\"\n";
    OnBoard here(tables, {}, {.chip = 1, .as = ""});
    EXPECT_EQ(ops().open("/dev/master", O_RDWR, 0), -ENOENT);
    EXPECT_GE(ops().open("/dev/slave", O_RDWR, 0), 0);
    EXPECT_GE(ops().open("/dev/../dev//slave", O_RDWR, 0), 0);
    EXPECT_EQ(qel_world_hook()->chip, 1U);
}

class ProbeFd : public testing::Test {
protected:
    OnBoard here_{"[chip.probe]\nbytes = 8\n"};
    const qel_os_ops &os_ = ops();
    int fd_ = os_.open("/dev/probe", O_RDWR, 0);
};

TEST_F(ProbeFd, CarriesRecordsOverAndBack) {
    std::array<uint8_t, 10> record = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    EXPECT_EQ(os_.ioctl(fd_, kEcho, record.data()), 8);
    EXPECT_EQ(record, (std::array<uint8_t, 10>{8, 7, 6, 5, 4, 3, 2, 1, 9, 10}));
    EXPECT_EQ(os_.ioctl(fd_, kEcho, nullptr), -EFAULT);
    EXPECT_EQ(os_.ioctl(fd_, kUnknown, record.data()), -ENOTTY);
    EXPECT_EQ(os_.ioctl(fd_, kUnknown, nullptr), -ENOTTY);
}

TEST_F(ProbeFd, ReadsAndWritesUpToTheLastByte) {
    char bytes[16] = {};
    EXPECT_EQ(os_.write(fd_, "0123456789", 10), 8);
    EXPECT_EQ(os_.write(fd_, "x", 1), -ENOSPC);
    EXPECT_EQ(os_.seek(fd_, 7, SEEK_SET), 7);
    EXPECT_EQ(os_.read(fd_, bytes, sizeof(bytes)), 1);
    EXPECT_EQ(bytes[0], '7');
    EXPECT_EQ(os_.read(fd_, bytes, sizeof(bytes)), 0);
    EXPECT_EQ(os_.write(fd_, nullptr, 1), -EFAULT);
    void *memory = nullptr;
    EXPECT_EQ(os_.map(fd_, 4096, 3, 1, 0, &memory), -ENODEV);
    termios settings{};
    EXPECT_EQ(os_.term_get(fd_, &settings), -ENOTTY);
}

TEST_F(ProbeFd, IsGoneOnceClosed) {
    uint8_t record[8] = {};
    EXPECT_EQ(os_.close(fd_), 0);
    EXPECT_LT(os_.ioctl(fd_, kEcho, record), 0);  // EBADF; ENOSYS from an emulator that knows no such request
    EXPECT_EQ(os_.close(fd_), -EBADF);
    // A file that gets the number is a file, also when the device was closed behind the gate's back.
    fd_ = os_.open("/dev/probe", O_RDWR, 0);
    ::close(fd_);
    EXPECT_EQ(os_.open("/tmp/file", O_RDWR | O_CREAT, 0600), fd_);
    EXPECT_EQ(os_.write(fd_, "abcdefghijkl", 12), 12);
}

TEST_F(ProbeFd, IsGoneOnceTheProcessLeavesTheBoard) {
    here_.board.leave();
    uint8_t record[8] = {};
    EXPECT_EQ(fcntl(fd_, F_GETFD), -1);
    EXPECT_LT(os_.ioctl(fd_, kEcho, record), 0);  // EBADF; ENOSYS from an emulator that knows no such request
}

TEST(Board, NamesItsLinesToTerminalCalls) {
    int master = -1;
    int slave = -1;
    char name[64];
    ASSERT_EQ(openpty(&master, &slave, name, nullptr, nullptr), 0);
    OnBoard here(std::string("[chip.probe]\nnode = \"/dev/ttyS1\"\ntty = \"") + name + "\"\n");
    const int fd = ops().open("/dev/ttyS1", O_RDWR, 0);
    ASSERT_GE(fd, 0);
    termios settings{};
    EXPECT_EQ(ops().term_get(fd, &settings), 0);
    settings.c_lflag = 0;
    settings.c_oflag = 0;
    settings.c_cflag = CREAD | CS7 | PARENB;  // the kernel's pty refuses both
    cfsetispeed(&settings, B19200);
    cfsetospeed(&settings, B19200);
    EXPECT_EQ(ops().term_set(fd, TCSANOW, &settings), 0);
    termios again{};
    EXPECT_EQ(ops().term_get(fd, &again), 0);
    EXPECT_EQ(again.c_cflag & (CSIZE | PARENB), static_cast<tcflag_t>(CS7 | PARENB));
    EXPECT_EQ(cfgetospeed(&again), static_cast<speed_t>(B19200));
    uint32_t status = 0;
    EXPECT_EQ(ops().line_status(fd, &status), 0);
    EXPECT_EQ(status, 1U);
    EXPECT_EQ(ops().write(fd, "hello", 5), 5);
    char bytes[8] = {};
    EXPECT_EQ(::read(master, bytes, sizeof(bytes)), 5);
    EXPECT_STREQ(bytes, "hello");
    uint8_t record[8] = {};
    EXPECT_EQ(ops().ioctl(fd, kEcho, record), 8) << "requests of a line go to its model";
    EXPECT_EQ(ops().close(fd), 0);
    ::close(master);
    ::close(slave);
}

TEST(Board, WritesDownWhatTheMachineIsAskedAndDoesNothing) {
    OnBoard here("[chip.machine]\nunmount = \"EBUSY\"\nrun_status = 3\nreboot = \"EPERM\"\n[chip.misc]\n");
    EXPECT_EQ(ops().unmount("/mnt/pd"), -EBUSY);
    EXPECT_EQ(ops().run("touch /tmp/qel-board-was-here"), 3);
    EXPECT_EQ(ops().reboot(0x1234567), -EPERM);
    const int fd = ops().open("/dev/qecMisc", O_RDWR, 0);
    EXPECT_EQ(ops().ioctl(fd, 0xC0044D05, nullptr), -EPERM);
    EXPECT_EQ(here.board.take_events(),
              (std::vector<std::string>{"chip 0: umount /mnt/pd", "chip 0: run touch /tmp/qel-board-was-here",
                                        "chip 0: reboot 0x1234567", "chip 0: reboot by /dev/qecMisc"}));
    EXPECT_TRUE(here.board.take_events().empty());
    EXPECT_FALSE(std::filesystem::exists("/tmp/qel-board-was-here"));
}

TEST(Board, EndsTheProcessThatRebootsWhereItsDescriptionSaysSo) {
    for (const bool by_misc : {false, true}) {
        const int code = run_in_child([=] {
            OnBoard here("[chip.machine]\nreboot = \"ends\"\n[chip.misc]\n");
            if (by_misc) ops().ioctl(ops().open("/dev/qecMisc", O_RDWR, 0), 0xC0044D05, nullptr);
            ops().reboot(0x1234567);
            return 0;
        });
        EXPECT_EQ(code, 128 + SIGKILL);
    }
}

TEST(Board, KeepsDevicesAndFilesInItsDirectory) {
    const TemporaryDir kept;
    const std::string tables =
        "[chip.probe]\nbytes = 4\n[chip.files]\n\"/mnt/pd/a\" = \"a\"\n\"/tmp/b\" = \"b\"\n";
    const Options options{.dir = kept.path(), .time_scale = 1};
    qel_os_file_info info{};
    {
        OnBoard here(tables, options);
        const int fd = ops().open("/dev/probe", O_RDWR, 0);
        EXPECT_EQ(ops().write(fd, "abcd", 4), 4);
        EXPECT_EQ(ops().remove("/mnt/pd/a"), 0);
        EXPECT_EQ(ops().remove("/tmp/b"), 0);
        EXPECT_EQ(ops().close(ops().open("/mnt/pd/new", O_CREAT | O_RDWR, 0600)), 0);
        EXPECT_EQ(ops().close(ops().open("/tmp/new", O_CREAT | O_RDWR, 0600)), 0);
        EXPECT_THROW(Board second("name = \"x\"\n[[chip]]\n", options), std::runtime_error)
            << "one at a time";
    }
    OnBoard here(tables, options);
    char bytes[5] = {};
    EXPECT_EQ(ops().read(ops().open("/dev/probe", O_RDWR, 0), bytes, 4), 4);
    EXPECT_STREQ(bytes, "abcd");
    EXPECT_EQ(ops().stat("/mnt/pd/a", &info), -ENOENT) << "what was deleted stays deleted";
    EXPECT_EQ(ops().stat("/mnt/pd/new", &info), 0);
    EXPECT_EQ(ops().stat("/tmp/new", &info), -ENOENT) << "memory is empty after a start";
    EXPECT_EQ(ops().stat("/tmp/b", &info), 0);
}

TEST(Board, CleansUpBehindBoardsThatWereKilled) {
    const TemporaryDir temporary;
    const auto count = [&] {
        return std::distance(std::filesystem::directory_iterator(temporary.path()), {});
    };
    setenv("TMPDIR", temporary.path().c_str(), 1);
    int semaphore = -1;
    {
        const Board living("name = \"living\"\n[[chip]]\n");
        EXPECT_EQ(run_in_child([] {
                      const Board killed("name = \"killed\"\n[[chip]]\n");
                      const int made = semget(IPC_PRIVATE, 1, IPC_CREAT | 0600);
                      std::ofstream(killed.welcome(0).run_dir + "/sysv") << "sem " << made << "\n";
                      std::ofstream(std::string(getenv("TMPDIR")) + "/made") << made;
                      raise(SIGKILL);
                      return 0;
                  }),
                  128 + SIGKILL);
        std::ifstream(temporary.path() + "/made") >> semaphore;
        EXPECT_EQ(semctl(semaphore, 0, GETVAL), 0);
        EXPECT_EQ(count(), 3) << "the living one's, the killed one's, and the note";
        const Board next("name = \"next\"\n[[chip]]\n");
        EXPECT_EQ(count(), 3) << "the living one's, the next one's, and the note";
        EXPECT_TRUE(std::filesystem::exists(living.welcome(0).root_dir));
        EXPECT_EQ(semctl(semaphore, 0, GETVAL), -1);
    }
    EXPECT_EQ(count(), 1);
    unsetenv("TMPDIR");
}

TEST(Board, LeavesFoldersThatAreKept) {
    namespace fs = std::filesystem;
    const TemporaryDir temporary;
    const fs::path served = temporary.path() + "/qelboard-served";
    const fs::path kept = temporary.path() + "/qelboard-kept";
    const fs::path forgotten = temporary.path() + "/qelboard-forgotten";
    setenv("TMPDIR", temporary.path().c_str(), 1);
    {
        const Board living("name = \"living\"\n[[chip]]\n", {.dir = served.string()});
        for (const fs::path &dir : {served, kept, forgotten}) fs::create_directories(dir / "chip0");
        std::ofstream(kept / "board") << "box\n";
        const auto long_ago = fs::file_time_type::clock::now() - std::chrono::hours(2);
        for (const fs::path &dir : {served, kept, forgotten}) fs::last_write_time(dir, long_ago);
        const Board next("name = \"next\"\n[[chip]]\n");
        EXPECT_TRUE(fs::exists(served / "chip0"));
        EXPECT_TRUE(fs::exists(kept / "chip0"));
        EXPECT_FALSE(fs::exists(forgotten));
    }
    unsetenv("TMPDIR");
}

TEST(Board, RefusesAStateThatIsNotItsOwn) {
    const TemporaryDir kept;
    const Options options{.dir = kept.path(), .time_scale = 1};
    { OnBoard here("[chip.probe]\nbytes = 4\n", options); }
    const std::string file = kept.path() + "/chip0/state/dev@probe";
    for (const char *content : {"", "qelboard state probe 4\nabc", "qelboard state eeprom 4\nabcd"}) {
        std::ofstream(file, std::ios::trunc) << content;
        EXPECT_THROW(OnBoard("[chip.probe]\nbytes = 4\n", options), std::runtime_error) << content;
    }
    std::ofstream(file, std::ios::trunc) << "qelboard state probe 4\nabcd";
    EXPECT_NO_THROW(OnBoard("[chip.probe]\nbytes = 4\n", options));
    EXPECT_THROW(OnBoard("[chip.probe]\nbytes = 5\n", options), std::runtime_error);
}

TEST(Board, AccusesWrongUse) {
    OnBoard here("[chip.probe]\n");
    const int fd = ops().open("/dev/probe", O_RDWR, 0);
    EXPECT_EQ(ops().ioctl(fd, kAccuse, nullptr), 0);
    EXPECT_EQ(here.board.take_misuses(),
              (std::vector<std::string>{"chip 0: /dev/probe: second write without erase"}));
    EXPECT_TRUE(here.board.take_misuses().empty());
}

TEST(Board, EndsTheTestThatOverlooksWrongUse) {
    EXPECT_EQ(run_in_child([] {
                  OnBoard here("[chip.probe]\n");
                  ops().ioctl(ops().open("/dev/probe", O_RDWR, 0), kAccuse, nullptr);
                  return 0;
              }),
              128 + SIGABRT);
}

TEST(Board, TracesEveryRequest) {
    OnBoard here("[chip.probe]\n", {}, {.chip = 0, .as = "systools"});
    std::FILE *file = std::tmpfile();
    here.board.trace_to(file);
    const int fd = ops().open("/dev/probe", O_RDWR, 0);
    uint8_t record[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    ops().ioctl(fd, kEcho, record);
    ops().ioctl(fd, kUnknown, record);
    ops().write(fd, "0123456789abcdefXYZ", 19);
    ops().open("/no\"where", O_RDONLY, 0);
    ops().close(fd);
    here.board.trace_to(nullptr);
    ops().open("/dev/probe", O_RDWR, 0);

    std::rewind(file);
    std::vector<nlohmann::json> lines;
    std::string rows;
    for (char line[1024]; std::fgets(line, sizeof(line), file) != nullptr;) {
        lines.push_back(nlohmann::json::parse(line));
        rows += trace_row(line) + "\n";
    }
    std::fclose(file);
    ASSERT_EQ(lines.size(), 6U);
    EXPECT_EQ(lines[0]["op"], "open");
    EXPECT_EQ(lines[0]["process"], "systools");
    EXPECT_EQ(lines[0]["pid"], getpid());
    EXPECT_EQ(lines[1]["request"], "ECHO");
    EXPECT_EQ(lines[1]["code"], "0xC0045000");
    EXPECT_EQ(lines[1]["in"], 8);
    EXPECT_EQ(lines[1]["out"], 8);
    EXPECT_EQ(lines[1]["data"], "0102030405060708");
    EXPECT_EQ(lines[2]["error"], "ENOTTY");
    EXPECT_EQ(lines[3]["in"], 19);
    EXPECT_EQ(lines[3]["data"], "30313233343536373839616263646566") << "the first bytes only";
    EXPECT_EQ(lines[4]["node"], "/no\"where");
    EXPECT_EQ(lines[5]["op"], "close");
    EXPECT_LE(lines[0]["t_us"], lines[5]["t_us"]);
    for (const char *part : {"ECHO", "ENOTTY", "0x40045002", "systools"})
        EXPECT_NE(rows.find(part), std::string::npos) << part;
    EXPECT_EQ(trace_row("no trace at all"), "no trace at all");
}

TEST(Board, ShowsTheSameToPeopleAndToPrograms) {
    const Board board(find_board("twin"));
    const auto json = nlohmann::json::parse(board.show(true));
    EXPECT_EQ(json["board"], "twin");
    EXPECT_EQ(json["chip 0"]["/dev/qecChnMap"]["total"], 3);
    EXPECT_EQ(json["chip 1"]["/dev/qecHwid"]["chip index"], 1);
    EXPECT_EQ(json["chip 0"]["/dev/qecChnMap"]["channels"][2]["chip"], 1);
    const std::string text = board.show(false);
    EXPECT_NE(text.find("/dev/qecChnMap"), std::string::npos);
    EXPECT_NE(text.find("TWN-7210-S"), std::string::npos);
}
