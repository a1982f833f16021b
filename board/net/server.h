// server.h - serves one board to any number of processes, one loop in one thread.
#pragma once

#include <memory>
#include <string>

#include "board/core/board.h"

namespace qel::board {

// Listens from construction on, answers while run() runs.
//
// A request that the device cannot answer yet is parked and asked again after every change and at its
// deadline; it is withdrawn when its process says so or ends. What a process had open is closed with
// the last descriptor of it, also after kill -9. Packets that are not understood end the connection
// they came on and nothing else.
//
// Commands of a ControlLink, one list of words each; a wrong one is answered with what is wrong:
//     fault TEXT...            adds faults (grammar in board/core/fault.h)
//     clear-faults
//     trace PATH | trace       appends every request to a file of the server's; no path: stops
//     poke CHIP NODE WORDS...  what the device understands; answers its bytes, or else its number
//     show [json]
//     info                     name, chips, time scale and the folder of the sockets, one per line
//     events                   what the software asked of the machine since the last question
//     misuses                  what it did wrong to its devices since the last question
//     power-on                 after a power cut; answers nothing when the power was on
//     save                     device contents to the board's folder
//     hold                     the server stays while this connection does (see stop_when_unused)
//     release                  undoes hold; answers how many others hold it
//     stop
class Server {
public:
    // Throws std::system_error when it cannot listen at `socket_path`.
    Server(Board &board, const std::string &socket_path);
    ~Server();  // forgets every client and removes the socket
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    void run();
    void stop();  // from any thread, and from signal handlers
    // run() ends when the last connection that said "hold" is gone. `starter`, which the server owns from
    // now on, holds it as well until it hangs up: the end of a pipe that whoever started the server keeps
    // open until it has said "hold" itself, so that its death before that ends the server too.
    void stop_when_unused(int starter);

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace qel::board
