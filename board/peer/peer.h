// peer.h - what hangs on the far end of a serial line: chosen in the board description, one class per kind.
//
//     peer = { kind = "echo", baud = 9600 }
//
// Like models, peers are called with the board's lock held and never block.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "board/core/device.h"
#include "board/core/runner.h"
#include "board/model/serial_format.h"

namespace qel::board {

constexpr int64_t kLongestPause_ms = 3'600'000;  // that a description may ask of a peer

// The line as its peer sees it.
class PeerPort {
public:
    virtual ~PeerPort() = default;
    // Sends after a pause (of the board's time). Messages go out in the order of their moments. A polite
    // peer on a two-wire line waits until the other end has let go of it.
    virtual void send(Bytes bytes, int64_t after_us = 0) = 0;
    // Whether the line takes more at once; a peer that reads from elsewhere stops when not.
    virtual bool takes_more() const = 0;
    virtual int64_t now_us() const = 0;
    virtual int64_t in_host_ms(int64_t ms) const = 0;  // as of Chip
};

class Peer {
public:
    explicit Peer(PeerPort &port) : port_(port) {}
    Peer(const Peer &) = delete;
    Peer &operator=(const Peer &) = delete;
    virtual ~Peer() = default;

    // What arrived, as far as this end could read it.
    virtual void receive(Bytes bytes) = 0;
    // False: what arrives now would be lost; the line holds it back.
    virtual bool takes_more() const { return true; }
    // A process opened the line: what was said before was for nobody.
    virtual void line_opened() {}
    // The other end of the line was set; a peer without a format of its own talks like that.
    virtual void line_set(const SerialFormat &) {}
    // How this end talks when it says so itself; nullptr: as configured.
    virtual const SerialFormat *own_format() const { return nullptr; }
    // As a runner (runner.h).
    virtual void run(RunnerWaits &) {}
    virtual void power_on() {}
    virtual std::string far_path() const { return {}; }  // for programs: the pty they open
    virtual void show(Report &) const {}
    virtual Answer poke(const std::vector<std::string> &) { return Answer::fail(EINVAL); }

protected:
    PeerPort &port() const { return port_; }

private:
    PeerPort &port_;
};

// A kind of peer; board/peer/registry.cpp lists them.
struct PeerKind {
    const char *name;
    // Throws DescriptionError.
    std::unique_ptr<Peer> (*make)(PeerPort &, const Description &);
};

// The peer of a [peer] table, by its `kind`.
std::unique_ptr<Peer> make_peer(PeerPort &port, const Description &table);
// A pseudo-terminal: any program can be the far end. For lines whose description names no peer.
std::unique_ptr<Peer> make_pty_peer(PeerPort &port);

}  // namespace qel::board
