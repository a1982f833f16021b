// echo.cpp - a peer that sends back what it gets.
#include "board/core/description.h"
#include "board/peer/peer.h"

namespace qel::board {

namespace {

class Echo final : public Peer {
public:
    Echo(PeerPort &port, int64_t delay_us) : Peer(port), delay_us_(delay_us) {}
    void receive(Bytes bytes) override { port().send(bytes, delay_us_); }
    bool takes_more() const override { return port().takes_more(); }

private:
    int64_t delay_us_;
};

std::unique_ptr<Peer> make(PeerPort &port, const Description &table) {
    return std::make_unique<Echo>(port, table.number("delay_ms", 0, 3'600'000, 0) * 1000);
}

}  // namespace

extern const PeerKind kEchoPeer = {"echo", "sends back what it gets", make};

}  // namespace qel::board
