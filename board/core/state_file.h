// state_file.h - what a device keeps between two runs of its board, one file per node.
#pragma once

#include <string>

#include "board/core/request.h"

namespace qel::board {

// Replaces the file in one step; a run that dies meanwhile leaves the old one. `kind` is the key of
// the device's class. Throw std::system_error when the host's file system fails.
void write_state(const std::string &path, const std::string &kind, const Buffer &content);
// False: there is none. Throws std::runtime_error when the file is damaged or another kind's.
bool read_state(const std::string &path, const std::string &kind, Buffer &content);

}  // namespace qel::board
