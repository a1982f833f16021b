#include "tools/qelboard/home.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>

#include "board/core/board.h"
#include "board/core/description.h"
#include "board/net/commands.h"
#include "board/net/server.h"

namespace qel::tool {

namespace {

namespace fs = std::filesystem;

// The server that signals stop; one per process.
board::Server *g_stopped_by_signal = nullptr;

void stop_on_signal(int) {
    if (g_stopped_by_signal != nullptr) g_stopped_by_signal->stop();
}

class StopSignals {
public:
    explicit StopSignals(board::Server &server) {
        g_stopped_by_signal = &server;
        struct sigaction action {};
        action.sa_handler = stop_on_signal;
        sigaction(SIGTERM, &action, nullptr);
        sigaction(SIGINT, &action, nullptr);
        sigaction(SIGHUP, &action, nullptr);
    }
    ~StopSignals() {
        // A second signal while the board is being saved must not end it half-way.
        for (const int number : {SIGTERM, SIGINT, SIGHUP}) signal(number, SIG_IGN);
        g_stopped_by_signal = nullptr;
    }
};

void allow_many_descriptors() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

// The description a kept board was made from, so that nobody opens it as another one.
void remember_board(const Home &home, const std::string &name) {
    const std::string path = home.dir() + "/board";
    std::unique_ptr<std::FILE, int (*)(std::FILE *)> file(std::fopen(path.c_str(), "re"), std::fclose);
    char held[256] = {};
    if (file != nullptr) {
        if (std::fgets(held, sizeof held, file.get()) == nullptr) held[0] = 0;
        held[strcspn(held, "\n")] = 0;
        if (name == held) return;
        throw Failure(home.dir() + " holds board " + held + ", not " + name +
                      "; give another --dir, or remove that folder");
    }
    file.reset(std::fopen(path.c_str(), "wxe"));
    if (file == nullptr || std::fprintf(file.get(), "%s\n", name.c_str()) < 0)
        throw Failure("cannot write " + path + ": " + strerror(errno));
}

void prepare(board::Commands &commands, const BoardChoice &choice) {
    for (const auto &words : first_commands(choice)) {
        std::string text;
        if (!commands.run(words, text)) throw Failure(text);
    }
}

}  // namespace

std::vector<std::vector<std::string>> first_commands(const BoardChoice &choice) {
    std::vector<std::vector<std::string>> commands;
    if (!choice.trace.empty()) commands.push_back({"trace", choice.trace});
    for (const std::string &fault : choice.faults) commands.push_back({"fault", fault});
    return commands;
}

Home::Home(const std::string &dir) {
    std::error_code error;
    fs::create_directories(dir, error);
    if (error) throw Failure("cannot make the folder " + dir + ": " + error.message());
    dir_ = fs::canonical(dir, error).string();
    if (error) throw Failure("cannot use the folder " + dir + ": " + error.message());
}

board::UniqueFd Home::try_lock() const {
    const std::string path = dir_ + "/server.lock";
    board::UniqueFd lock(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (!lock.is_open()) throw Failure("cannot open " + path + ": " + strerror(errno));
    if (::flock(lock.get(), LOCK_EX | LOCK_NB) == 0) return lock;
    if (errno != EWOULDBLOCK) throw Failure("cannot lock " + path + ": " + strerror(errno));
    return {};
}

std::string make_temporary_dir() {
    const char *parent = getenv("TMPDIR");
    std::string path = std::string(parent != nullptr && *parent != 0 ? parent : "/tmp") + "/qelboard-XXXXXX";
    if (mkdtemp(path.data()) == nullptr) throw Failure("cannot make " + path + ": " + strerror(errno));
    return path;
}

int serve_board(const BoardChoice &choice, const Home &home, board::UniqueFd lock, bool temporary,
                board::UniqueFd starter, void (*report)(void *context, const std::string &error),
                void *context) {
    signal(SIGPIPE, SIG_IGN);
    allow_many_descriptors();
    int code = 0;
    try {
        // Left by a server that was killed: nobody else can be there while we hold the lock.
        if (lock.is_open()) ::unlink(home.socket().c_str());
        board::Options options;
        options.dir = home.dir();
        options.time_scale = std::max(choice.time_scale, 1u);
        const std::string text = board::find_board(choice.board);
        // First: a board finds nothing but trouble in what another one kept.
        if (!temporary) remember_board(home, board::Description::parse(text).required_text("name"));
        board::Board served(text, options);
        board::Commands commands(served);
        prepare(commands, choice);
        board::Server server(served, home.socket());
        if (starter.is_open()) server.stop_when_unused(starter.release());
        const StopSignals signals(server);
        report(context, "");
        server.run();
    } catch (const std::exception &error) {
        report(context, error.what());
        code = 1;
    }
    if (temporary) {
        std::error_code ignored;
        fs::remove_all(home.dir(), ignored);
    }
    return code;
}

std::string running_socket(const std::string &dir) {
    if (!dir.empty()) return fs::absolute(dir).lexically_normal().string() + "/server";
    const char *own = getenv("QELBOARD_SOCKET");
    if (own != nullptr && *own != 0) return own;
    throw Failure("which board? Give --dir FOLDER of a running one, or call from a command that runs on it");
}

std::unique_ptr<board::ControlLink> connect_control(const std::string &socket) {
    std::string error;
    auto link = board::ControlLink::connect(socket, error);
    if (link == nullptr) throw Failure(error);
    return link;
}

std::string command(board::ControlLink &link, const std::vector<std::string> &words) {
    std::string text;
    if (!link.call(words, text)) throw Failure(text);
    return text;
}

BoardInfo board_info(board::ControlLink &link) {
    std::istringstream lines(command(link, {"info"}));
    BoardInfo info;
    std::string chips;
    std::string scale;
    std::getline(lines, info.name);
    std::getline(lines, chips);
    std::getline(lines, scale);
    std::getline(lines, info.run_dir);
    const auto number = [](const std::string &text, uint32_t &out) {
        return std::from_chars(text.data(), text.data() + text.size(), out).ec == std::errc{};
    };
    if (!number(chips, info.chips) || !number(scale, info.time_scale))
        throw Failure("the board does not say how many chips it has");
    return info;
}

}  // namespace qel::tool
