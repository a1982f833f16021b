// memory.h - what a library adds to a process.
#pragma once

namespace qel::bench {

// Private bytes (in KiB) that loading `path` adds to a fresh child of this process; -1 if it fails.
long added_private_kib(const char *path);

}  // namespace qel::bench
