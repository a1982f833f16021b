// session.h - what was said on a serial line, and when: as a board description has it, as a trace tells it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "board/core/request.h"

namespace qel::board {

struct Said {
    int64_t at_ms = 0;     // since the session began, of the board's time
    bool by_host = false;  // else by the far end
    Buffer bytes;
};

// "MS > BYTES" or "MS < BYTES", bytes in hexadecimal or quotation marks. False: neither.
bool parse_said(const std::string &line, Said &said);

// Takes a session of one line out of a trace (board/core/trace.h): what was said between the `opening`th time
// that the line was opened, the first is 1, and the next time. Those who open it meanwhile share it.
class SessionReader {
public:
    SessionReader(uint32_t chip, std::string line, uint32_t opening)
        : chip_(chip), line_(std::move(line)), wanted_(opening) {}
    // One line of the trace; what tells nothing of the session is passed over.
    void read(const std::string &json_line);
    bool empty() const { return said_.empty(); }
    // The `peer` that replays it, to paste into a board description.
    std::string as_peer() const;

private:
    void open(int64_t time_us);
    void say(int64_t time_us, bool by_host, const std::string &hex);

    uint32_t chip_;
    std::string line_;
    uint32_t wanted_;
    uint32_t opening_ = 0;
    uint32_t opens_ = 0;  // at this moment
    int64_t begun_us_ = 0;
    std::vector<Said> said_;
};

}  // namespace qel::board
