// probe.h - a device of the tests' own: bytes that outlive the board, a request that waits, a queue of
// letters to read, and everything else that models may do.
//
//     [chip.probe]
//     node = "/dev/probe"   bytes = 64    tty = "/dev/pts/7"
#pragma once

#include <fcntl.h>
#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "board/core/board.h"
#include "board/core/chip.h"
#include "board/core/description.h"
#include "board/core/world.h"
#include "os/hook.h"

namespace qel::test {

using namespace qel::board;

constexpr uint32_t kEcho = 0xC0045000;     // 8 bytes in, 8 bytes out
constexpr uint32_t kWait = 0x40045001;     // u32 milliseconds to wait for a poke "wake", 0 = for ever
constexpr uint32_t kUnknown = 0x40045002;  // in no table
constexpr uint32_t kAccuse = 0x40045003;

constexpr RequestSpec kProbeRequests[] = {
    {kEcho, "ECHO", 8, 8},
    {kWait, "WAIT", 4, 0},
    {kAccuse, "ACCUSE"},
};

class Probe final : public Device {
public:
    Probe(Chip &chip, const Description &table)
        : Device(chip),
          content_(static_cast<size_t>(table.number("bytes", 1, 1 << 22, 64)), 0xFF),
          tty_(table.text("tty", "")) {}

    Answer read(Handle &handle, uint32_t bytes) override {
        if (!letters_.empty() || waits_for_letters_) return read_letters(bytes);
        const auto at = static_cast<size_t>(handle.position);
        const size_t got = std::min<size_t>(bytes, content_.size() - std::min(at, content_.size()));
        handle.position += static_cast<int64_t>(got);
        const auto first = content_.begin() + static_cast<ptrdiff_t>(at);
        return Answer::ok(static_cast<int64_t>(got),
                          got > 0 ? Buffer(first, first + static_cast<ptrdiff_t>(got)) : Buffer());
    }
    Answer write(Handle &handle, Bytes bytes) override {
        const auto at = static_cast<size_t>(handle.position);
        const size_t fits = std::min(bytes.size(), content_.size() - std::min(at, content_.size()));
        const size_t reached = chip().medium_write(*this, fits);
        std::copy_n(bytes.begin(), reached, content_.begin() + static_cast<ptrdiff_t>(at));
        handle.position += static_cast<int64_t>(fits);
        return fits > 0 ? Answer::ok(static_cast<int64_t>(fits)) : Answer::fail(ENOSPC);
    }
    Answer seek(Handle &handle, int64_t offset, int whence) override {
        if (whence != SEEK_SET || offset < 0) return Answer::fail(EINVAL);
        handle.position = offset;
        return Answer::ok(offset);
    }
    Answer ioctl(Handle &handle, uint32_t request, Bytes in) override {
        switch (request) {
            case kEcho:
                return Answer::ok(static_cast<int64_t>(in.size()), Buffer(in.rbegin(), in.rend()));
            case kWait:
                if (woken_) return Answer::ok(handle.nonblocking ? 2 : 1);
                if (handle.expired) return Answer::fail(ETIMEDOUT);
                return Answer::ask_again(in[0] == 0 && in[1] == 0 ? -1
                                                                  : handle.started_ms + in[0] + 256 * in[1]);
            case kAccuse:
                chip().report_misuse(*this, "second write without erase");
                return Answer::ok();
            default:
                return Answer::fail(ENOTTY);
        }
    }
    bool readable(const Handle &) const override { return !letters_.empty(); }
    std::string tty_path() const override { return tty_; }
    Answer term(Handle &, TermOp op, Bytes in) override {
        terms.push_back(op);
        if (op == TermOp::kSet) settings_.assign(in.begin(), in.end());
        if (op == TermOp::kGet) return Answer::ok(0, settings_);
        if (op == TermOp::kLineStatus) return Answer::ok(0, {1, 0, 0, 0});
        return Answer::ok();
    }
    void save(Buffer &out) const override { out = content_; }
    void load(Bytes bytes) override {
        if (bytes.size() != content_.size()) throw std::runtime_error("another size");
        content_.assign(bytes.begin(), bytes.end());
    }
    // "wake", "sleep", "letters TEXT" (to be read by whoever comes first), "wait-for-letters"
    Answer poke(const std::vector<std::string> &words) override {
        if (words[0] == "wake" || words[0] == "sleep") woken_ = words[0] == "wake";
        if (words[0] == "letters") letters_ += words[1];
        if (words[0] == "wait-for-letters") waits_for_letters_ = true;
        return Answer::ok();
    }

    std::vector<TermOp> terms;

private:
    Answer read_letters(uint32_t bytes) {
        if (letters_.empty()) return Answer::ask_again();
        const size_t got = std::min<size_t>(bytes, letters_.size());
        Buffer out(letters_.begin(), letters_.begin() + static_cast<ptrdiff_t>(got));
        letters_.erase(0, got);
        return Answer::ok(static_cast<int64_t>(got), std::move(out));
    }

    Buffer content_;
    std::string tty_;
    std::string letters_;
    Buffer settings_;
    bool woken_ = false;
    bool waits_for_letters_ = false;
};

inline void build_probe(Chip &chip, const Description &table) {
    chip.add(table.text("node", "/dev/probe"), std::make_unique<Probe>(chip, table));
}

inline const DeviceClass kProbeClass = {"probe", "a test's device", kProbeRequests, build_probe};

// A board of one chip with what `chip_tables` adds, entered by this process.
class OnBoard {
public:
    explicit OnBoard(const std::string &chip_tables, const Options &options = {}, const Entry &entry = {})
        : registered_((add_device_class(kProbeClass), true)),
          board("name = \"test\"\n[[chip]]\n" + chip_tables, options) {
        board.enter(entry);
    }

private:
    bool registered_;  // before the board is built

public:
    Board board;
};

inline const qel_os_ops &ops() { return *qel_world_hook()->os; }

}  // namespace qel::test
