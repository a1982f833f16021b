// sysv.h - System V semaphores and segments outlive the processes that made them: whoever ends a board
// removes them.
#pragma once

#include <string>

namespace qel::tool {

// Removes the objects listed in `list` ("sem ID" and "shm ID" lines) and empties it. An object that
// was made after the list was last written is somebody else's, who was given a number again, and
// stays.
void remove_sysv_objects(const std::string &list);

}  // namespace qel::tool
