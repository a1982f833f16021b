// wire.h - what the packets between a process and the board's server hold.
//
// Every packet starts with a kind and a sequence number; all numbers are little-endian and of fixed
// width, so that both ends may have different word sizes. Texts and payloads carry their length,
// which the reader checks against the packet. A payload over kInlineBytes travels in a memory file.
//
//     process                          server
//     hello          ->                            once per connection
//                    <-  welcome | refusal
//     request        ->
//     withdraw       ->                            a signal came while the request blocked
//                    <-  reply                     exactly one per request, withdrawn or not
//     control        ->                            words of a command, for people and scripts
//                    <-  control reply
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "board/core/link.h"
#include "board/core/request.h"
#include "board/net/packet.h"

namespace qel::board::wire {

constexpr uint32_t kMagic = 0x4C455142;
constexpr uint32_t kVersion = 1;
constexpr size_t kInlineBytes = size_t{48} * 1024;
constexpr size_t kPayloadBytes = size_t{64} * 1024 * 1024;  // the largest payload of all
constexpr size_t kTextBytes = 4096;                         // the largest path, name or word
constexpr uint32_t kNobody = 0xFFFFFFFF;

enum class Kind : uint32_t {
    kHello = 1,
    kWelcome,
    kRefusal,
    kRequest,
    kReply,
    kWithdraw,
    kControl,
    kControlReply
};

// Appends to a packet.
class Writer {
public:
    Writer(OutPacket &packet, Kind kind, uint32_t sequence);
    void u8(uint8_t value) { packet_.bytes.push_back(value); }
    void u16(uint16_t value) { number(value, 2); }
    void u32(uint32_t value) { number(value, 4); }
    void u64(uint64_t value) { number(value, 8); }
    void text(std::string_view value);
    // False when the payload is too large, or no memory file could be made for it.
    bool payload(std::span<const uint8_t> value);

private:
    void number(uint64_t value, size_t bytes);
    OutPacket &packet_;
};

// Takes apart what a stranger sent: after the first field that does not fit, ok() is false, every
// number reads as 0 and every text as empty.
class Reader {
public:
    explicit Reader(InPacket &packet) : packet_(packet), rest_(packet.bytes()) {}
    uint8_t u8() { return static_cast<uint8_t>(number(1)); }
    uint16_t u16() { return static_cast<uint16_t>(number(2)); }
    uint32_t u32() { return static_cast<uint32_t>(number(4)); }
    uint64_t u64() { return number(8); }
    std::string text();
    void payload(Buffer &out);
    // The next descriptor that came along, in the order in which they were attached. It stays the
    // packet's until somebody releases it; nullptr = none left.
    UniqueFd *descriptor();
    // Ends the reading: true when every field was whole and nothing is left over.
    bool finish() const { return ok_ && rest_.empty() && next_descriptor_ == packet_.descriptors.size(); }
    bool ok() const { return ok_; }

private:
    uint64_t number(size_t bytes);
    std::span<const uint8_t> take(size_t bytes);
    InPacket &packet_;
    std::span<const uint8_t> rest_;
    size_t next_descriptor_ = 0;
    bool ok_ = true;
};

struct Head {
    Kind kind{};
    uint32_t sequence = 0;
};
inline Head read_head(Reader &in) {
    Head head;
    head.kind = static_cast<Kind>(in.u32());
    head.sequence = in.u32();
    return head;
}

enum class Role : uint8_t { kRequests, kControl };

struct Hello {
    Role role = Role::kRequests;
    uint64_t fingerprint = 0;   // of the device classes: both ends must number them alike
    uint32_t chip = 0;          // the chip to live on
    uint32_t pid = 0;           // of the process's own numbering
    uint32_t client = kNobody;  // a further connection of this client, kNobody = a new one
    std::string process_name;
};

struct Joined {
    uint32_t client = 0;
    Welcome welcome;
};

void put_hello(OutPacket &packet, const Hello &hello);
// `version` is set as soon as the packet is a hello at all, even of another version.
bool get_hello(Reader &in, Hello &hello, uint32_t &version);
void put_joined(OutPacket &packet, const Joined &joined);
bool get_joined(Reader &in, Joined &joined);
void put_refusal(OutPacket &packet, std::string_view why);

// The client and its chip are not part of it: the server knows whose connection it is.
bool put_request(OutPacket &packet, uint32_t sequence, const Request &request);
bool get_request(Reader &in, Request &request);

// `device` is the descriptor that stands for an opened device, -1 = none. Both it and `reply.fd` are
// owned by the packet when put, and by the caller when got.
bool put_reply(OutPacket &packet, uint32_t sequence, Reply &reply, int device);
bool get_reply(Reader &in, Reply &reply, int &device);

void put_withdraw(OutPacket &packet, uint32_t sequence);

bool put_control(OutPacket &packet, std::span<const std::string> words);
bool get_control(Reader &in, std::vector<std::string> &words);
bool put_control_reply(OutPacket &packet, bool ok, std::string_view text);
bool get_control_reply(Reader &in, bool &ok, std::string &text);

}  // namespace qel::board::wire
