#include "board/core/world.h"

#include <fcntl.h>
#include <unistd.h>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "board/core/descriptors.h"
#include "board/core/tree.h"
#include "board/net/client.h"

namespace qel::board {

namespace {

constexpr const char *kNameFile = "/proc/self/comm";
// Where a process without a board looks for its sockets: nothing is there.
constexpr char kNoRunDir[] = "/nonexistent/qelboard";
constexpr uint32_t kNoSalt = 0x51454c00;

// Everything here is ready before any constructor runs: libraries ask while they are being loaded.
constinit std::atomic<Link *> g_link{nullptr};
constinit char g_run_dir[PATH_MAX] = "/nonexistent/qelboard";  // kNoRunDir
constinit std::once_flag g_environment_tried;
constinit std::atomic<bool> g_complained{false};

int map_path(const char *path, char *out, size_t out_bytes) {
    std::string host = path;
    if (path[0] == '/') {
        const Link *link = current_link();
        if (link == nullptr) return -ENODEV;
        const int result = FileTree(link->welcome().root_dir).resolve(path, true, host);
        if (result != 0) return result;
    }
    if (host.size() >= out_bytes) return -ENAMETOOLONG;
    memcpy(out, host.c_str(), host.size() + 1);
    return 0;
}

constinit qel_world g_world = {.abi = QEL_WORLD_ABI,
                               .time_scale = 1,
                               .ipc_salt = kNoSalt,
                               .chip = 0,
                               .run_dir = g_run_dir,
                               .map_path = map_path,
                               .os = &kBoardOps};

void set_link(Link *link) {
    Welcome nowhere;
    nowhere.run_dir = kNoRunDir;
    const Welcome &welcome = link != nullptr ? link->welcome() : nowhere;
    g_world.time_scale = welcome.time_scale;
    g_world.chip = welcome.chip;
    g_world.ipc_salt = welcome.ipc_salt != 0 ? welcome.ipc_salt : kNoSalt;
    g_world.chip = welcome.chip;
    snprintf(g_run_dir, sizeof(g_run_dir), "%s", welcome.run_dir.c_str());
    g_link.store(link);
}

bool chip_from_environment(uint32_t &chip) {
    const char *text = getenv("QELBOARD_CHIP");
    if (text == nullptr || *text == '\0') return true;
    char *end = nullptr;
    const unsigned long number = strtoul(text, &end, 10);
    chip = static_cast<uint32_t>(number);
    return *end == '\0' && number <= UINT8_MAX;
}

void join_from_environment() {
    const char *socket_path = getenv("QELBOARD_SOCKET");
    if (socket_path == nullptr) return;
    uint32_t chip = 0;
    std::string error = "QELBOARD_CHIP is not the number of a chip";
    std::unique_ptr<Link> link;
    // Before the server asks who comes.
    const char *name = getenv("QELBOARD_AS");
    if (name != nullptr && *name != '\0') take_process_name(name);
    if (chip_from_environment(chip)) link = connect_to_server(socket_path, chip, error);
    if (link == nullptr) {
        fprintf(stderr, "libqelboard: cannot join the board at %s: %s\n", socket_path, error.c_str());
        g_complained = true;
        return;
    }
    set_link(link.release());  // for the life of the process
}

}  // namespace

Link *current_link() {
    Link *link = g_link.load(std::memory_order_acquire);
    if (link != nullptr) return link;
    std::call_once(g_environment_tried, join_from_environment);
    link = g_link.load(std::memory_order_acquire);
    if (link == nullptr && !g_complained.exchange(true)) {
        fprintf(stderr,
                "libqelboard: this process is on no virtual board (QELBOARD_SOCKET is not set): every device "
                "and file is missing\n");
    }
    return link;
}

void join_world(std::unique_ptr<Link> link) { set_link(link.release()); }

void leave_world() {
    close_all_devices();
    const std::unique_ptr<Link> old(g_link.load());
    set_link(nullptr);
}

std::string process_name() {
    char name[32] = "";
    const int fd = ::open(kNameFile, O_RDONLY | O_CLOEXEC);
    const ssize_t length = fd >= 0 ? ::read(fd, name, sizeof(name)) : -1;
    if (fd >= 0) ::close(fd);
    return length > 0 ? std::string(name, static_cast<size_t>(length - 1)) : "";  // ends with a line feed
}

std::string take_process_name(const std::string &name) {
    std::string old = process_name();
    const int fd = ::open(kNameFile, O_WRONLY | O_CLOEXEC);
    if (fd < 0 || ::write(fd, name.data(), name.size()) < 0)
        fprintf(stderr, "libqelboard: this process cannot take the name \"%s\"\n", name.c_str());
    if (fd >= 0) ::close(fd);
    return old;
}

}  // namespace qel::board

extern "C" const qel_world *qel_world_hook() {
    // A server that the environment names is joined now: the process's name must be right before the
    // library looks at it.
    if (getenv("QELBOARD_SOCKET") != nullptr) qel::board::current_link();
    return &qel::board::g_world;
}
