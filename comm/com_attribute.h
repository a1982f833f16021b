// com_attribute.h - a line's settings: ComAttribute to termios and back.
#pragma once

#include <termios.h>

#include "qel/serial.h"

namespace qel::comm {

// Changes `settings` as the attribute says, and warns, under `function`, of values that it cannot take.
void apply_attribute(const char *function, const ComAttribute &attribute, termios &settings);
// The settings as an attribute; 0, with a warning, for what an attribute cannot tell.
ComAttribute attribute_of(const char *function, const termios &settings);

// What a change of settings waits first.
void settle_line();
// Discards what is in the line's buffers and gives it these settings. 0, or -1 with a line in the log or on
// the standard error stream.
int apply_line_attribute(const char *function, int fd, const ComAttribute &attribute);
inline int set_line_attribute(const char *function, int fd, const ComAttribute &attribute) {
    settle_line();
    return apply_line_attribute(function, fd, attribute);
}

// Sets a line raw, after discarding what is in its buffers; `saved` is what it was. 0, or -1 with a line in
// the log.
int make_line_raw(const char *function, int fd, termios &saved);

// The speed's code, B9600 ...; false: not one of ours.
bool speed_code(uint32_t baud, speed_t &code);
// 0: not one of ours.
uint32_t baud_of(speed_t code);
// How long a line of these settings takes for the bytes.
uint64_t transmission_us(const termios &settings, size_t bytes);

}  // namespace qel::comm
