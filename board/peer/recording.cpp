// recording.cpp - a peer that replays a session: what was said on a line once, and when.
//
//     session = ["0 > AA 10 00 02 01 BD", "12 < AA 10 00 03 01 01 BF"]
//
// Each line: milliseconds since the session began, ">" what the host said or "<" what this end said, bytes in
// hexadecimal or quotation marks. An answer is given as long after what the host said before it as it was
// then, whenever the host says that; what stands before the host's first words comes as the line is opened.
// Other bytes than recorded are counted, and the replay goes on: a session differs in its details.
#include "board/core/description.h"
#include "board/core/report.h"
#include "board/peer/peer.h"
#include "board/peer/session.h"

namespace qel::board {

namespace {

class Recording final : public Peer {
public:
    Recording(PeerPort &port, std::vector<Said> session) : Peer(port), session_(std::move(session)) {}

    void line_opened() override {
        next_ = matched_ = 0;
        answer(0);
    }
    void receive(Bytes bytes) override;
    void show(Report &report) const override {
        report.value("session", std::to_string(next_) + " of " + std::to_string(session_.size()));
        if (different_ > 0) report.value("bytes that differ", different_);
    }

private:
    // Says what was said until the host spoke again.
    void answer(int64_t since_ms) {
        for (; next_ < session_.size() && !session_[next_].by_host; ++next_)
            port().send(session_[next_].bytes, (session_[next_].at_ms - since_ms) * 1000);
    }

    std::vector<Said> session_;
    size_t next_ = 0;
    size_t matched_ = 0;
    int64_t different_ = 0;
};

void Recording::receive(Bytes bytes) {
    for (const uint8_t byte : bytes) {
        if (next_ == session_.size()) {
            ++different_;
            continue;
        }
        const Said &said = session_[next_];
        if (said.bytes[matched_] != byte) ++different_;
        if (++matched_ < said.bytes.size()) continue;
        matched_ = 0;
        ++next_;
        answer(said.at_ms);
    }
}

std::unique_ptr<Peer> make(PeerPort &port, const Description &table) {
    std::vector<Said> session;
    for (const std::string &line : table.texts("session")) {
        Said said;
        if (!parse_said(line, said))
            table.fail("session", "\"" + line + "\" is no MS > BYTES and no MS < BYTES");
        if (!session.empty() && said.at_ms < session.back().at_ms)
            table.fail("session", "\"" + line + "\" stands behind a later one");
        session.push_back(std::move(said));
    }
    if (session.empty()) table.fail("session", "is missing or empty");
    return std::make_unique<Recording>(port, std::move(session));
}

}  // namespace

extern const PeerKind kRecordingPeer = {"recording", make};

}  // namespace qel::board
