// world.h - the world of the platform tests: a temporary directory takes the place of the run directory
// and of the root, and goes at the end with the System V objects made in it.
#pragma once

#include <sys/types.h>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "os/hook.h"

namespace qel::test {

// Changes hold for this process and the children it makes afterwards.
qel_world &world();
std::string world_dir();
// Those that were made in this world.
void remove_system_v_objects();

// Long enough for any machine: a wait that ends here has failed.
constexpr int kPatienceMs = 30000;

// Makes processes on request without forking the test process itself, which has threads by then. Each
// runs one of `bodies` and ends; all end with the nursery.
class Nursery {
public:
    explicit Nursery(std::vector<std::function<void()>> bodies);
    ~Nursery();
    Nursery(const Nursery &) = delete;
    Nursery &operator=(const Nursery &) = delete;

    pid_t spawn(int body = 0);
    // Kills it if it still runs, and waits until it is gone.
    void end(pid_t child);
    // Waits for its own end; its exit code, 128 + n after signal n, -1 when it had to be killed.
    int wait(pid_t child);

private:
    [[noreturn]] void run(const std::vector<std::function<void()>> &bodies, int commands, int answers);
    int ask(char what, int argument);

    pid_t pid_ = -1;
    int commands_ = -1;
    int answers_ = -1;
};

}  // namespace qel::test
