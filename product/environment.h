// environment.h - the boot parameter call as the library's own modules make it.
#pragma once

namespace qel::environment {

// As getBootParameter, without its check of the pointers. Asks for board properties while it attaches:
// never call it with the product module's mutex held.
int read_parameter(const char *name, char *value, int size);

}  // namespace qel::environment
