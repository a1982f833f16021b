#include "tools/qelboard/verbs.h"

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <thread>

#include "board/core/board.h"
#include "board/core/description.h"
#include "board/core/trace.h"
#include "board/peer/session.h"
#include "tools/qelboard/home.h"
#include "tools/qelboard/run.h"
#include "tools/qelboard/step_fault.h"

namespace qel::tool {

namespace {

namespace fs = std::filesystem;

constexpr const char *kFaultHelp = R"(A fault is one line:
  [chip N] NODE OPERATION[:REQUEST] ACTION [WHEN]      NODE may hold * and ?; REQUEST as the trace shows it
  [chip N] [NODE] power-cut at N [torn BYTES]
  [chip N] step NAME fail                              of `run` only: a step of the library's chains
    OPERATION  open close read write seek ioctl map term stat list mkdir remove rename umount run
               reboot, or *; line[:in|:out] for the bytes on a serial line
    ACTION     fail ERRNO | short BYTES | flip BIT[,BIT...] | delay MS
               of a line: lose | double | flip BIT[,BIT...] | delay MS | hang-up
    WHEN       at N | at N..M | from N | every N, counted from now; missing: always)";

void add_board_options(CLI::App &verb, BoardChoice &choice) {
    verb.add_option("board", choice.board, "Name of a shipped board, or path of a board file")->required();
    verb.add_option("--dir", choice.dir,
                    "Keep the board in this folder; without it a new one is made and removed");
    verb.add_option("--scale", choice.time_scale, "Let the board's time run N times as fast")
        ->check(CLI::Range(1, 10000));
    verb.add_option("--fault", choice.faults,
                    "Break something (see `qelboard fault --help`); may be repeated")
        ->take_all()
        ->allow_extra_args(false);
    verb.add_option("--trace", choice.trace, "Append every request to this file, as JSON lines");
}

void make_absolute(BoardChoice &choice) {
    if (!choice.trace.empty()) choice.trace = fs::absolute(choice.trace).string();
}

void add_dir(CLI::App &verb, std::string &dir) {
    verb.add_option("--dir", dir, "Folder of the running board; without it, the board this process runs on");
}

void print(const std::string &text) { std::fwrite(text.data(), 1, text.size(), stdout); }

// ---- serve -------------------------------------------------------------------------------------

void announce(void *context, const std::string &error) {
    const auto &home = *static_cast<const Home *>(context);
    if (!error.empty()) {
        fprintf(stderr, "qelboard: %s\n", error.c_str());
        return;
    }
    printf("The board is in %s\nUse it with --dir, end it with Ctrl-C.\n", home.dir().c_str());
    fflush(stdout);
}

int serve(BoardChoice choice) {
    for (const std::string &fault : choice.faults) refuse_step_fault(fault);
    make_absolute(choice);
    const bool temporary = choice.dir.empty();
    const Home home(temporary ? make_temporary_dir() : choice.dir);
    board::UniqueFd lock = home.try_lock();
    if (!lock.is_open()) throw Failure("a server runs in " + home.dir() + " already");
    return serve_board(choice, home, std::move(lock), temporary, {}, announce, const_cast<Home *>(&home));
}

// ---- show --------------------------------------------------------------------------------------

struct ShowOptions {
    std::string board;
    std::string dir;
    bool json = false;
    std::string svg;  // the file to draw into
    const char *form() const { return !svg.empty() ? "svg" : json ? "json" : "text"; }
};

// As it runs, or else as it would start.
std::string show(const ShowOptions &options) {
    const std::vector<std::string> words = {"show", options.form()};
    if (!options.dir.empty() || options.board.empty()) {
        std::string error;
        const std::string socket = running_socket(options.dir);
        if (auto link = board::ControlLink::connect(socket, error)) return command(*link, words);
        if (options.board.empty())
            throw Failure(error + "; name the board as well to see what a folder holds while no server runs");
    }
    board::Options where;
    where.dir = options.dir;
    const board::Board board(board::find_board(options.board), where);
    return !options.svg.empty() ? board.show_svg() : board.show(options.json);
}

void write_text(const std::string &path, const std::string &text) {
    std::ofstream file(path, std::ios::binary);
    file << text;
    file.close();
    if (!file) throw Failure("cannot write " + path);
}

// ---- new ---------------------------------------------------------------------------------------

void make_board_file(const std::string &path, const std::string &from, bool overwrite) {
    const std::string text = board::find_board(from);
    if (!overwrite && fs::exists(path)) throw Failure(path + " exists; --force writes over it");
    write_text(path, text);
    printf("%s is a copy of board \"%s\"; edit it, then: qelboard run %s -- COMMAND\n", path.c_str(),
           from.c_str(), path.find('/') == std::string::npos ? ("./" + path).c_str() : path.c_str());
}

// ---- trace -------------------------------------------------------------------------------------

std::ifstream open_trace(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) throw Failure("cannot read " + path);
    return file;
}

void print_trace(const std::string &path, bool follow) {
    std::ifstream file = open_trace(path);
    std::cout << board::trace_row("") << '\n';
    std::string text;  // the start of a line, while the board is still writing it
    char part[4096];
    do {
        file.clear();
        while (file.read(part, sizeof part), file.gcount() > 0) {
            text.append(part, static_cast<size_t>(file.gcount()));
            for (size_t end; (end = text.find('\n')) != std::string::npos; text.erase(0, end + 1))
                std::cout << board::trace_row(text.substr(0, end)) << '\n';
        }
        std::cout.flush();
        if (follow) std::this_thread::sleep_for(std::chrono::milliseconds(100));
    } while (follow && std::cout);
    if (!text.empty()) std::cout << board::trace_row(text) << '\n';
}

struct SessionOptions {
    std::string line;
    uint32_t chip = 0;
    uint32_t opening = 1;
};

void print_session(const std::string &path, const SessionOptions &wanted) {
    std::ifstream file = open_trace(path);
    board::SessionReader session(wanted.chip, wanted.line, wanted.opening);
    for (std::string entry; std::getline(file, entry);) session.read(entry);
    if (session.empty())
        throw Failure(path + " has no bytes of " + wanted.line + " on chip " + std::to_string(wanted.chip) +
                      " from when it was opened for the " + std::to_string(wanted.opening) + ". time");
    print(session.as_peer());
}

}  // namespace

void add_run(CLI::App &app, CommandLine &line) {
    auto *verb = app.add_subcommand("run", "Run a command on a board");
    auto options = std::make_shared<RunOptions>();
    verb->footer("The command and its arguments stand at the end, behind --.");
    add_board_options(*verb, options->choice);
    verb->add_option("--chip", options->place.chip, "The chip the command runs on");
    verb->add_option("--as", options->place.as, "Process name to take before the library looks at it")
        ->check([](const std::string &name) {
            return name.size() <= 15 ? "" : std::string("a process name has at most 15 bytes");
        });
    verb->add_flag("!--no-residents", options->residents,
                   "Start no processes in the place of the other chips' software");
    verb->add_option("--emulator", options->place.emulator,
                     "For a program of another processor: its emulator with options, for example "
                     "'qemu-arm -L SYSROOT'");
    verb->add_option("--preload", options->place.preload,
                     "With --emulator: the libqelboard.so built for that processor");
    verb->callback([options, &line] {
        if (line.command.empty()) throw Failure("run needs a command: qelboard run BOARD -- COMMAND");
        options->command = line.command;
        make_absolute(options->choice);
        options->step_faults = take_step_faults(options->choice.faults);
        line.code = run_on_board(*options);
    });
}

void add_serve(CLI::App &app, CommandLine &line) {
    auto *verb = app.add_subcommand("serve", "Keep a board running until Ctrl-C");
    auto choice = std::make_shared<BoardChoice>();
    add_board_options(*verb, *choice);
    verb->callback([choice, &line] { line.code = serve(*choice); });
}

void add_boards(CLI::App &app, CommandLine &) {
    app.add_subcommand("boards", "List the boards that are shipped")->callback([] {
        for (const std::string &name : board::shipped_boards()) {
            const auto description = board::Description::parse(board::find_board(name));
            printf("%-12s %s\n", name.c_str(), description.text("summary", "").c_str());
        }
    });
}

void add_new(CLI::App &app, CommandLine &) {
    auto *verb = app.add_subcommand("new", "Write a board file to start from");
    struct Options {
        std::string path;
        std::string from = "sample";
        bool overwrite = false;
    };
    auto options = std::make_shared<Options>();
    verb->add_option("file", options->path, "The file to write")->required();
    verb->add_option("--from", options->from, "The board to copy; \"sample\" explains every key")
        ->capture_default_str();
    verb->add_flag("--force", options->overwrite, "Write over a file that exists");
    verb->callback([options] { make_board_file(options->path, options->from, options->overwrite); });
}

void add_show(CLI::App &app, CommandLine &) {
    auto *verb = app.add_subcommand("show", "Show what a board is and what its devices hold");
    auto options = std::make_shared<ShowOptions>();
    verb->add_option("board", options->board, "A board that does not run");
    add_dir(*verb, options->dir);
    auto *json = verb->add_flag("--json", options->json, "For programs");
    verb->add_option("--svg", options->svg, "Draw what flash and EEPROM hold into this file")->excludes(json);
    verb->callback([options] {
        const std::string text = show(*options);
        if (options->svg.empty()) {
            print(text);
        } else {
            write_text(options->svg, text);
        }
    });
}

void add_fault(CLI::App &app, CommandLine &line) {
    auto *verb = app.add_subcommand("fault", "Break something on a running board");
    struct Options {
        std::string dir;
        std::vector<std::string> words;
        bool clear = false;
    };
    auto options = std::make_shared<Options>();
    verb->footer(kFaultHelp);
    verb->add_option("fault", options->words, "The fault, quoted or not");
    verb->add_flag("--clear", options->clear, "Forget all faults that were added before");
    add_dir(*verb, options->dir);
    verb->callback([options, &line] {
        options->words.insert(options->words.end(), line.command.begin(), line.command.end());
        if (options->words.empty() && !options->clear) throw Failure("which fault? See --help", 2);
        std::string fault;
        for (const std::string &word : options->words) fault += (fault.empty() ? "" : " ") + word;
        refuse_step_fault(fault);
        const auto link = connect_control(running_socket(options->dir));
        if (options->clear) command(*link, {"clear-faults"});
        if (!fault.empty()) command(*link, {"fault", fault});
    });
}

void add_trace(CLI::App &app, CommandLine &) {
    auto *verb = app.add_subcommand("trace", "Read or write the trace of all requests");
    verb->require_subcommand(1);
    auto path = std::make_shared<std::string>();
    auto dir = std::make_shared<std::string>();
    auto follow = std::make_shared<bool>(false);

    auto *read = verb->add_subcommand("read", "Print a trace as a table");
    read->add_option("file", *path, "The trace")->required();
    read->add_flag("--follow,-f", *follow, "Go on as it grows, until Ctrl-C");
    read->callback([=] { print_trace(*path, *follow); });

    auto wanted = std::make_shared<SessionOptions>();
    auto *session = verb->add_subcommand(
        "session", "Print what was said on a serial line as a peer that replays it, for a board file");
    session->add_option("file", *path, "The trace")->required();
    session
        ->add_option("line", wanted->line,
                     "The line: a node, for example /dev/ttyS1, /dev/qecMcu/raw or /dev/qecMcu/24")
        ->required();
    session->add_option("--chip", wanted->chip, "The chip of the line");
    session->add_option("--opening", wanted->opening, "Which time that the line was opened")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    session->callback([=] { print_session(*path, *wanted); });

    auto *start = verb->add_subcommand("start", "Let a running board append its trace to a file");
    start->add_option("file", *path, "The trace")->required();
    add_dir(*start, *dir);
    start->callback([=] {
        command(*connect_control(running_socket(*dir)), {"trace", fs::absolute(*path).string()});
    });

    auto *stop = verb->add_subcommand("stop", "End the trace of a running board");
    add_dir(*stop, *dir);
    stop->callback([=] { command(*connect_control(running_socket(*dir)), {"trace"}); });
}

void add_poke(CLI::App &app, CommandLine &line) {
    auto *verb =
        app.add_subcommand("poke", "Do to a device of a running board what the world outside would do");
    struct Options {
        std::string dir;
        std::string node;
        std::vector<std::string> words;
        uint32_t chip = 0;
    };
    auto options = std::make_shared<Options>();
    add_dir(*verb, options->dir);
    verb->add_option("--chip", options->chip, "The chip of the device");
    verb->add_option("node", options->node, "The device, for example /dev/gpio")->required();
    verb->add_option("words", options->words, "What the device understands, for example: drive 3 1");
    verb->callback([options, &line] {
        std::vector<std::string> words = {"poke", std::to_string(options->chip), options->node};
        words.insert(words.end(), options->words.begin(), options->words.end());
        words.insert(words.end(), line.command.begin(), line.command.end());
        const std::string answer = command(*connect_control(running_socket(options->dir)), words);
        print(answer.ends_with('\n') ? answer : answer + "\n");
    });
}

void add_power_on(CLI::App &app, CommandLine &) {
    auto *verb = app.add_subcommand("power-on", "Switch a running board on again after a power cut");
    auto dir = std::make_shared<std::string>();
    add_dir(*verb, *dir);
    verb->callback([dir] { print(command(*connect_control(running_socket(*dir)), {"power-on"})); });
}

}  // namespace qel::tool
