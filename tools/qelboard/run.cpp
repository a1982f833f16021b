#include "tools/qelboard/run.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <span>
#include <thread>

#include "board/core/board.h"
#include "board/core/description.h"

namespace qel::tool {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto kServerPatience = 10s;   // for a server that starts or stops at this moment
constexpr auto kResidentPatience = 5s;  // for a resident to unload the library
constexpr int kPassedOn[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2};
// The processes that open channels to the other chips; all others never meet them.
constexpr const char *kLinkedNames[] = {"vesta", "VideoDaemon", "systools"};

int exit_status(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status); }

struct Pipe {
    board::UniqueFd read;
    board::UniqueFd write;

    Pipe() {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) throw Failure(std::string("pipe: ") + strerror(errno));
        read.reset(ends[0]);
        write.reset(ends[1]);
    }
};

// In the child. `mask`: the signals that are blocked for it.
[[noreturn]] void execute(const Launch &launch, const sigset_t &mask) {
    sigprocmask(SIG_SETMASK, &mask, nullptr);
    std::vector<char *> arguments;
    std::vector<char *> environment;
    for (const std::string &word : launch.arguments) arguments.push_back(const_cast<char *>(word.c_str()));
    for (const std::string &entry : launch.environment)
        environment.push_back(const_cast<char *>(entry.c_str()));
    arguments.push_back(nullptr);
    environment.push_back(nullptr);
    execvpe(arguments[0], arguments.data(), environment.data());
    const int error = errno;
    fprintf(stderr, "qelboard: cannot run %s: %s\n", arguments[0], strerror(error));
    _exit(error == ENOENT ? kNotFound : kNotExecutable);
}

// ---- The server --------------------------------------------------------------------------------

void report_ready(void *context, const std::string &error) {
    const int fd = static_cast<board::UniqueFd *>(context)->get();
    const std::string text = error.empty() ? "ready" : error;
    if (write(fd, text.data(), text.size()) < 0) return;  // nobody waits any more
    static_cast<board::UniqueFd *>(context)->reset();
}

// The board this run uses: served by a child of ours, or by a server that was there before.
class ServedBoard {
public:
    explicit ServedBoard(const BoardChoice &choice)
        : temporary_(choice.dir.empty()), home_(temporary_ ? make_temporary_dir() : choice.dir) {
        const auto deadline = Clock::now() + kServerPatience;
        while (!start(choice) && !join(choice)) {
            if (Clock::now() > deadline)
                throw Failure("the board server at " + home_.dir() + " does not answer");
            std::this_thread::sleep_for(20ms);
        }
        life_.reset();
    }
    ~ServedBoard() { leave(); }
    ServedBoard(const ServedBoard &) = delete;
    ServedBoard &operator=(const ServedBoard &) = delete;

    board::ControlLink &link() { return *link_; }
    const Home &home() const { return home_; }

    // Lets the board go. False when its server went wrong before or just now.
    bool leave() {
        if (link_ == nullptr) return true;
        std::string others;
        const std::string one[] = {"release"};
        bool fine = link_->call(one, others);
        link_.reset();
        // Whoever else uses the board keeps our server alive; it ends with the last of them.
        if (server_ > 0 && (!fine || others == "0")) {
            int status = 0;
            while (waitpid(server_, &status, 0) < 0 && errno == EINTR) continue;
            fine = fine && exit_status(status) == 0;
        }
        if (!fine) fprintf(stderr, "qelboard: the board server ended with an error\n");
        return fine;
    }

private:
    bool start(const BoardChoice &choice) {
        board::UniqueFd lock = home_.try_lock();
        if (!lock.is_open()) return false;
        Pipe ready;
        Pipe life;
        fflush(nullptr);
        server_ = fork();
        if (server_ < 0) throw Failure(std::string("fork: ") + strerror(errno));
        if (server_ == 0) {
            // Not of the terminal's group: what ends the command there must not end the board first.
            setsid();
            const board::UniqueFd null(::open("/dev/null", O_RDWR | O_CLOEXEC));
            dup2(null.get(), STDIN_FILENO);
            dup2(null.get(), STDOUT_FILENO);
            ready.read.reset();
            life.write.reset();
            const int code = serve_board(choice, home_, std::move(lock), temporary_, std::move(life.read),
                                         report_ready, &ready.write);
            fflush(nullptr);
            _exit(code);
        }
        ready.write.reset();
        life_ = std::move(life.write);
        std::string text;
        char part[512];
        for (ssize_t got = 1; got > 0 || (got < 0 && errno == EINTR);) {
            got = read(ready.read.get(), part, sizeof part);
            if (got > 0) text.append(part, static_cast<size_t>(got));
        }
        if (text != "ready") {
            waitpid(server_, nullptr, 0);
            throw Failure(text.empty() ? "the board server died at its start" : text);
        }
        link_ = connect_control(home_.socket());
        command(*link_, {"hold"});
        return true;
    }

    // False when no server answers, or one that ends at this moment.
    bool join(const BoardChoice &choice) {
        std::string error;
        link_ = board::ControlLink::connect(home_.socket(), error);
        const std::string hold[] = {"hold"};
        if (link_ == nullptr || !link_->call(hold, error)) return false;
        const BoardInfo info = board_info(*link_);
        const std::string wanted =
            board::Description::parse(board::find_board(choice.board)).required_text("name");
        if (info.name != wanted)
            throw Failure(home_.dir() + " is board " + info.name + ", and it is running; not " + wanted);
        if (choice.time_scale != 0 && choice.time_scale != info.time_scale)
            throw Failure("the board runs already, with --scale " + std::to_string(info.time_scale));
        for (const auto &words : first_commands(choice)) command(*link_, words);
        return true;
    }

    const bool temporary_;
    const Home home_;
    std::unique_ptr<board::ControlLink> link_;
    board::UniqueFd life_;  // holds our server until the link does, or ends it with us
    pid_t server_ = -1;
};

// ---- The other chips ---------------------------------------------------------------------------

class Resident {
public:
    Resident(const Place &place, const sigset_t &mask) : chip_(place.chip) {
        const Launch launch = launch_on(place, resident_command(place));
        Pipe input;
        Pipe output;
        fflush(nullptr);
        pid_ = fork();
        if (pid_ < 0) throw Failure(std::string("fork: ") + strerror(errno));
        if (pid_ == 0) {
            setpgid(0, 0);  // Ctrl-C is for the command
            dup2(input.read.get(), STDIN_FILENO);
            dup2(output.write.get(), STDOUT_FILENO);
            dup2(output.write.get(), STDERR_FILENO);
            execute(launch, mask);
        }
        life_ = std::move(input.write);
        output_ = std::move(output.read);
        fcntl(output_.get(), F_SETFL, O_NONBLOCK);
    }

    pid_t pid() const { return pid_; }
    bool is_running() const { return pid_ > 0; }
    int output() const { return output_.get(); }
    void end() { life_.reset(); }
    void kill() const { ::kill(pid_, SIGKILL); }

    void ended(int status, bool expected) {
        pid_ = -1;
        read_output();
        if (expected && exit_status(status) == 0) return;
        print_lines();
        fprintf(stderr, "qelboard: the resident process of chip %u ended by itself, with status %d\n", chip_,
                exit_status(status));
    }

    // Its lines, marked with the chip they come from. Its log is for those who asked for one; of the
    // rest the end is kept, in case something goes wrong.
    void read_output() {
        char part[1024];
        ssize_t got = 0;
        while (output_.is_open() && (got = read(output_.get(), part, sizeof part)) > 0)
            text_.append(part, static_cast<size_t>(got));
        const bool over = got == 0;
        if (over) output_.reset();
        if (over && !text_.empty() && text_.back() != '\n') text_ += '\n';
        if (getenv("OSA_LOG") != nullptr) print_lines();
        if (text_.size() > kKeptBytes) text_.erase(0, text_.size() - kKeptBytes);
    }

private:
    void print_lines() {
        for (size_t end; (end = text_.find('\n')) != std::string::npos; text_.erase(0, end + 1))
            fprintf(stderr, "[chip %u] %.*s\n", chip_, static_cast<int>(end), text_.c_str());
    }

    static constexpr size_t kKeptBytes = 8192;
    const uint32_t chip_;
    pid_t pid_ = -1;
    board::UniqueFd life_;  // its standard input: it ends when this closes
    board::UniqueFd output_;
    std::string text_;  // not printed yet
};

// ---- The run -----------------------------------------------------------------------------------

class Run {
public:
    Run(const RunOptions &options, ServedBoard &board) : options_(options), board_(board) {
        sigset_t caught;
        sigemptyset(&caught);
        sigaddset(&caught, SIGCHLD);
        for (const int number : kPassedOn) sigaddset(&caught, number);
        sigprocmask(SIG_BLOCK, &caught, &old_mask_);
        signals_.reset(signalfd(-1, &caught, SFD_CLOEXEC | SFD_NONBLOCK));
    }
    ~Run() {
        for (const auto &resident : residents_) {
            if (resident->is_running()) resident->kill();
        }
        sigprocmask(SIG_SETMASK, &old_mask_, nullptr);
    }

    void start_residents(uint32_t chips) {
        for (uint32_t chip = 0; chip < chips; ++chip) {
            if (chip == options_.place.chip) continue;
            residents_.push_back(std::make_unique<Resident>(placed_on(chip), old_mask_));
        }
    }

    int command() {
        const Launch launch = launch_on(placed_on(options_.place.chip), options_.command);
        fflush(nullptr);
        // Our signals stay blocked meanwhile: a command that ends at once would end unnoticed.
        command_ = fork();
        if (command_ == 0) execute(launch, old_mask_);
        if (command_ < 0) throw Failure(std::string("fork: ") + strerror(errno));
        while (command_ > 0) turn(-1);
        return status_;
    }

    void end_residents() {
        ending_ = true;
        for (const auto &resident : residents_) resident->end();
        const auto deadline = Clock::now() + kResidentPatience;
        bool killed = false;
        while (std::ranges::any_of(residents_, [](const auto &r) { return r->is_running(); })) {
            turn(100);
            if (killed || Clock::now() < deadline) continue;
            fprintf(stderr, "qelboard: a resident process does not end; it is killed\n");
            killed = true;
            for (const auto &resident : residents_) {
                if (resident->is_running()) resident->kill();
            }
        }
    }

    bool server_died() const { return server_died_; }

private:
    Place placed_on(uint32_t chip) const {
        Place place = options_.place;
        place.socket = board_.home().socket();
        place.chip = chip;
        place.failing_steps = failing_steps(options_.step_faults, chip);
        return place;
    }

    void turn(int timeout_ms) {
        std::vector<pollfd> watched = {{signals_.get(), POLLIN, 0},
                                       {server_died_ ? -1 : board_.link().descriptor(), POLLIN, 0}};
        for (const auto &resident : residents_) watched.push_back({resident->output(), POLLIN, 0});
        if (poll(watched.data(), watched.size(), timeout_ms) < 0) return;
        if (watched[1].revents != 0) {
            server_died_ = true;
            fprintf(stderr, "qelboard: the board server died; the devices of the board are gone\n");
        }
        for (const auto &resident : residents_) resident->read_output();
        if (watched[0].revents != 0) take_signals();
    }

    void take_signals() {
        signalfd_siginfo info{};
        while (read(signals_.get(), &info, sizeof info) == sizeof info) {
            if (info.ssi_signo == SIGCHLD) reap();
            // What the terminal sends, it has sent to the command as well.
            else if (info.ssi_code != SI_KERNEL && command_ > 0)
                kill(command_, static_cast<int>(info.ssi_signo));
        }
    }

    void reap() {
        int status = 0;
        if (command_ > 0 && waitpid(command_, &status, WNOHANG) == command_) {
            command_ = -1;
            status_ = exit_status(status);
        }
        for (const auto &resident : residents_) {
            if (resident->is_running() && waitpid(resident->pid(), &status, WNOHANG) == resident->pid())
                resident->ended(status, ending_);
        }
    }

    const RunOptions &options_;
    ServedBoard &board_;
    sigset_t old_mask_{};
    board::UniqueFd signals_;
    std::vector<std::unique_ptr<Resident>> residents_;
    pid_t command_ = -1;
    int status_ = 0;
    bool ending_ = false;
    bool server_died_ = false;
};

bool is_linked_name(const std::string &name) {
    return std::ranges::any_of(kLinkedNames,
                               [&](const char *known) { return name.find(known) != std::string::npos; });
}

// The list that the server keeps under that name; nothing when there is none, or no server.
std::string listed(board::ControlLink &link, const std::string &what) {
    std::string text;
    return link.call(std::span(&what, 1), text) ? text : std::string();
}

// Says what the software did that a user should know of. False when a device was used wrongly.
bool report(board::ControlLink &link) {
    const std::string events = listed(link, "events");
    if (!events.empty())
        fprintf(stderr, "qelboard: asked of the machine, noted and not done:\n%s", events.c_str());
    const std::string misuses = listed(link, "misuses");
    if (!misuses.empty()) fprintf(stderr, "qelboard: devices were used wrongly:\n%s", misuses.c_str());
    return misuses.empty();
}

}  // namespace

int run_on_board(const RunOptions &options) {
    ServedBoard board(options.choice);
    const BoardInfo info = board_info(board.link());
    if (options.place.chip >= info.chips)
        throw Failure("board " + info.name + " has no chip " + std::to_string(options.place.chip) +
                      ", its chips are 0 to " + std::to_string(info.chips - 1));
    if (!command(board.link(), {"power-on"}).empty())
        fprintf(stderr, "qelboard: the power had been cut; it is on again\n");
    int status = 0;
    bool served = true;
    {
        Run run(options, board);
        if (options.residents && is_linked_name(options.place.as)) run.start_residents(info.chips);
        status = run.command();
        run.end_residents();
        served = !run.server_died();
    }
    const bool used_well = !served || report(board.link());
    served = board.leave() && served;
    if (status != 0) return status;
    return !served ? kRunFailed : used_well ? 0 : kMisused;
}

}  // namespace qel::tool
