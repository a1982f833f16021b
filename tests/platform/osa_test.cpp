#include "platform/include/osa.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

#include "tests/platform/world.h"
#include "tests/support/library.h"

namespace {

using qel::test::run_in_child;
using qel::test::world;
using qel::test::world_dir;

OSA_SemHandle make_semaphore(unsigned max, unsigned initial) {
    OSA_SemHandle semaphore = nullptr;
    EXPECT_EQ(OSA_semCreate(&semaphore, max, initial), 0);
    return semaphore;
}

TEST(Semaphore, CountsBetweenZeroAndItsMaximum) {
    OSA_SemHandle semaphore = make_semaphore(2, 1);
    unsigned count = 0;
    EXPECT_EQ(OSA_semPost(semaphore), 0);
    EXPECT_NE(OSA_semPost(semaphore), 0) << "beyond the maximum";
    EXPECT_EQ(OSA_semPostWhenEmpty(semaphore), 0);
    EXPECT_EQ(OSA_semGetCount(semaphore, &count), 0);
    EXPECT_EQ(count, 2u);
    EXPECT_EQ(OSA_semPend(semaphore, 0), 0);
    EXPECT_EQ(OSA_semPend(semaphore, 0), 0);
    EXPECT_NE(OSA_semPend(semaphore, 0), 0);
    EXPECT_EQ(OSA_semPostWhenEmpty(semaphore), 0);
    EXPECT_EQ(OSA_semPostWhenEmpty(semaphore), 0);
    OSA_semGetCount(semaphore, &count);
    EXPECT_EQ(count, 1u);
    EXPECT_EQ(OSA_semDelete(&semaphore), 0);
    EXPECT_EQ(semaphore, nullptr);
    EXPECT_NE(OSA_semPend(semaphore, 0), 0);
}

TEST(Semaphore, LetsEveryPostThroughOnce) {
    constexpr int kThreads = 4;
    constexpr int kPosts = 5000;
    OSA_SemHandle semaphore = make_semaphore(kThreads * kPosts, 0);
    std::atomic<int> taken{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&] {
            for (int n = 0; n < kPosts; ++n) OSA_semPost(semaphore);
        });
        threads.emplace_back([&] {
            for (int n = 0; n < kPosts; ++n) taken += OSA_semPend(semaphore, qel::test::kPatienceMs) == 0;
        });
    }
    for (std::thread &thread : threads) thread.join();
    EXPECT_EQ(taken, kThreads * kPosts);
    EXPECT_NE(OSA_semPend(semaphore, 0), 0);
    OSA_semDelete(&semaphore);
}

TEST(Semaphore, MayBeDeletedByTheThreadThatWasLetThrough) {
    for (int i = 0; i < 2000; ++i) {
        OSA_SemHandle semaphore = make_semaphore(1, 0);
        std::thread waiter([semaphore]() mutable {
            EXPECT_EQ(OSA_semPend(semaphore, OSA_WAIT_FOREVER), 0);
            OSA_semDelete(&semaphore);
        });
        OSA_semPost(semaphore);
        waiter.join();
    }
}

TEST(Time, RunsAndWaitsInTheWorldsMilliseconds) {
    world().time_scale = 100;
    OSA_SemHandle semaphore = make_semaphore(1, 0);
    uint64_t start = OSA_timeMs();
    EXPECT_NE(OSA_semPend(semaphore, 2000), 0);
    EXPECT_GE(OSA_timeMs() - start, 2000u);
    start = OSA_timeMs();
    OSA_sleepMs(1500);
    EXPECT_GE(OSA_timeMs() - start, 1500u);
    OSA_semDelete(&semaphore);
    world().time_scale = 1;
}

TEST(Time, WaitsOnAfterASignal) {
    static std::atomic<int> caught{0};
    struct sigaction action {};
    action.sa_handler = [](int) { ++caught; };
    sigaction(SIGUSR1, &action, nullptr);
    OSA_SemHandle semaphore = make_semaphore(1, 0);
    std::atomic<bool> done{false};
    std::thread waiter([&] {
        const uint64_t start = OSA_timeMs();
        EXPECT_NE(OSA_semPend(semaphore, 60), 0);
        OSA_sleepMs(60);
        EXPECT_GE(OSA_timeMs() - start, 120u);
        done = true;
    });
    while (!done) {
        pthread_kill(waiter.native_handle(), SIGUSR1);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    waiter.join();
    EXPECT_GT(caught, 0);
    OSA_semDelete(&semaphore);
}

// The thread sanitizer takes this misuse itself.
#ifndef __SANITIZE_THREAD__
TEST(Mutex, RefusesWhatIsNotItsHolders) {
    OSA_MutexHandle mutex = nullptr;
    ASSERT_EQ(OSA_mutexCreate(&mutex), 0);
    EXPECT_NE(OSA_mutexUnlock(mutex), 0);
    EXPECT_EQ(OSA_mutexLock(mutex), 0);
    EXPECT_NE(OSA_mutexDelete(&mutex), 0) << "held";
    std::thread([&] { EXPECT_NE(OSA_mutexUnlock(mutex), 0); }).join();
    EXPECT_EQ(OSA_mutexUnlock(mutex), 0);
    EXPECT_EQ(OSA_mutexDelete(&mutex), 0);
    EXPECT_NE(OSA_mutexLock(mutex), 0);
}
#endif

TEST(Queue, KeepsOrderAndCapacity) {
    OSA_QueHandle queue = nullptr;
    ASSERT_EQ(OSA_queCreate(&queue, 3), 0);
    int items[4];
    for (int round = 0; round < 3; ++round) {  // also around the end of the ring
        EXPECT_EQ(OSA_quePut(queue, &items[0], 0), 0);
        EXPECT_EQ(OSA_quePut(queue, &items[1], 0), 0);
        EXPECT_EQ(OSA_quePut(queue, &items[2], 0), 0);
        EXPECT_NE(OSA_quePut(queue, &items[3], 1), 0) << "full";
        void *out = nullptr;
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(OSA_queGet(queue, &out, 0), 0);
            EXPECT_EQ(out, &items[i]);
        }
        EXPECT_NE(OSA_queGet(queue, &out, 1), 0) << "empty";
    }
    OSA_queDelete(&queue);
}

TEST(Queue, HandsEveryItemToOneThread) {
    constexpr uintptr_t kItems = 4000;
    constexpr int kThreads = 3;
    OSA_QueHandle queue = nullptr;
    ASSERT_EQ(OSA_queCreate(&queue, 4), 0);
    std::atomic<uintptr_t> sum{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&] {
            for (uintptr_t n = 1; n <= kItems; ++n)
                OSA_quePut(queue, reinterpret_cast<void *>(n), OSA_WAIT_FOREVER);
        });
        threads.emplace_back([&] {
            for (uintptr_t n = 1; n <= kItems; ++n) {
                void *item = nullptr;
                if (OSA_queGet(queue, &item, qel::test::kPatienceMs) == 0)
                    sum += reinterpret_cast<uintptr_t>(item);
            }
        });
    }
    for (std::thread &thread : threads) thread.join();
    EXPECT_EQ(sum, kThreads * kItems * (kItems + 1) / 2);
    OSA_queDelete(&queue);
}

struct Diary {
    std::atomic<int> entries{0};
    std::vector<unsigned> commands;
    void *first = nullptr;
};

int keep_diary(OSA_TskHandle self, void *first, void *arg) {
    auto &diary = *static_cast<Diary *>(arg);
    ++diary.entries;
    diary.first = first;
    for (unsigned command = 0; OSA_tskWaitMsg(self, &command, nullptr, OSA_WAIT_FOREVER) == 0;) {
        diary.commands.push_back(command);
        if (command == OSA_TSK_CMD_EXIT) break;
    }
    return 0;
}

TEST(Task, WorksOffItsBoxBeforeItEnds) {
    Diary diary;
    OSA_TskHandle task = nullptr;
    ASSERT_EQ(OSA_tskCreate(&task, keep_diary, 10, 0, &diary, "a name longer than the kernel's"), 0);
    int first = 0;
    EXPECT_EQ(OSA_tskSendMsg(task, 7, &first, 0), 0);
    for (unsigned command = 1; command <= 3; ++command) OSA_tskSendMsg(task, command, nullptr, 0);
    EXPECT_EQ(OSA_tskDelete(&task), 0);
    EXPECT_EQ(task, nullptr);
    EXPECT_EQ(diary.first, &first);
    EXPECT_EQ(diary.commands, (std::vector<unsigned>{1, 2, 3, OSA_TSK_CMD_EXIT}));
}

TEST(Task, NeverStartsWithoutAMessage) {
    Diary diary;
    OSA_TskHandle task = nullptr;
    ASSERT_EQ(OSA_tskCreate(&task, keep_diary, 10, 0, &diary, nullptr), 0);
    EXPECT_EQ(OSA_tskDelete(&task), 0);
    EXPECT_EQ(diary.entries, 0);
}

TEST(Task, RefusesMessagesWhileItsBoxIsFull) {
    OSA_TskHandle task = nullptr;
    OSA_SemHandle gate = make_semaphore(1, 0);
    const auto wait_at_gate = [](OSA_TskHandle, void *, void *arg) {
        return OSA_semPend(arg, OSA_WAIT_FOREVER);
    };
    ASSERT_EQ(OSA_tskCreate(&task, wait_at_gate, 10, 0, gate, "full"), 0);
    int sent = 0;
    while (sent < 1000 && OSA_tskSendMsg(task, 0, nullptr, 0) == 0) ++sent;
    EXPECT_GE(sent, 128);
    EXPECT_LT(sent, 1000);
    EXPECT_EQ(OSA_tskDelete(&task), 0) << "from the semaphore it waits on";
    OSA_semDelete(&gate);
}

// What a thread may be doing when it is deleted.
struct Sleeper {
    const char *what;
    OSA_ThrEntry body;
};

void *wait_for_queue(void *) {
    OSA_QueHandle queue = nullptr;
    OSA_queCreate(&queue, 1);
    void *item = nullptr;
    OSA_queGet(queue, &item, OSA_WAIT_FOREVER);
    OSA_queDelete(&queue);
    return nullptr;
}

constexpr Sleeper kSleepers[] = {
    {"sleeps",
     [](void *) -> void * {
         OSA_sleepMs(1'000'000'000);
         return nullptr;
     }},
    {"waits for a queue", wait_for_queue},
    {"works in a loop",
     [](void *) -> void * {
         while (OSA_thrStopping() == 0) std::this_thread::yield();
         return nullptr;
     }},
    {"has ended", [](void *) -> void * { return nullptr; }},
};

TEST(Thread, EndsWhateverItWaitsFor) {
    const int outcome = run_in_child([] {
        for (const Sleeper &sleeper : kSleepers) {
            for (int i = 0; i < 20; ++i) {
                OSA_ThrHandle thread = nullptr;
                EXPECT_EQ(OSA_thrCreateEx(&thread, sleeper.body, 1000, 1, nullptr, sleeper.what), 0);
                EXPECT_EQ(OSA_thrDelete(&thread), 0) << sleeper.what;
            }
        }
        return 0;
    });
    EXPECT_EQ(outcome, 0);
}

// ---- the log ----

// What a child of these settings writes to its standard error stream while it runs `body`.
template <typename Body>
std::string logged_with(const char *level, Body body, const char *no_color = "") {
    const std::string path = world_dir() + "/stderr";
    EXPECT_EQ(run_in_child([&] {
                  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
                  dup2(fd, STDERR_FILENO);
                  setenv("OSA_LOG", level, 1);
                  setenv("NO_COLOR", no_color, 1);
                  body();
                  return 0;
              }),
              0);
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

void log_all_levels() {
    OSA_logWrite(5, 0, "dump %02x ", 0xAB);
    OSA_logWrite(5, 0, "%02x", 0xCD);
    OSA_logWrite(2, 2, "[libqel] info\r\n");
    OSA_logWrite(1, 8, "[libqel] WARN  (%s|%d): w\n", "f", 1);
    OSA_logWrite(0, 1, "[libqel] ERROR  (f|2): no line end");
}

TEST(Log, ShowsWhatItsLevelAsksFor) {
    const std::string error = "[libqel] ERROR  (f|2): no line end\n";
    const std::string warning = "[libqel] WARN  (f|1): w\n" + error;
    const std::string information = "[libqel] info\n" + warning;
    EXPECT_EQ(logged_with("error", log_all_levels), error);
    EXPECT_EQ(logged_with("warn", log_all_levels), warning);
    EXPECT_EQ(logged_with("", log_all_levels), warning);
    EXPECT_EQ(logged_with("info", log_all_levels), information);
    EXPECT_EQ(logged_with("debug", log_all_levels), "dump ab cd\n" + information);
    EXPECT_EQ(logged_with("loud", log_all_levels),
              "OSA_LOG=loud is unknown; use error, warn, info or debug. Showing warnings.\n" + warning);
}

TEST(Log, KeepsLongLinesWhole) {
    const std::string text(5000, 'x');
    EXPECT_EQ(logged_with("info", [&] { OSA_logWrite(0, 1, "%s\n", text.c_str()); }), text + "\n");
}

TEST(Log, ColoursOnlyATerminal) {
    for (const bool refused : {false, true}) {
        const int terminal = posix_openpt(O_RDWR | O_NOCTTY);
        ASSERT_TRUE(terminal >= 0 && grantpt(terminal) == 0 && unlockpt(terminal) == 0);
        const std::string path = ptsname(terminal);
        const int keep_open = open(path.c_str(), O_RDWR | O_NOCTTY);
        logged_with(
            "info",
            [&] {
                dup2(keep_open, STDERR_FILENO);
                setenv("TERM", "xterm", 1);
                OSA_logWrite(0, 1, "bad\n");
            },
            refused ? "1" : "");
        char shown[64] = "";
        const ssize_t length = read(terminal, shown, sizeof shown - 1);
        ASSERT_GT(length, 0);
        EXPECT_EQ(std::string(shown, static_cast<size_t>(length)),
                  refused ? "bad\r\n" : "\033[31mbad\033[0m\r\n");
        close(keep_open);
        close(terminal);
    }
}

int log_to_a_sink() {
    std::atomic<int> lines{0};
    OSA_logSetSink([](void *count, int, int, const char *) { ++*static_cast<std::atomic<int> *>(count); },
                   &lines);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([] {
            for (int n = 0; n < 500; ++n) OSA_logWrite(5, 0, "line %d\n", n);
        });
    }
    for (std::thread &thread : threads) thread.join();
    errno = EDOM;
    OSA_logWrite(0, 1, "last\n");
    EXPECT_EQ(errno, EDOM);
    OSA_logSetSink(nullptr, nullptr);
    OSA_logWrite(5, 0, "nobody listens\n");
    return lines == 2001 ? 0 : 1;
}

// In a child: the settings are read once in a process, and the tests above want their own.
TEST(Log, GivesASinkEveryLineOfEveryThread) { EXPECT_EQ(run_in_child(log_to_a_sink), 0); }

// ---- between processes ----

class Ipc : public testing::Test {
protected:
    void TearDown() override { qel::test::remove_system_v_objects(); }
};

int key_of(const char *path, int number) {
    int key = 0;
    EXPECT_EQ(OSA_ipcMakeKey(path, number, &key), 0);
    return key;
}

void touch(const char *path) {
    const std::filesystem::path file = world_dir() + path;
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file).flush();
}

TEST_F(Ipc, MakesKeysFromTheWorldsFiles) {
    int key = 0;
    EXPECT_NE(OSA_ipcMakeKey("/var/tmp/none", 1, &key), 0);
    touch("/var/tmp/one");
    touch("/var/tmp/two");
    EXPECT_EQ(key_of("/var/tmp/one", 1), key_of("/var/tmp/one", 1));
    EXPECT_NE(key_of("/var/tmp/one", 1), key_of("/var/tmp/one", 2));
    EXPECT_NE(key_of("/var/tmp/one", 1), key_of("/var/tmp/two", 1));
    EXPECT_NE(OSA_ipcMakeKey("/var/tmp/one", 0, &key), 0);
}

constexpr int kKey = 0x10D00C6;

TEST_F(Ipc, WorldsDoNotShareKeysButProcessesOfOneDo) {
    OSA_IpcSem semaphore = nullptr;
    EXPECT_NE(OSA_ipcSemOpen(&semaphore, kKey, 0, 1, 1), 0) << "not there yet";
    ASSERT_EQ(OSA_ipcSemOpen(&semaphore, kKey, 1, 1, 1), 0);
    EXPECT_EQ(run_in_child([] {
                  OSA_IpcSem same = nullptr;
                  return OSA_ipcSemOpen(&same, kKey, 0, 1, 1);
              }),
              0);
    EXPECT_EQ(run_in_child([] {
                  world().ipc_salt += 1;
                  OSA_IpcSem other = nullptr;
                  return OSA_ipcSemOpen(&other, kKey, 0, 1, 1) != 0 ? 0 : 1;
              }),
              0);
    std::ifstream list(world_dir() + "/sysv");
    std::string kind;
    EXPECT_TRUE(list >> kind && kind == "sem");
    OSA_ipcSemClose(&semaphore);
}

TEST_F(Ipc, LocksOnceAndIsUnlockedByItsHolderOrItsDeath) {
    OSA_IpcSem semaphore = nullptr;
    ASSERT_EQ(OSA_ipcSemOpen(&semaphore, kKey, 1, 1, 1), 0);
    EXPECT_NE(OSA_ipcSemUnlock(semaphore), 0) << "not held";
    const int died = run_in_child([&] {
        EXPECT_EQ(OSA_ipcSemLock(semaphore, 0), 0);
        EXPECT_NE(OSA_ipcSemLock(semaphore, 10), 0) << "held";
        raise(SIGKILL);
        return 0;
    });
    EXPECT_EQ(died, 128 + SIGKILL);
    EXPECT_EQ(OSA_ipcSemLock(semaphore, qel::test::kPatienceMs), 0);
    EXPECT_EQ(OSA_ipcSemUnlock(semaphore), 0);
    OSA_ipcSemClose(&semaphore);
}

TEST_F(Ipc, FinishesTheSemaphoreOfACreatorThatDied) {
    // The set stands in the kernel, its first value does not.
    constexpr int kUnfinished = kKey + 2;
    const int id = semget(kUnfinished ^ static_cast<int>(world().ipc_salt), 2, IPC_CREAT | IPC_EXCL | 0600);
    ASSERT_GE(id, 0);
    std::ofstream(world_dir() + "/sysv", std::ios::app) << "sem " << id << "\n";
    OSA_IpcSem semaphore = nullptr;
    ASSERT_EQ(OSA_ipcSemOpen(&semaphore, kUnfinished, 1, 1, 1), 0);
    EXPECT_EQ(OSA_ipcSemLock(semaphore, 0), 0);
    OSA_IpcSem again = nullptr;
    ASSERT_EQ(OSA_ipcSemOpen(&again, kUnfinished, 1, 1, 1), 0);
    EXPECT_NE(OSA_ipcSemLock(again, 0), 0) << "opened again, not set again";
    OSA_ipcSemClose(&semaphore);
    OSA_ipcSemClose(&again);
}

TEST_F(Ipc, ProcessesThatStartTogetherCountTogether) {
    constexpr int kProcesses = 6;
    constexpr int kSteps = 300;
    qel::test::Nursery nursery({[] {
        void *address = nullptr;
        OSA_IpcSem semaphore = nullptr;
        EXPECT_GE(OSA_ipcShmOpen(kKey + 1, 4096, 1, &address), 0);
        EXPECT_EQ(OSA_ipcSemOpen(&semaphore, kKey, 1, 1, 1), 0);
        for (int i = 0; i < kSteps; ++i) {
            EXPECT_EQ(OSA_ipcSemLock(semaphore, OSA_WAIT_FOREVER), 0);
            auto *const counter = static_cast<volatile int *>(address);
            *counter = *counter + 1;
            EXPECT_EQ(OSA_ipcSemUnlock(semaphore), 0);
        }
        OSA_ipcShmDetach(address);
    }});
    std::vector<pid_t> children;
    for (int i = 0; i < kProcesses; ++i) children.push_back(nursery.spawn());
    for (const pid_t child : children) EXPECT_EQ(nursery.wait(child), 0);
    void *address = nullptr;
    EXPECT_EQ(OSA_ipcShmOpen(kKey + 1, 4096, 1, &address), 0) << "not new";
    ASSERT_NE(address, nullptr);
    EXPECT_EQ(*static_cast<int *>(address), kProcesses * kSteps);
    OSA_ipcShmDetach(address);
    EXPECT_LT(OSA_ipcShmOpen(kKey + 1, 1 << 20, 0, &address), 0) << "larger than it is";
}

}  // namespace
