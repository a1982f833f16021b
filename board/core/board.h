// board.h - a virtual board: all chips of one unit with their devices and file trees.
//
// Runs inside a server (qelboard) or inside a test process:
//
//     qel::board::Board board(qel::board::find_board("dome"));
//     board.enter({.as = "vesta"});             // this process now lives on it
//     void *library = dlopen("libqel.so.1", RTLD_NOW);
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "board/core/device.h"
#include "board/core/link.h"
#include "board/core/request.h"

namespace qel::board {

struct Options {
    std::string dir;          // keep the board here; empty: a temporary directory, removed at the end
    uint32_t time_scale = 1;  // every sleep and time-out is divided by it
};

struct Entry {
    uint32_t chip = 0;
    std::string as;  // process name to take, empty = keep
};

class Board {
public:
    // `description`: the text of a board file. Throws DescriptionError (line, key, what is wrong).
    explicit Board(const std::string &description, const Options &options = {});
    ~Board();

    const std::string &name() const;
    uint32_t chip_count() const;
    Chip &chip(uint32_t number);
    Welcome welcome(uint32_t chip) const;

    // Makes this process live on the board by direct calls; one board at a time. leave() undoes it
    // (the destructor calls it). Load the library after enter and unload it before leave.
    void enter(const Entry &entry = {});
    void leave();

    // ---- the server's face. All calls are thread-safe. ----
    uint32_t add_client(uint32_t chip, uint32_t pid, const std::string &process_name);
    // Closes what it still holds. Call it when the last of its connections is gone, those of its open
    // devices included: a forked child may use them on.
    void remove_client(uint32_t client);
    // Runs the request. True: the reply is complete. False: ask again after a change (see
    // on_change) or at `deadline_ms` (of now_ms, -1 = none); call withdraw if nobody will.
    bool execute(Request &request, Reply &reply, int64_t &deadline_ms);
    void withdraw(const Request &request);
    // `ready(handle)` is called when the device behind the handle turns readable: put a token on.
    // `changed()` after any change that may complete a waiting request. Both from within execute or
    // poke, with the board's lock held: they only take notes.
    void on_change(std::function<void(uint32_t handle)> ready, std::function<void()> changed);
    int64_t now_ms() const;

    // ---- the tester's face ----
    void add_fault(std::string_view text);  // grammar: fault.h; throws FaultError
    void clear_faults();
    void trace_to(std::FILE *file);  // JSON lines; nullptr stops
    Answer poke(uint32_t chip, std::string_view node, const std::vector<std::string> &words);
    // Wrong use of a device by the software under test ("second write to page 7 without erase").
    // Printed on stderr when it happens. A board that a process entered and that ends with some that
    // nobody took ends the process with abort(): the test has found a fault.
    void report_misuse(const std::string &text);
    std::vector<std::string> take_misuses();
    // What the software asked of the machine ("chip 0: reboot 0x1234567", "chip 1: run ls",
    // "chip 0: umount /mnt/pd"); recorded, never done.
    std::vector<std::string> take_events();
    bool has_power() const;  // false after a power cut
    void power_on();
    void save();  // writes device contents to the directory; also at the end
    std::string show(bool json) const;
    std::string show_svg() const;  // a drawing of what flash and EEPROM hold

    struct Impl;  // impl.h

private:
    std::unique_ptr<Impl> impl_;
};

// The text of a board by name (shipped with the project, or a file's path). Throws DescriptionError.
std::string find_board(const std::string &name_or_path);
std::vector<std::string> shipped_boards();

}  // namespace qel::board
