// bench_environment.cpp - what reading a boot parameter costs: warm against the two semaphore operations
// around it, cold in a new process against another library's open, read and close of the same block,
// and how it grows with the parameters.
//
// Limits: 1.5 warm; cold a third of the other library's time; not more than in proportion to the
// parameters.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#if __has_include(<libuboot.h>)
#include <libuboot.h>
#define QEL_HAS_LIBUBOOTENV 1
#endif

#include "bench/loaded_library.h"
#include "bench/measure.h"
#include "board/core/board.h"
#include "os/hook.h"
#include "qel/product.h"

namespace {

using namespace qel::bench;

constexpr int kCalls = 20000;
constexpr int kCallsAmongMany = 400;
constexpr int kNewProcesses = 41;
constexpr size_t kBlockBytes = 0x20000;
constexpr const char *kNode = "/dev/mmcblk0p2";

class Library : public LoadedLibrary {
public:
    void get(const char *name) const {
        char value[QEL_BOOT_PARAMETER_BYTES];
        expect(get_(name, value, sizeof value) == 0, "getBootParameter");
    }

private:
    decltype(getBootParameter) *const get_ = CALL(*this, getBootParameter);
};

class Semaphore {
public:
    Semaphore() : id_(semget(IPC_PRIVATE, 1, 0600)) {
        expect(id_ >= 0, "semget");
        add(1, 0);
    }
    ~Semaphore() { semctl(id_, 0, IPC_RMID); }
    Semaphore(const Semaphore &) = delete;
    Semaphore &operator=(const Semaphore &) = delete;

    void take_and_give() const {
        add(-1, SEM_UNDO);
        add(1, SEM_UNDO);
    }

private:
    void add(short amount, short flags) const {
        sembuf step{0, amount, flags};
        expect(semop(id_, &step, 1) == 0, "semop");
    }
    int id_;
};

void measure_warm() {
    const Library library;
    const Semaphore semaphore;
    compare({"boot parameter, read again", [&] { library.get("bootdelay"); }},
            {"two bare semaphore operations", [&] { semaphore.take_and_give(); }}, kCalls);
}

// ---- cold ----

#ifdef QEL_HAS_LIBUBOOTENV
// Loaded when measured: no part of this project needs it.
class OtherLibrary {
public:
    OtherLibrary() : handle_(dlopen("libubootenv.so.0", RTLD_NOW)) {}
    bool is_there() const { return handle_ != nullptr; }
    void open_read_close(const char *config, const char *name) const {
        uboot_ctx *context = nullptr;
        expect(call<decltype(libuboot_initialize)>("libuboot_initialize")(&context, nullptr) == 0,
               "initialize");
        expect(call<decltype(libuboot_read_config)>("libuboot_read_config")(context, config) == 0,
               "its config");
        expect(call<decltype(libuboot_open)>("libuboot_open")(context) == 0, "its open");
        char *const value = call<decltype(libuboot_get_env)>("libuboot_get_env")(context, name);
        expect(value != nullptr, "its read");
        free(value);
        call<decltype(libuboot_close)>("libuboot_close")(context);
        call<decltype(libuboot_exit)>("libuboot_exit")(context);
    }

private:
    template <typename Function>
    Function *call(const char *name) const {
        return reinterpret_cast<Function *>(dlsym(handle_, name));
    }
    void *handle_;
};

void write_block(const std::string &path) {
    std::vector<char> block(kBlockBytes);
    const qel_os_ops &os = *qel_world_hook()->os;
    const int fd = os.open(kNode, O_RDWR, 0);
    expect(fd >= 0 && os.read(fd, block.data(), block.size()) == static_cast<ssize_t>(block.size()),
           "the block");
    os.close(fd);
    std::ofstream(path, std::ios::binary).write(block.data(), static_cast<std::streamsize>(block.size()));
}

struct Cold {
    double cost_us;
    double against_us;
};

// In a process that has attached to nothing yet, but has both libraries.
Cold measure_in_new_process(const std::string &config) {
    int results[2];
    expect(pipe(results) == 0, "pipe");
    const pid_t pid = fork();
    expect(pid >= 0, "fork");
    if (pid == 0) {
        const Library library;
        const OtherLibrary other;
        CALL(library, ENV_preInit)();  // lets go of what loading attached
        Cold cold{};
        cold.against_us = us_per_call(1, [&] { other.open_read_close(config.c_str(), "bootdelay"); });
        cold.cost_us = us_per_call(1, [&] { library.get("bootdelay"); });
        _exit(write(results[1], &cold, sizeof cold) == sizeof cold ? 0 : 1);
    }
    close(results[1]);
    Cold cold{};
    expect(read(results[0], &cold, sizeof cold) == sizeof cold, "a new process");
    close(results[0]);
    waitpid(pid, nullptr, 0);
    return cold;
}

void measure_cold() {
    if (!OtherLibrary().is_there()) return;
    std::string folder = (std::filesystem::temp_directory_path() / "qel-bench-XXXXXX").string();
    expect(mkdtemp(folder.data()) != nullptr, "mkdtemp");
    write_block(folder + "/block");
    std::ofstream(folder + "/config") << folder << "/block 0x0 0x20000\n";
    Rounds rounds;
    for (int i = 0; i < kNewProcesses; ++i) {
        const Cold cold = measure_in_new_process(folder + "/config");
        rounds.costs_us.push_back(cold.cost_us);
        rounds.with_us.push_back(cold.against_us);
    }
    std::filesystem::remove_all(folder);
    print_row("boot parameter, first read of a process", "libubootenv: open, read, close", rounds);
}
#else
void measure_cold() {}  // without the other library's header there is nothing to compare with
#endif

// ---- many parameters ----

std::string board_with(int parameters) {
    std::string text = qel::board::find_board("emmc");
    for (int i = 0; i < parameters; ++i) {
        char line[64];
        snprintf(line, sizeof line, "parameter%05d = \"value\"\n", i);
        text += line;
    }
    return text;
}

double cost_among(int parameters) {
    qel::board::Board board(board_with(parameters));
    board.enter({.chip = 0, .as = "vesta"});
    const Library library;
    char last[32];
    snprintf(last, sizeof last, "parameter%05d", parameters - 1);
    std::vector<double> costs(kRounds);
    for (double &round : costs) round = us_per_call(kCallsAmongMany, [&] { library.get(last); });
    return median(costs);
}

void measure_many() {
    constexpr int kFew = 500;
    constexpr int kMany = 4000;
    const double few = cost_among(kFew);
    const double many = cost_among(kMany);
    printf("| boot parameter, last of %d | %.2f us | last of %d | %.2f us | %.2f |\n", kMany, many, kFew, few,
           many / few);
}

}  // namespace

int main() {
    {
        qel::board::Board board(qel::board::find_board("emmc"));
        board.enter({.chip = 0, .as = "vesta"});
        measure_warm();
        measure_cold();
    }
    measure_many();
    return 0;
}
