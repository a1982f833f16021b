// serial_fifo.h - the host's end of a line whose driver keeps what arrives until a request fetches it.
#pragma once

#include <algorithm>

#include "board/core/chip.h"
#include "board/model/serial_line.h"

namespace qel::board {

class SerialFifo final : public HostEnd {
public:
    // `part`: of a device with several lines, its name there.
    explicit SerialFifo(Device &owner, const std::string &part = "")
        : owner_(owner), part_(part.empty() ? "" : "/" + part) {}

    size_t deliver(Bytes bytes) override {
        const size_t taken = std::min(bytes.size(), kMostBytes - received_.size());
        received_.insert(received_.end(), bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(taken));
        if (taken > 0) owner_.chip().changed();
        return taken;
    }
    void collect() override {}
    const Device &device() const override { return owner_; }
    std::string name() const override { return owner_.node() + part_; }

    size_t size() const { return received_.size(); }
    bool empty() const { return received_.empty(); }
    void clear() { received_.clear(); }
    // At most `most` bytes, the oldest first. The line may have more to deliver then.
    Buffer take(size_t most) {
        const auto count = static_cast<ptrdiff_t>(std::min(most, received_.size()));
        Buffer out(received_.begin(), received_.begin() + count);
        received_.erase(received_.begin(), received_.begin() + count);
        owner_.chip().wake_runners();
        return out;
    }

private:
    static constexpr size_t kMostBytes = 65536;
    Device &owner_;
    const std::string part_;
    Buffer received_;
};

}  // namespace qel::board
