#include "frame/log.h"

namespace qel::log {

void assertion_failed(const char *function, int line) {
    OSA_logWrite(kError, kErrorAttribute, "[libqel] ASSERT (%s|%d)\r\n", function, line);
    for (;;) {
        // An empty statement with a side effect, so that the loop may not be optimised away.
        asm volatile("" ::: "memory");
    }
}

}  // namespace qel::log
