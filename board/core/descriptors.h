// descriptors.h - which descriptors of this process stand for devices of its board.
#pragma once

#include <cstdint>

#include "board/core/request.h"

namespace qel::board {

struct Descriptor {
    uint32_t handle = 0;       // on the board; 0: an ordinary descriptor of the process
    uint16_t class_index = 0;  // in device_classes()
    bool is_tty = false;       // the process reads and writes it itself
    bool nonblocking = false;
};

// All lock-free, so that fork() and signal handlers find them usable. A descriptor closed by one
// thread while another uses it costs that one an EBADF: handles are never used twice.
Descriptor find_descriptor(int fd);
bool set_descriptor(int fd, const Descriptor &descriptor);  // false: no memory, or fd out of range
void clear_descriptor(int fd);

// Bytes written through a terminal's descriptor since set_descriptor.
void count_written(int fd, uint64_t bytes);
uint64_t written_bytes(int fd);

// Closes every device descriptor of the process.
void close_all_devices();

}  // namespace qel::board
