#include "tests/powercut/cuts.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace qel::test {

namespace {

namespace fs = std::filesystem;

constexpr unsigned kDeadline_s = 20;  // for one board's life; it takes milliseconds
constexpr int kFailed = 99;
constexpr int kMostWrites = 5000;
constexpr int kMostFailures = 5;
// Sanitizers look for other faults, and take several times as long: some of the writes will do.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kEveryNth = 49;
#else
constexpr int kEveryNth = 1;
#endif

// In memory where that can be: a new board costs a tenth there.
std::string new_folder() {
    const char *wanted = getenv("TMPDIR");
    std::string folder = wanted != nullptr ? wanted : access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
    setenv("TMPDIR", folder.c_str(), 1);
    folder += "/qel-powercut-XXXXXX";
    if (mkdtemp(folder.data()) == nullptr) throw std::runtime_error("mkdtemp " + folder);
    return folder;
}

// What the library prints is no result; what expectations say goes to standard error meanwhile. They
// are counted here, since a forked process inherits the failures of the test so far.
class OwnFailures : public testing::EmptyTestEventListener {
public:
    static inline int count = 0;

private:
    void OnTestPartResult(const testing::TestPartResult &result) override {
        if (!result.failed()) return;
        ++count;
        fprintf(stderr, "%s:%d: %s\n", result.file_name(), result.line_number(), result.message());
    }
};

void quiet_standard_output() {
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(nowhere, STDOUT_FILENO);
    close(nowhere);
    testing::UnitTest::GetInstance()->listeners().Append(new OwnFailures);
}

int wait_for(pid_t pid) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

Content read_file(const fs::path &path) {
    std::ifstream file(path, std::ios::binary);
    return Content(std::istreambuf_iterator<char>(file), {});
}

}  // namespace

Cuts::Cuts(std::string description, const OnBoard &prepare)
    : description_(std::move(description)), dir_(new_folder()) {
    EXPECT_EQ(run("", prepare), 0) << "preparing the board";
    remember();
}

Cuts::~Cuts() { fs::remove_all(dir_); }

// The media of all chips. The file trees are not theirs.
void Cuts::remember() {
    for (auto entry = fs::recursive_directory_iterator(dir_); entry != fs::recursive_directory_iterator();
         ++entry) {
        if (entry->path().filename() == "root") entry.disable_recursion_pending();
        if (entry->is_regular_file() && entry->path().filename() != "lock")
            files_.push_back({entry->path(), read_file(entry->path())});
    }
}

void Cuts::restore() const {
    for (const File &file : files_) {
        std::ofstream out(file.path, std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char *>(file.content.data()),
                  static_cast<std::streamsize>(file.content.size()));
    }
}

int Cuts::run(const std::string &fault, const OnBoard &body) const {
    const pid_t pid = fork_child();
    if (pid != 0) return wait_for(pid);
    alarm(kDeadline_s);
    quiet_standard_output();
    {
        const Log log;  // keeps it off the standard error stream
        board::Board board(description_, {.dir = dir_});
        board.enter({.chip = 0, .as = "systools"});
        {
            const Library library;
            if (!fault.empty()) board.add_fault(fault);
            Started started{board, library};
            body(started);
        }
        EXPECT_EQ(board.take_misuses(), std::vector<std::string>());
        board.leave();
    }
    fflush(nullptr);
    _exit(OwnFailures::count == 0 ? 0 : kFailed);
}

void Cuts::at_every_write(const std::string &what, const std::vector<int> &torn, const OnBoard &work,
                          const OnBoard &check) {
    int cuts = 0;
    int failures = 0;
    bool reached = true;
    for (int at = 1; reached && at < kMostWrites && failures < kMostFailures; at += kEveryNth) {
        for (const int bytes : torn) {
            restore();
            const std::string fault = "power-cut at " + std::to_string(at) + " torn " + std::to_string(bytes);
            const int end = run(fault, work);
            reached = end == 128 + SIGKILL;
            if (!reached) {
                EXPECT_EQ(end, 0) << what << ": the work itself, with " << fault;
            }
            cuts += reached ? 1 : 0;
            const int verdict = run("", check);
            EXPECT_EQ(verdict, 0) << what << ", " << fault;
            failures += verdict != 0 ? 1 : 0;
            if (!reached) break;
        }
    }
    EXPECT_FALSE(reached && failures == 0) << what << " never ends";
    EXPECT_GT(cuts, 0) << what << " writes nothing";
    printf("power cuts: %d in %s\n", cuts, what.c_str());
}

Content Cuts::look_at(const std::function<Content(Started &)> &look) const {
    const std::string path = dir_ + "/seen";
    EXPECT_EQ(run("",
                  [&](Started &on) {
                      const Content seen = look(on);
                      std::ofstream(path, std::ios::binary)
                          .write(reinterpret_cast<const char *>(seen.data()),
                                 static_cast<std::streamsize>(seen.size()));
                  }),
              0);
    Content seen = read_file(path);
    fs::remove(path);
    return seen;
}

Content Cuts::before(const std::function<Content(Started &)> &look) {
    restore();
    return look_at(look);
}

Content Cuts::after(const OnBoard &work, const std::function<Content(Started &)> &look) {
    restore();
    EXPECT_EQ(run("", work), 0);
    return look_at(look);
}

std::vector<int> torn_bytes(int end, int step) {
    std::vector<int> all;
    for (int bytes = 0; bytes < end; bytes += step) all.push_back(bytes);
    return all;
}

Content filling(size_t count, unsigned seed) {
    Content out(count);
    for (size_t i = 0; i < count; ++i)
        out[i] = static_cast<uint8_t>(size_t{37} * seed + i * 11 + i / 256 + 1);
    return out;
}

Content flash_content(Started &on, const std::string &partition, uint32_t bytes) {
    FlashPartitionTable *table = nullptr;
    RawFlash *flash = nullptr;
    Content out(bytes);
    EXPECT_EQ(CALL(on.library, QEL_getPartionInfo64)(&table), 0);
    EXPECT_EQ(CALL(on.library, createRawFlashLocal)(&flash), 0);
    for (uint32_t i = 0; flash != nullptr && i < table->count; ++i) {
        if (partition != table->entries[i].name) continue;
        EXPECT_EQ(flash->read64(flash, table->entries[i].offset, out.data(), bytes), 0) << partition;
    }
    if (flash != nullptr) flash->release(flash);
    return out;
}

}  // namespace qel::test
