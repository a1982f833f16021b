// echo.cpp - a peer that sends back what it gets.
#include "board/core/description.h"
#include "board/peer/peer.h"

namespace qel::board {

namespace {

class Echo final : public Peer {
public:
    Echo(PeerPort &port, int64_t delay_us) : Peer(port), delay_us_(delay_us) {}
    void receive(Bytes bytes) override { port().send(bytes, delay_us_); }

private:
    int64_t delay_us_;
};

std::unique_ptr<Peer> make(PeerPort &port, const Description &table) {
    return std::make_unique<Echo>(port, table.number("delay_ms", 0, kLongestPause_ms, 0) * 1000);
}

}  // namespace

extern const PeerKind kEchoPeer = {"echo", make};

}  // namespace qel::board
