// serial_line.h - a serial port of the board, open and set, and what the map says of it.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
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

struct LineChoice {
    unsigned port = 0;
    std::string settings;  // "9600-8N1"; empty: what is usual for the kind
    std::string mode;      // "rs232", "rs485"; empty: as it is

    void add_to(CLI::App &verb);
};

// "9600-8N1", "19200-7E2". Throws Failure(kUsage).
ComAttribute line_settings(const std::string &text);

class SerialLine {
public:
    // Opens and sets it. Throws Failure(kFailed).
    SerialLine(const Library &library, const LineChoice &choice);
    ~SerialLine();
    SerialLine(const SerialLine &) = delete;
    SerialLine &operator=(const SerialLine &) = delete;

    unsigned number() const { return item_.port; }
    uint32_t baud() const { return baud_; }
    void set(const ComAttribute &attribute);
    // Waits at most 500 ms for the first bytes. False: the line is gone; the library's log says why.
    bool read(std::vector<uint8_t> &bytes) const;
    void discard_input() const;
    // How many bytes went out. On RS-485 frames of at most a second each.
    size_t write(const uint8_t *bytes, size_t count) const;
    // Throws Failure(kFailed) when not all of them went out.
    void write_all(const std::vector<uint8_t> &bytes) const;

private:
    void open_and_set(const LineChoice &choice);

    ComMapItem item_;
    uint32_t baud_ = 9600;
    CommPort *port_ = nullptr;
};

}  // namespace qelctl
