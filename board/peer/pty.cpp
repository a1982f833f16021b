// pty.cpp - any program as the peer: a pseudo-terminal whose path `qelboard show` tells.
#include <algorithm>
#include <array>

#include "board/core/report.h"
#include "board/model/serial_pty.h"
#include "board/peer/peer.h"

namespace qel::board {

namespace {

constexpr size_t kChunkBytes = 4096;
constexpr size_t kMostUnread = 65536;
// How often to look whether a program has come.
constexpr int64_t kLookEvery_ms = 10;

class PtyPeer final : public Peer {
public:
    using Peer::Peer;
    void receive(Bytes bytes) override;
    bool takes_more() const override { return unread_.size() < kMostUnread; }
    void line_opened() override;
    void line_set(const SerialFormat &format) override;
    const SerialFormat *own_format() const override;
    void run(RunnerWaits &waits) override;
    void power_on() override { unread_.clear(); }
    std::string far_path() const override {
        return pty() != nullptr ? pty()->path() : "none left on this host";
    }
    void show(Report &report) const override {
        if (!unread_.empty()) report.value("bytes not read yet", static_cast<int64_t>(unread_.size()));
    }

private:
    // Made when first asked for: most lines of most boards never are.
    Pty *pty() const {
        if (pty_ == nullptr) {
            pty_ = Pty::make(Pty::Held::kClosed, true);
            show_format();
        }
        return pty_.get();
    }
    void show_format() const {
        if (pty_ == nullptr) return;
        pty_->show_format(format_);
        seen_baud_ = pty_->baud();
    }
    void write_unread();

    mutable std::unique_ptr<Pty> pty_;
    SerialFormat line_format_;
    // As this end talks: like the line, until a program here sets a rate of its own.
    mutable SerialFormat format_;
    mutable bool has_own_rate_ = false;
    mutable uint32_t seen_baud_ = 0;  // on the pseudo-terminal, which knows fewer rates than a line
    Buffer unread_;
    bool somebody_ = false;
};

void PtyPeer::line_opened() {
    if (pty() == nullptr) return;
    std::array<uint8_t, kChunkBytes> chunk;
    // Not without end, for a program that never stops talking.
    for (size_t got = 0; got < kMostUnread;) {
        const size_t more = pty_->read(chunk.data(), chunk.size());
        if (more == 0) break;
        got += more;
    }
}

void PtyPeer::line_set(const SerialFormat &format) {
    const uint32_t own_baud = own_format()->baud;
    line_format_ = format_ = format;
    if (has_own_rate_) format_.baud = own_baud;
    show_format();
}

const SerialFormat *PtyPeer::own_format() const {
    const uint32_t baud = pty_ != nullptr ? pty_->baud() : 0;
    if (baud != 0 && baud != seen_baud_) {
        format_.baud = seen_baud_ = baud;
        has_own_rate_ = true;
    }
    return &format_;
}

void PtyPeer::receive(Bytes bytes) {
    if (pty() == nullptr || !pty_->is_open_elsewhere()) return;  // an open end: nobody hears it
    unread_.insert(unread_.end(), bytes.begin(), bytes.end());
    write_unread();
}

void PtyPeer::write_unread() {
    const auto taken = static_cast<ptrdiff_t>(pty_->write(unread_.data(), unread_.size()));
    unread_.erase(unread_.begin(), unread_.begin() + taken);
}

void PtyPeer::run(RunnerWaits &waits) {
    if (pty_ == nullptr) return;
    std::array<uint8_t, kChunkBytes> chunk;
    while (port().takes_more()) {
        const size_t got = pty_->read(chunk.data(), chunk.size());
        if (got == 0) break;
        port().send(Bytes(chunk.data(), got));
    }
    const bool somebody = pty_->is_open_elsewhere();
    if (somebody_ && !somebody) {
        unread_.clear();
        pty_->forget_unread();  // not for whoever comes next
        has_own_rate_ = false;
        line_set(line_format_);
    }
    somebody_ = somebody;
    if (!unread_.empty()) write_unread();
    const int events = (port().takes_more() ? POLLIN : 0) | (unread_.empty() ? 0 : POLLOUT);
    // One that nobody has open reports that without end.
    if (!somebody)
        waits.wake_at(port().in_host_ms(kLookEvery_ms));
    else if (events != 0)
        waits.watch(pty_->fd(), static_cast<short>(events));
}

std::unique_ptr<Peer> make(PeerPort &port, const Description &) { return std::make_unique<PtyPeer>(port); }

}  // namespace

extern const PeerKind kPtyPeer = {"pty", make};

std::unique_ptr<Peer> make_pty_peer(PeerPort &port) { return std::make_unique<PtyPeer>(port); }

}  // namespace qel::board
