// fault.h - breaking things on purpose: which request of which device goes wrong, and how.
//
// A fault is one line of text:
//
//     [chip N] NODE OPERATION[:REQUEST] ACTION [WHEN]
//     [chip N] [NODE] power-cut at N [torn BYTES]
//
//   NODE       a path as the process gives it, or a pattern with * and ? ("/dev/mtd/*", "/mnt/*"); of lines
//              that the microcontroller carries "/dev/qecMcu/raw", "/dev/qecMcu/24"
//   OPERATION  open close read write seek ioctl map term, stat list mkdir remove rename umount run
//              reboot, or * for all of these; line for the bytes on a serial line
//   REQUEST    of an ioctl: its name as the trace shows it, or its code ("0xC0044800"); of a terminal call
//              its name ("tcdrain"); of a line the direction: `in` to the board's processes, `out` from them,
//              both when missing
//   ACTION     fail ERRNO        answer with that error, the device never sees the request
//              short BYTES       read, write or answer no more than so many bytes
//              flip BIT[,BIT]    turn bits of the data round: read and ioctl answers, written data
//              delay MS          answer that much later (of the board's time)
//              lose, double, flip BIT[,BIT], delay MS, hang-up
//                                of a line: what becomes of the byte; hang-up pulls the plug before it
//   WHEN       at N              the Nth such request (of a line: byte) from now, only it
//              at N..M           the Nth to the Mth
//              from N            the Nth and all after it
//              every N           the Nth, the 2Nth ...
//              missing: always
//   power-cut  in the middle of the Nth device write from now: `torn` bytes of it reach the medium
//              (all when missing), then every process of the board ends at once
//
// Requests on files are known by open and the path operations only: their data does not pass here.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "board/core/request.h"

namespace qel::board {

class FaultError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

enum class FaultAction : uint8_t { kFail, kShort, kFlip, kDelay, kPowerCut, kLose, kDouble, kHangUp };

struct Fault {
    std::string text;              // as it was given
    std::optional<uint32_t> chip;  // missing: every chip
    std::string node = "*";
    std::string operation = "*";
    std::string request;  // of an ioctl or a terminal call: a name or a code; empty: every one
    FaultAction action = FaultAction::kFail;
    int64_t argument = 0;         // errno, bytes, milliseconds, torn bytes (-1: the whole write)
    std::vector<uint32_t> flips;  // bit numbers, bit 0 = lowest of byte 0
    uint64_t first = 1;           // requests it applies to, counted from 1 ...
    uint64_t last = UINT64_MAX;
    uint64_t step = 1;  // ... every so many after the first
    uint64_t seen = 0;  // requests that matched so far

    // Counts one matching request; whether this is one to break.
    bool strikes();
};

// Throws FaultError naming the word that is wrong.
Fault parse_fault(std::string_view text);

// What is known of a request when faults are looked up.
struct RequestView {
    uint32_t chip;
    std::string_view node;
    std::string_view operation;
    std::string_view request_name;  // of an ioctl, may be empty
    uint32_t code;                  // of an ioctl
};
bool matches(const Fault &fault, const RequestView &request);

// What becomes of one byte on a serial line.
struct LineFault {
    bool lost = false;
    bool twice = false;
    bool hangs_up = false;
    uint8_t flips = 0;
    int64_t delay_ms = 0;
};
// Counts a byte that goes over the line of `node` and adds what this fault does to it.
void strike_byte(Fault &fault, uint32_t chip, std::string_view node, bool to_host, LineFault &out);

// The name of an operation as faults and the trace call it.
const char *operation_name(Op op, uint32_t code);
// Of the code of an Op::kTerm, as the trace and faults have it; "" = none.
const char *terminal_call_name(uint32_t code);

// `*` any run of characters ("/" too), `?` any one.
bool glob_match(std::string_view pattern, std::string_view text);

}  // namespace qel::board
