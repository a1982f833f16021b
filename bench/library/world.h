// world.h - the virtual board with a stopwatch between it and the library.
#pragma once

#include <cstdint>

namespace qel::bench {

// What the requests of this process to its board cost, and how many there were, since the last call.
struct Requests {
    uint64_t count = 0;
    double seconds = 0;
};
Requests take_requests();

}  // namespace qel::bench
