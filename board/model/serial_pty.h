// serial_pty.h - one pseudo-terminal of the host: a program opens its path, the board holds the other end.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "board/model/serial_format.h"

struct termios;

namespace qel::board {

class Pty {
public:
    enum class Held : uint8_t {
        kOpen,    // the board keeps the program's end open as well: no hang-up when the last one closes it
        kClosed,  // the board can tell whether somebody has it open
    };
    // Raw and of 9600 8N1, or as a real line comes up (cooked). nullptr: the host has no more of them.
    static std::unique_ptr<Pty> make(Held held, bool raw);
    ~Pty();
    Pty(const Pty &) = delete;
    Pty &operator=(const Pty &) = delete;

    const std::string &path() const { return path_; }
    int fd() const { return master_; }

    // What a program has written, at most `most` bytes; 0 = nothing there (or nobody).
    size_t read(uint8_t *bytes, size_t most) const;
    // Bytes for the program to read; how many found room.
    size_t write(const uint8_t *bytes, size_t count) const;
    // Whether read() would find something.
    bool has_input() const;
    bool is_open_elsewhere() const;  // of kClosed only
    // Forgets what the program has not read yet.
    void forget_unread() const;

    // The speed set on it; 0 = one without a number here.
    uint32_t baud() const;
    // Shows the settings of a line on it, as far as a pseudo-terminal can.
    void show_format(const SerialFormat &format) const;

private:
    Pty() = default;
    bool open(Held held, bool raw);
    std::string path_;
    int master_ = -1;
    int slave_ = -1;  // -1: not held
};

}  // namespace qel::board
