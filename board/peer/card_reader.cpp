// card_reader.cpp - the microcontroller on a USB serial adapter: a card reader that wakes on two frames and
// then sends the number of each card held to it.
//
// The test's face: "card TEXT" holds a card to it; before the two frames nothing is read.
#include <algorithm>
#include <array>
#include <deque>

#include "board/core/description.h"
#include "board/core/report.h"
#include "board/peer/peer.h"

namespace qel::board {

namespace {

constexpr std::array<uint8_t, 15> kOpenFrame = {0xAA, 0xAA, 0x00, 0x0A, 0x00, 0xFF, 0xFF, 0xFF,
                                                0xFE, 0xFF, 0x00, 0x0A, 0xF6, 0xFE, 0x00};
constexpr std::array<uint8_t, 19> kReadFrame = {0xAA, 0xAA, 0x00, 0x0F, 0x00, 0xFF, 0xFF, 0xFF, 0xFE, 0xFF,
                                                0x00, 0x15, 0x01, 0x3C, 0x01, 0x7F, 0x02, 0x50, 0x18};

class CardReader final : public Peer {
public:
    CardReader(PeerPort &port, bool echoes) : Peer(port), echoes_(echoes) {}

    void receive(Bytes bytes) override {
        input_.insert(input_.end(), bytes.begin(), bytes.end());
        if (stage_ == 0 && take(kOpenFrame)) stage_ = 1;
        if (stage_ == 1 && take(kReadFrame)) stage_ = 2;
        if (stage_ != 2 || input_.empty()) return;
        commands_ += static_cast<int64_t>(input_.size());
        if (echoes_) port().send(Buffer(input_.begin(), input_.end()));
        input_.clear();
    }
    void line_opened() override { power_on(); }
    void power_on() override {
        input_.clear();
        stage_ = 0;
    }
    void show(Report &report) const override {
        constexpr std::array kStages = {"asleep", "open", "reading"};
        report.value("card reader", std::string(kStages[stage_]));
        report.value("bytes of commands", commands_);
    }
    Answer poke(const std::vector<std::string> &words) override {
        if (words.size() != 2 || words[0] != "card") return Answer::fail(EINVAL);
        if (stage_ != 2) return Answer::fail(EBUSY);
        port().send(Bytes(reinterpret_cast<const uint8_t *>(words[1].data()), words[1].size()));
        return Answer::ok();
    }

private:
    // Whether the input begins with the frame, which goes then. What is no part of it goes too.
    bool take(Bytes frame) {
        const auto fits = [&] {
            return std::equal(input_.begin(),
                              input_.begin() + static_cast<ptrdiff_t>(std::min(input_.size(), frame.size())),
                              frame.begin());
        };
        while (!fits()) input_.erase(input_.begin());
        if (input_.size() < frame.size()) return false;
        input_.erase(input_.begin(), input_.begin() + static_cast<ptrdiff_t>(frame.size()));
        return true;
    }

    bool echoes_;
    std::deque<uint8_t> input_;
    size_t stage_ = 0;
    int64_t commands_ = 0;
};

std::unique_ptr<Peer> make(PeerPort &port, const Description &table) {
    return std::make_unique<CardReader>(port, table.flag("echoes", true));
}

}  // namespace

extern const PeerKind kCardReaderPeer = {"card-reader", make};

}  // namespace qel::board
