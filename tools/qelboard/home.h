// home.h - the folder of a board on this machine, and the server that may be running in it.
#pragma once

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "board/net/client.h"

namespace qel::tool {

// What the user is told, on one line; the program ends with `code`.
class Failure : public std::runtime_error {
public:
    explicit Failure(const std::string &text, int code = 1) : std::runtime_error(text), code_(code) {}
    int code() const { return code_; }

private:
    int code_;
};

struct BoardChoice {
    std::string board;        // name or path of its description
    std::string dir;          // empty: a folder of its own, removed at the end
    uint32_t time_scale = 0;  // 0: as it comes
    std::vector<std::string> faults;
    std::string trace;  // file to append the trace to, absolute, empty = none
};

// The commands that give a board the trace and the faults of the choice.
std::vector<std::vector<std::string>> first_commands(const BoardChoice &choice);

// The folder of one board. At most one server runs in it: it holds a lock there for as long as it
// lives, so a lock without a holder means a server that died, whatever files it left.
class Home {
public:
    explicit Home(const std::string &dir);
    const std::string &dir() const { return dir_; }
    std::string socket() const { return dir_ + "/server"; }
    // The lock, or a closed descriptor while somebody else has it.
    board::UniqueFd try_lock() const;

private:
    std::string dir_;
};

// A fresh folder for a board that nobody wants to keep.
std::string make_temporary_dir();

// Serves the board in this process until it is told to stop; SIGTERM and SIGINT stop it. `lock` comes
// from Home::try_lock. `report` is called once: with an empty text when processes can connect, or
// with what is wrong. With a `starter` it ends when nobody holds it any more, see
// Server::stop_when_unused. Returns the exit code.
int serve_board(const BoardChoice &choice, const Home &home, board::UniqueFd lock, bool temporary,
                board::UniqueFd starter, void (*report)(void *context, const std::string &error),
                void *context);

// The socket of a running board: of `dir`, or when that is empty of the board this process runs on.
std::string running_socket(const std::string &dir);
// Connects to it, or throws Failure.
std::unique_ptr<board::ControlLink> connect_control(const std::string &socket);
// Runs one command there; its answer, or throws Failure with what the server says.
std::string command(board::ControlLink &link, const std::vector<std::string> &words);

struct BoardInfo {
    std::string name;
    uint32_t chips = 1;
    uint32_t time_scale = 1;
    std::string run_dir;
};
BoardInfo board_info(board::ControlLink &link);

}  // namespace qel::tool
