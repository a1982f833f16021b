// environment.h - the boot parameter call as the library's own modules make it.
#pragma once

namespace qel::environment {

// The value of a boot parameter with its terminator, which together must fit `size` bytes. 0, or -1
// for a missing parameter, which is also told on standard output. Takes no lock of another module.
int read_parameter(const char *name, char *value, int size);

}  // namespace qel::environment
