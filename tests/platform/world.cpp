#include "tests/platform/world.h"

#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/prctl.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "tests/support/library.h"

namespace qel::test {

namespace {

char directory[128];
pid_t owner;

int map_path(const char *path, char *out, size_t out_bytes) {
    const int length = snprintf(out, out_bytes, "%s%s", directory, path);
    return length >= 0 && static_cast<size_t>(length) < out_bytes ? 0 : -ENAMETOOLONG;
}

qel_world make_world() {
    snprintf(directory, sizeof directory, "%s/qel-platform-XXXXXX",
             std::filesystem::temp_directory_path().c_str());
    if (mkdtemp(directory) == nullptr) abort();
    owner = getpid();
    qel_world made{};
    made.abi = QEL_WORLD_ABI;
    made.time_scale = 1;
    made.ipc_salt = static_cast<uint32_t>(getpid()) << 8 | 1;
    made.run_dir = directory;
    made.map_path = map_path;
    return made;
}

class CleanUp : public testing::Environment {
public:
    void TearDown() override {
        if (directory[0] == '\0' || getpid() != owner) return;
        remove_system_v_objects();
        std::filesystem::remove_all(directory);
    }
};

const auto *const clean_up = testing::AddGlobalTestEnvironment(new CleanUp);

}  // namespace

qel_world &world() {
    static qel_world the_world = make_world();
    return the_world;
}

std::string world_dir() {
    world();
    return directory;
}

void remove_system_v_objects() {
    const std::string list = world_dir() + "/sysv";
    std::ifstream made(list);
    std::string kind;
    for (int id = 0; made >> kind >> id;) {
        if (kind == "sem") semctl(id, 0, IPC_RMID);
        if (kind == "shm") shmctl(id, IPC_RMID, nullptr);
    }
    std::filesystem::remove(list);
}

Nursery::Nursery(std::vector<std::function<void()>> bodies) {
    world();  // the same one for all children
    int commands[2];
    int answers[2];
    if (pipe(commands) != 0 || pipe(answers) != 0) abort();
    pid_ = fork_child();
    if (pid_ == 0) {
        close(commands[1]);
        close(answers[0]);
        run(bodies, commands[0], answers[1]);
    }
    close(commands[0]);
    close(answers[1]);
    commands_ = commands[1];
    answers_ = answers[0];
}

Nursery::~Nursery() {
    close(commands_);
    close(answers_);
    wait_for_child(pid_, kPatienceMs);
}

void Nursery::run(const std::vector<std::function<void()>> &bodies, int commands, int answers) {
    std::vector<pid_t> children;  // those nobody has waited for
    char what = 0;
    int argument = 0;
    while (read(commands, &what, 1) == 1 && read(commands, &argument, sizeof argument) == sizeof argument) {
        int answer = 0;
        if (what == 's') {
            answer = fork_child();
            if (answer == 0) {
                prctl(PR_SET_PDEATHSIG, SIGKILL);
                close(commands);
                close(answers);
                bodies[static_cast<size_t>(argument)]();
                end_child(0);
            }
            children.push_back(answer);
        } else {
            if (what == 'k') kill(argument, SIGKILL);
            answer = wait_for_child(argument, kPatienceMs);
            std::erase(children, argument);
        }
        if (write(answers, &answer, sizeof answer) != sizeof answer) break;
    }
    for (const pid_t child : children) kill(child, SIGKILL);
    while (::wait(nullptr) > 0) {
    }
    _exit(0);
}

int Nursery::ask(char what, int argument) {
    int answer = -1;
    if (write(commands_, &what, 1) != 1 || write(commands_, &argument, sizeof argument) != sizeof argument ||
        read(answers_, &answer, sizeof answer) != sizeof answer) {
        ADD_FAILURE() << "the nursery is gone";
    }
    return answer;
}

pid_t Nursery::spawn(int body) { return ask('s', body); }

void Nursery::end(pid_t child) { ask('k', child); }

int Nursery::wait(pid_t child) { return ask('w', child); }

}  // namespace qel::test

extern "C" const qel_world *qel_world_hook() { return &qel::test::world(); }
