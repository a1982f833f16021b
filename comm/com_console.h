// com_console.h - the kernel's console shares its line with a port: telling it whose the line is.
#pragma once

namespace qel::comm {

// Writes "fd N" to the boot-parameter file: N the descriptor that uses the line now, -1 when nobody does.
// `*boot_fd` is the file, opened when it is -1; it is the caller's to close.
int tell_console(const char *function, int *boot_fd, int fd);

}  // namespace qel::comm
