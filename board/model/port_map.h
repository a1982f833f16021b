// port_map.h - the serial ports of a chip as the driver of "/dev/qecMisc" describes them: [[chip.port]].
#pragma once

#include <cstdint>
#include <vector>

#include "board/core/chip.h"
#include "board/core/description.h"

namespace qel::board {

constexpr int64_t kLastPort = 9;
constexpr size_t kPortMapBytes = 692;  // ten items of 60 bytes, then 92 that say nothing

class SerialLine;

// A device with a serial line in it; what the requests of "/dev/qecMisc" reach by the port's number.
class LineOwner {
public:
    virtual ~LineOwner() = default;
    virtual SerialLine &line() = 0;
};

class PortMap {
public:
    explicit PortMap(const Description &chip);

    bool empty() const { return items_.empty(); }
    // The record that the software reads.
    Buffer record() const;
    void show(Report &report) const;

    // Of a port that is in the map and has a line on this chip: 0, a value, or -errno.
    int set_direction(const Chip &chip, uint32_t port, uint32_t state) const;
    int set_mode(const Chip &chip, uint32_t port, uint32_t mode) const;
    int rs485_status(const Chip &chip, uint32_t port) const;
    // Tells every line of the chip how its port is wired.
    void wire_lines(const Chip &chip) const;

private:
    void check_lines(const Description &chip) const;
    struct Item {
        uint32_t number;
        uint32_t usage;
        uint32_t kind;
        uint32_t direction_line;
        uint32_t status_line;
        bool only_with_status;
        uint8_t type;
        uint8_t tty;
        bool tty_is_given;
        bool turns_by_itself;
        bool rs485;
    };
    static Item read_item(const Description &table);
    const Item *find(uint32_t port) const;

    std::vector<Item> items_;
};

}  // namespace qel::board
