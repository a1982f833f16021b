// device.h - what a device model is: one class per kind of device, one instance per node and chip.
//
// The board calls a model from one thread at a time (server: its loop; in-process: under the board's
// lock), so models need no locks of their own. A model never blocks: where the real driver would, it
// answers "ask again" and the board repeats the request when the model says changed() or when the
// time is over.
#pragma once

#include <cerrno>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "board/core/records.h"
#include "board/core/request.h"

namespace qel::board {

class Board;
class Chip;
class Description;  // one table of a board description (description.h)
class Report;       // tables for people and for JSON (report.h)

using Bytes = std::span<const uint8_t>;

struct Answer {
    int64_t value = 0;  // 0 or more, or -errno
    Buffer data;        // read: the bytes; ioctl: the packed record
    bool again = false;
    int64_t deadline_ms = -1;  // of the board's clock; with `again`: -1 = no limit
    int fd = -1;               // map: memory of the host, from byte `value` on
    bool ends = false;         // the calling process ends here, as at a reboot

    static Answer ok(int64_t value = 0, Buffer data = {}) { return {value, std::move(data)}; }
    static Answer fail(int error) { return {-int64_t{error}, {}}; }
    static Answer ask_again(int64_t deadline_ms = -1) { return {0, {}, true, deadline_ms}; }
};

// What a model keeps per open; ends with the handle.
struct HandleState {
    virtual ~HandleState() = default;
};

// One open of a device by a process.
struct Handle {
    uint32_t id = 0;
    uint32_t client = 0;
    uint32_t flags = 0;  // open flags
    int64_t position = 0;
    bool nonblocking = false;            // at the moment of the request
    int64_t started_ms = 0;              // when the request now served arrived
    bool expired = false;                // the deadline that the model asked for is over
    std::unique_ptr<HandleState> state;  // the model's own
};

class Device {
public:
    explicit Device(Chip &chip) : chip_(chip) {}
    Device(const Device &) = delete;
    Device &operator=(const Device &) = delete;
    virtual ~Device() = default;

    virtual int open(Handle &) { return 0; }  // 0 or -errno
    virtual void close(Handle &) {}
    virtual Answer read(Handle &, uint32_t /*bytes*/) { return Answer::fail(EINVAL); }
    virtual Answer write(Handle &, Bytes) { return Answer::fail(EINVAL); }
    virtual Answer seek(Handle &, int64_t, int) { return Answer::fail(ESPIPE); }
    virtual Answer ioctl(Handle &, uint32_t /*request*/, Bytes) { return Answer::fail(ENOTTY); }
    virtual Answer map(Handle &, int64_t, uint32_t) { return Answer::fail(ENODEV); }
    virtual bool readable(const Handle &) const { return false; }

    // A serial line: the host's path of the pty that processes read and write themselves, asked after
    // open(). Terminal calls (TermOp, with what request.h says) and ioctls come here as well.
    virtual std::string tty_path() const { return {}; }
    virtual Answer term(Handle &, TermOp, Bytes) { return Answer::fail(ENOTTY); }

    // The power came (back): forget what a real one does not keep. Also called when the board starts.
    virtual void power_on() {}

    // What it holds, for `qelboard show`.
    virtual void show(Report &) const {}
    // Bytes that outlive the board when it has a directory. Power-cut safe is the board's business.
    virtual void save(Buffer &) const {}
    virtual void load(Bytes) {}
    // The test's face of the device: "press", "level 3 1" ... as `qelboard poke NODE WORDS`.
    virtual Answer poke(const std::vector<std::string> & /*words*/) { return Answer::fail(ENOSYS); }

    Chip &chip() { return chip_; }
    const Chip &chip() const { return chip_; }
    const std::string &node() const { return node_; }  // its path, known once it has been added

private:
    friend class Chip;
    Chip &chip_;
    std::string node_;
};

// A kind of device. One constant of this type per model source; board/model/registry.cpp lists them.
struct DeviceClass {
    const char *key;                        // its table in a board description: [chip.KEY] or [[chip.KEY]]
    const char *summary;                    // one line for `qelboard` and the docs
    std::span<const RequestSpec> requests;  // how its records cross (records.h); trace names too
    // Makes the devices that the description asks for and gives them their nodes with
    // chip.add(path, device). Throws DescriptionError with the key in the text.
    void (*build)(Chip &, const Description &);
};

std::span<const DeviceClass *const> device_classes();
// Adds a kind that is not shipped (a test's own); before the first board that uses it is made.
void add_device_class(const DeviceClass &added);

}  // namespace qel::board
