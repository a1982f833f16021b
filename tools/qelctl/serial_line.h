// serial_line.h - a serial port of the board, open and set, and what the map says of it.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "qel/serial.h"
#include "tools/qelctl/library.h"

namespace qelctl {

// The items of the port map. Throws Failure(kFailed) where the driver tells none.
std::vector<ComMapItem> read_port_map(const Library &library);
// Throws Failure(kFailed) with the ports that there are.
ComMapItem find_port(const Library &library, unsigned port);
const char *port_kind_name(uint32_t kind);

// The rates of all lines but driver UARTs, which may have others.
constexpr uint32_t kUsualRates[] = {1200, 2400, 4800, 9600, 19200, 38400, 57600, 115200};

struct LineChoice {
    unsigned port = 0;
    std::string settings;  // "9600-8N1"; empty: what is usual for the kind
    std::string mode;      // "rs232", "rs485"; empty: as it is

    void add_to(CLI::App &verb);
};

// "9600-8N1", "19200-7E2". Throws Failure(kUsage).
ComAttribute line_settings(const std::string &text);

// Throws Failure(kFailed).
[[noreturn]] void line_ended();

class SerialLine {
public:
    // Opens and sets it. Throws Failure(kFailed).
    SerialLine(const Library &library, const LineChoice &choice);
    ~SerialLine();
    SerialLine(const SerialLine &) = delete;
    SerialLine &operator=(const SerialLine &) = delete;

    unsigned number() const { return item_.port; }
    // "port 1, 9600-8N1"; without the settings where they were left as they are.
    std::string description() const;
    // Throws Failure(kUsage) for a rate that such a line does not have, Failure(kFailed) when it is refused.
    void set(const ComAttribute &attribute);
    // Waits at most 500 ms for the first bytes. False: the line is gone; the library's log says why.
    bool read(std::vector<uint8_t> &bytes) const;
    // The same, but throws Failure(kFailed) when the line is gone.
    void read_or_fail(std::vector<uint8_t> &bytes) const;
    void discard_input() const;
    // How many bytes went out. On RS-485 frames of at most a second each; Ctrl-C ends it between two.
    size_t write(const uint8_t *bytes, size_t count) const;
    // Throws Failure(kFailed) when not all of them went out, Failure(kInterrupted) when that is why.
    void write_all(const std::vector<uint8_t> &bytes) const;

private:
    void open_and_set(const LineChoice &choice);

    ComMapItem item_;
    std::optional<ComAttribute> attribute_;  // none: it stands as it stood
    CommPort *port_ = nullptr;
};

}  // namespace qelctl
