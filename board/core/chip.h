// chip.h - one processor chip of a virtual board: its device nodes and its file tree.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "board/core/description.h"
#include "board/core/device.h"
#include "board/core/fault.h"
#include "board/core/runner.h"
#include "board/core/tree.h"

namespace qel::board {

struct Node {
    std::string path;
    std::unique_ptr<Device> device;
    const DeviceClass *device_class;
    uint16_t class_index;  // in device_classes()
};

// What a chip needs of its board. The board implements it.
class ChipHost {
public:
    virtual ~ChipHost() = default;
    virtual uint32_t chip_count() const = 0;
    virtual Chip *chip(uint32_t number) = 0;  // nullptr: no such chip
    virtual int64_t now_us() const = 0;
    virtual uint32_t time_scale() const = 0;
    virtual void changed() = 0;
    virtual void misuse(const std::string &text) = 0;
    virtual void event(const std::string &text) = 0;
    virtual size_t medium_write(const Node &node, size_t bytes) = 0;
    virtual bool has_faults() const = 0;
    virtual LineFault line_fault(uint32_t chip, const std::string &line, bool to_host) = 0;
    virtual void trace_line(uint32_t chip, const std::string &line, bool to_host, Bytes bytes) = 0;
    virtual void add_runner(Runner &runner) = 0;
    virtual void wake_runners() = 0;
};

class Chip {
public:
    // Makes the file tree and the devices of a [[chip]] table.
    Chip(ChipHost &host, uint32_t number, const Description &description, const std::string &dir);

    uint32_t number() const { return number_; }
    uint32_t chip_count() const { return host_.chip_count(); }
    Chip *other(uint32_t number) const { return host_.chip(number); }
    const Description &description() const { return description_; }
    const FileTree &tree() const { return tree_; }
    // The host's folder of this chip, for models that keep their content in files of their own.
    const std::string &dir() const { return dir_; }

    // Gives a device its node. For use in DeviceClass::build; throws std::invalid_argument when the
    // path is not absolute and normal or already taken.
    void add(const std::string &path, std::unique_ptr<Device> device);
    // The device behind a path, nullptr = none.
    Device *find(std::string_view path) const;
    Node *find_node(std::string_view path);
    const std::map<std::string, Node, std::less<>> &nodes() const { return nodes_; }

    // Monotonic time of the board, already multiplied by its time scale.
    int64_t now_ms() const { return host_.now_us() / 1000; }
    int64_t now_us() const { return host_.now_us(); }
    // The moment, of that time, `ms` milliseconds of the host's clock from now: for looking again at
    // something of the host.
    int64_t in_host_ms(int64_t ms) const { return now_us() + ms * 1000 * host_.time_scale(); }

    // Something changed that a waiting request or a poll may be waiting for.
    void changed() { host_.changed(); }
    // The software under test used the device in a way that real hardware would not forgive.
    void report_misuse(const Device &device, const std::string &text);
    // The software asked the machine for something that the board records and does not do.
    void record_event(const std::string &text);
    // A model calls it before it changes what outlives a power cut: how many of the bytes, from the
    // start, reach the medium. Fewer than asked when the power is cut here; then finish and return.
    size_t medium_write(const Device &device, size_t bytes);
    // What becomes of a byte that goes over a serial line, for one byte after the other. A line goes by the
    // node of its device, with a name behind where that has several.
    LineFault line_fault(const std::string &line, bool to_host) {
        return host_.line_fault(number_, line, to_host);
    }
    // For the trace: bytes that the host put on the line, or that arrived at its end.
    void trace_line(const std::string &line, bool to_host, Bytes bytes) {
        host_.trace_line(number_, line, to_host, bytes);
    }
    bool has_faults() const { return host_.has_faults(); }
    // From the device's constructor, for one that lives as long as the board: see runner.h. Nothing runs
    // before the first wake_runners(); later calls make it run soon.
    void add_runner(Runner &runner) { host_.add_runner(runner); }
    void wake_runners() { host_.wake_runners(); }

    // How the machine answers what is recorded only ([chip.machine]).
    struct Machine {
        int unmount_error = 0;
        int run_status = 0;
        int reboot_error = 0;
        bool reboot_ends = false;  // the calling process ends, as it would
    };
    const Machine &machine() const { return machine_; }

    // Empties the folders in memory and tells the devices. The board calls it at its start.
    void power_on();

private:
    void build_tree(const Description &description);
    void build(const Description &table);
    void make_files(std::string_view folder);
    void build_machine(const Description &description);

    ChipHost &host_;
    uint32_t number_;
    Description description_;
    std::string dir_;
    FileTree tree_;
    Machine machine_;
    std::map<std::string, std::string> files_;  // initial contents by path
    std::map<std::string, Node, std::less<>> nodes_;
    const DeviceClass *building_ = nullptr;
    uint16_t building_index_ = 0;
};

}  // namespace qel::board
