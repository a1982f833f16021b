// Boot parameters of several processes: what the others leave when they are killed in the middle, and
// of several chips.
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <random>
#include <set>

#include "board/net/client.h"
#include "board/net/server.h"
#include "platform/include/osa.h"
#include "product/env_block.h"
#include "tests/product/environment_media.h"
#include "tests/support/scratch.h"
#include "tests/support/slave.h"
#include "tests/support/unit.h"

namespace qel::test {
namespace {

std::string get(const Library &library, const char *name) {
    char value[QEL_BOOT_PARAMETER_BYTES];
    return CALL(library, getBootParameter)(name, value, sizeof value) == 0 ? value : "none";
}

// ---- one process that finds what another left ----

class LeftBehind : public ::testing::TestWithParam<Medium> {
protected:
    LeftBehind() : unit_(GetParam().description()) {
        get("HWID");
        int key = 0;
        void *at = nullptr;
        EXPECT_EQ(OSA_ipcMakeKey("/var/tmp/envfile", 2, &key), 0);
        EXPECT_EQ(OSA_ipcShmOpen(key, GetParam().bytes, 0, &at), 0);
        segment_ = static_cast<uint8_t *>(at);
    }
    ~LeftBehind() override {
        unit_.library.reset();
        OSA_ipcShmDetach(segment_);
    }
    std::string get(const char *name) { return test::get(*unit_.library, name); }
    void leave(uint32_t word, size_t damage_from, size_t damage_bytes) {
        memcpy(segment_, &word, sizeof word);
        memset(segment_ + damage_from, 'x', damage_bytes);
    }
    void erase_flash() {
        for (const uint64_t at : GetParam().sections)
            unit_.put_bytes(GetParam().node, at, Bytes(GetParam().section_bytes(), 0xFF));
    }

    Unit unit_;
    uint8_t *segment_ = nullptr;
};
INSTANTIATE_TEST_SUITE_P(Environment, LeftBehind, ::testing::ValuesIn(kMedia),
                         [](const auto &info) { return std::string(info.param.name); });

TEST_P(LeftBehind, ATornCopyIsReadFromFlashAgain) {
    const Octets before = block_in_flash(GetParam());
    leave(environment::kCopying, 4, 200);
    EXPECT_EQ(get("bootdelay"), "3");
    EXPECT_EQ(memcmp(segment_, before.data(), before.size()), 0);
    leave(environment::kCopying, 4, 200);
    EXPECT_EQ(UNIT_CALL(unit_, setBootParameter)("new", "1"), 0);
    std::vector<std::string> wanted = entries_of(before);
    wanted.push_back("new=1");
    EXPECT_EQ(entries_of(block_in_flash(GetParam())), wanted);
}

TEST_P(LeftBehind, ATornFlashIsWrittenAgain) {
    const Octets before = block_in_flash(GetParam());
    const auto saving = [&] {
        leave(environment::kSaving, 4, 0);
        erase_flash();
    };
    saving();
    EXPECT_EQ(get("bootdelay"), "3") << "the copy is whole";
    unit_.reload();
    EXPECT_EQ(get("bootdelay"), "3");
    unit_.log.expect({"a process died while it saved the environment"});
    EXPECT_EQ(block_in_flash(GetParam()), before);
    saving();
    EXPECT_EQ(UNIT_CALL(unit_, QEL_delBootParameter)("bootdelay"), 0);
    EXPECT_EQ(entries_of(block_in_flash(GetParam())).size(), entries_of(before).size() - 1);
    EXPECT_TRUE(has_right_crc(block_in_flash(GetParam())));
}

// ---- a board in a process of its own, and processes on it ----

class Served {
public:
    explicit Served(const std::string &description) {
        int ready[2];
        if (pipe(ready) != 0) abort();
        server_ = fork_child();
        if (server_ == 0) {
            board::Board board(description);
            board::Server server(board, path("server"));
            if (write(ready[1], "r", 1) != 1) _exit(1);
            server.run();
            end_child(0);
        }
        close(ready[1]);
        char byte = 0;
        EXPECT_EQ(read(ready[0], &byte, 1), 1) << "the server did not start";
        close(ready[0]);
        setenv("QELBOARD_SOCKET", path("server").c_str(), 1);
        setenv("QELBOARD_AS", "vesta", 1);
    }
    ~Served() {
        EXPECT_EQ(command({"misuses"}), "");
        EXPECT_EQ(command({"stop"}), "");
        EXPECT_EQ(wait_for_child(server_, 10000), 0);
        unsetenv("QELBOARD_SOCKET");
    }
    std::string command(const std::vector<std::string> &words) const {
        std::string answer;
        const auto link = board::ControlLink::connect(path("server"), answer);
        if (link != nullptr) link->call(words, answer);
        return answer;
    }
    std::string path(const char *name) const { return folder_.path(name); }

private:
    const Scratch folder_;
    pid_t server_ = -1;
};

// Its code: 0, or where `body` went wrong.
pid_t start(const std::function<int(const Library &)> &body) {
    const pid_t pid = fork_child();
    if (pid != 0) return pid;
    if (freopen("/dev/null", "w", stdout) == nullptr) _exit(98);
    int code = 0;
    {
        const Log log;
        const Library library;
        code = body(library);
    }
    end_child(code);
}

constexpr int kProcesses = 8;
constexpr int kKills = 200;

std::string parameter(unsigned number) { return "process" + std::to_string(number); }

// One letter, as often as the number in front says: a value of two writers would show.
std::string make_value(std::mt19937 &random) {
    const unsigned length = 1 + random() % 200;
    return std::to_string(length) + ":" + std::string(length, static_cast<char>('a' + random() % 26));
}

bool is_whole(const std::string &value) {
    const size_t colon = value.find(':');
    if (colon == std::string::npos || colon + 1 == value.size()) return false;
    const std::string letters = value.substr(colon + 1);
    return value.substr(0, colon) == std::to_string(letters.size()) &&
           letters.find_first_not_of(letters[0]) == std::string::npos;
}

// Sets its own parameter and reads all, until it is killed or told to stop.
int set_and_get(const Library &library, unsigned number, unsigned seed, const std::string &stop_file) {
    std::mt19937 random(seed);
    while (access(stop_file.c_str(), F_OK) != 0) {
        if (random() % 4 == 0) {
            const std::string value = make_value(random);
            if (CALL(library, setBootParameter)(parameter(number).c_str(), value.c_str()) != 0) return 2;
            if (get(library, parameter(number).c_str()) != value) return 3;
        }
        const std::string value = get(library, parameter(random() % kProcesses).c_str());
        if (value != "none" && !is_whole(value)) return 4;
        if (get(library, "bootdelay") != "3") return 5;
    }
    return 0;
}

class ManyProcesses : public ::testing::TestWithParam<Medium> {};
INSTANTIATE_TEST_SUITE_P(Environment, ManyProcesses, ::testing::Values(kMedia[0], kMedia[2], kMedia[4]),
                         [](const auto &info) { return std::string(info.param.name); });

TEST_P(ManyProcesses, NoneIsHurtByAnothersDeath) {
    const Served board(GetParam().description());
    std::mt19937 random(7);
    std::array<pid_t, kProcesses> pids{};
    const auto start_one = [&](unsigned number) {
        const auto seed = static_cast<unsigned>(random());
        pids[number] = start(
            [&](const Library &library) { return set_and_get(library, number, seed, board.path("stop")); });
    };
    for (unsigned i = 0; i < kProcesses; ++i) start_one(i);
    for (int kill_number = 0; kill_number < kKills; ++kill_number) {
        usleep(random() % 20000);
        const unsigned victim = random() % kProcesses;
        kill(pids[victim], SIGKILL);
        ASSERT_EQ(wait_for_child(pids[victim], 10000), 128 + SIGKILL) << "it had found something wrong";
        start_one(victim);
    }
    std::ofstream(board.path("stop")).put('\n');
    for (const pid_t pid : pids) EXPECT_EQ(wait_for_child(pid, 30000), 0);

    const Medium &medium = GetParam();
    const pid_t judge = start([&](const Library &library) {
        if (get(library, "bootdelay") != "3") return 2;
        const Octets block = block_in_flash(medium);
        if (!has_right_crc(block)) return 3;
        std::set<std::string> names;
        for (const std::string &entry : entries_of(block)) {
            const std::string name = entry.substr(0, entry.find('='));
            if (!names.insert(name).second) return 4;
            if (name.starts_with("process") && !is_whole(entry.substr(name.size() + 1))) return 5;
        }
        if (names.count("bootcmd") != 1 || names.count("process0") != 1) return 6;
        return CALL(library, setBootParameter)("after", "1") == 0 && get(library, "after") == "1" ? 0 : 7;
    });
    EXPECT_EQ(wait_for_child(judge, 30000), 0);
}

TEST(Environment, AProcessKilledInTheMiddleOfASaveLosesOnlyItsOwnChange) {
    const Medium &medium = kMedia[1];
    const Served board(medium.description());
    const std::string trace = board.path("trace");
    EXPECT_EQ(board.command({"fault", std::string(medium.node) + " write delay 60000 at 1"}), "");
    EXPECT_EQ(board.command({"trace", trace}), "");
    const pid_t victim =
        start([](const Library &library) { return CALL(library, setBootParameter)("bootdelay", "9"); });
    const auto has_erased = [&] { return read_all(trace).find("MEMERASE\"") != std::string::npos; };
    for (int i = 0; i < 2000 && !has_erased(); ++i) usleep(5000);
    ASSERT_TRUE(has_erased());
    kill(victim, SIGKILL);
    EXPECT_EQ(wait_for_child(victim, 10000), 128 + SIGKILL);
    EXPECT_EQ(board.command({"clear-faults"}), "");  // it may have died before its write came
    const pid_t next = start([&](const Library &library) {
        if (get(library, "bootdelay") != "3") return 2;
        return has_right_crc(block_in_flash(medium)) ? 0 : 3;
    });
    EXPECT_EQ(wait_for_child(next, 30000), 0);
}

// ---- another chip ----

TEST(Environment, ByChannelAsksTheOtherChip) {
    board::Board board(board::find_board("twin"));
    Slave slave(board);
    slave.start();
    board.enter({.chip = 0, .as = "vesta"});
    {
        const Log log;
        const Library library;
        const auto read_by = [&](unsigned channel, const std::string &name, int size = 255) {
            char value[QEL_BOOT_PARAMETER_BYTES];
            const int status = CALL(library, getBootParameterByChn)(channel, name.c_str(), value, size);
            return status == 0 ? std::string(value) : "none";
        };
        EXPECT_EQ(read_by(0, "bootdelay"), "3");
        EXPECT_EQ(read_by(2, "HWID", 300), "TWN-7210-S:01:20:00:00:00");
        EXPECT_EQ(read_by(2, "bootdelay", 2), "1");
        EXPECT_EQ(read_by(2, "bootdelay", 1), "none");
        EXPECT_EQ(read_by(9, "bootdelay"), "none");
        EXPECT_EQ(read_by(2, std::string(31, 'x')), "none");
        EXPECT_EQ(log.count("params is too long"), 0);
        EXPECT_EQ(read_by(2, std::string(32, 'x')), "none");
        log.expect({"): getBootParameterByChn get chnMapInfo failed\n", "): Fail to put buffer, status=-",
                    "): getBootParameterByChn params is too long\n"});
    }
    board.leave();
}

}  // namespace
}  // namespace qel::test
