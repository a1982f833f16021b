// registry.cpp - every kind of peer that a board description can put on a line.
#include <algorithm>
#include <array>

#include "board/core/description.h"
#include "board/peer/peer.h"

namespace qel::board {

extern const PeerKind kPtyPeer;
extern const PeerKind kEchoPeer;
extern const PeerKind kScriptPeer;
extern const PeerKind kRecordingPeer;
extern const PeerKind kControllerPeer;
extern const PeerKind kCardReaderPeer;

namespace {

constexpr std::array kKinds = {&kPtyPeer,       &kEchoPeer,       &kScriptPeer,
                               &kRecordingPeer, &kControllerPeer, &kCardReaderPeer};

}  // namespace

std::unique_ptr<Peer> make_peer(PeerPort &port, const Description &table) {
    const std::string kind = table.text("kind", kPtyPeer.name);
    const auto found = std::find_if(kKinds.begin(), kKinds.end(),
                                    [&](const PeerKind *known) { return kind == known->name; });
    if (found == kKinds.end()) {
        std::string known;
        for (const PeerKind *one : kKinds) known += std::string(known.empty() ? "" : ", ") + one->name;
        table.fail("kind", "is none of " + known);
    }
    return (*found)->make(port, table);
}

}  // namespace qel::board
