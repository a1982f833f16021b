// world.h - which board this process lives on, and the one world structure that says so to libqel.
//
// A process joins a board in one of two ways: a test enters one of its own (Board::enter), or the
// environment names a server, which is tried once at the first call that needs a board:
//     QELBOARD_SOCKET  the server's socket
//     QELBOARD_CHIP    the chip to run on, 0 when missing
//     QELBOARD_AS      the process name to take, unchanged when missing
// Without either every call that names a device or a file fails with ENODEV, so that a program that
// was built for the board never touches this machine by accident.
#pragma once

#include <memory>
#include <string>

#include "board/core/link.h"
#include "os/hook.h"

namespace qel::board {

// One board at a time. The link lives until leave_world; nobody may be inside a call then.
void join_world(std::unique_ptr<Link> link);
// Closes the device descriptors that are still open.
void leave_world();

// The board of this process, nullptr = none.
Link *current_link();
// The gate's operations on it (backend.cpp).
extern const qel_os_ops kBoardOps;

std::string process_name();
// Takes the name (of /proc/self/comm, at most 15 bytes of it) for the whole process; the old name.
std::string take_process_name(const std::string &name);

}  // namespace qel::board
