// trace.h - one line per request that a board served, and per piece of what went over its serial lines.
//
// JSON lines, one object each:
//   {"t_us": 1234, "chip": 0, "pid": 77, "process": "vesta", "node": "/dev/qecHwid", "op": "ioctl",
//    "request": "GET_RECORD", "code": "0xC0044800", "in": 0, "out": 456, "data": "1a00...", "result": 0}
// "request" stands for ioctls and terminal calls, "code" for ioctls, "data" holds the first bytes in
// hexadecimal: what was written or sent, or if there was none, what was read. A failed request has "error"
// ("EIO") too. Bytes on a serial line, all of them, "out" when the board's processes said them and "in" when
// they arrived:
//   {"t_us": 1234, "chip": 0, "node": "/dev/ttyS1", "op": "line", "direction": "out", "in": 2, "data":
//   "aa10"}
#pragma once

#include <cstdint>
#include <cstdio>
#include <span>
#include <string>
#include <string_view>

#include "board/core/request.h"

namespace qel::board {

constexpr size_t kTraceDataBytes = 16;

struct TraceEntry {
    int64_t time_us;  // of the board's clock, when the answer was complete
    uint32_t chip;
    uint32_t pid;
    std::string_view process;
    std::string_view node;
    std::string_view operation;
    std::string_view request_name;
};

std::string trace_of_request(const TraceEntry &entry, const Request &request, const Reply &reply);

struct LineEntry {
    int64_t time_us;
    uint32_t chip;
    std::string_view line;  // the node, with a name behind where it has several lines
    bool to_host;
};
std::string trace_of_line(const LineEntry &entry, std::span<const uint8_t> bytes);

// A readable table row of one JSON line; the header row for an empty line. A line that is no trace
// line comes back as it is.
std::string trace_row(const std::string &json_line);

}  // namespace qel::board
