// client.h - a process's way to a board that another process serves.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "board/core/link.h"
#include "board/net/packet.h"

namespace qel::board {

// Joins the board served at `socket_path` as a process of chip `chip`. nullptr when that fails;
// `error` then says why, in a sentence.
//
// call() and open() use a connection that is theirs alone until the answer is there, so a request
// that blocks holds up no other thread. A signal whose handler ran without SA_RESTART withdraws the
// request: it ends with -EINTR, or with its result when the device was faster. A child after fork()
// uses its parent's descriptors on and is a client of its own. One call writes or reads 64 MiB at the
// most. When the server is gone every request
// ends with -ENODEV. A reply that says the power was cut ends the process with SIGKILL.
std::unique_ptr<Link> connect_to_server(const std::string &socket_path, uint32_t chip, std::string &error);

// Commands to a running server: what the server understands stands in server.h.
class ControlLink {
public:
    // nullptr when no server answers; `error` then says why.
    static std::unique_ptr<ControlLink> connect(const std::string &socket_path, std::string &error);
    // True when the server did it; `text` is its answer, or what was wrong.
    bool call(std::span<const std::string> words, std::string &text);
    // Reports a hang-up when the server ends.
    int descriptor() const { return socket_.get(); }

private:
    explicit ControlLink(UniqueFd socket) : socket_(std::move(socket)) {}
    UniqueFd socket_;
};

// What identifies the device classes of this build and the records of their requests. Both ends must
// agree, for a reply names its class by number.
uint64_t class_fingerprint();

}  // namespace qel::board
