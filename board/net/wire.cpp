#include "board/net/wire.h"

#include <utility>

namespace qel::board::wire {

namespace {

enum ReplyFlag : uint8_t { kDrained = 1, kKilled = 2, kHasDevice = 4, kHasMap = 8 };
constexpr uint8_t kAllReplyFlags = kDrained | kKilled | kHasDevice | kHasMap;

}  // namespace

Writer::Writer(OutPacket &packet, Kind kind, uint32_t sequence) : packet_(packet) {
    packet.clear();
    u32(static_cast<uint32_t>(kind));
    u32(sequence);
}

void Writer::number(uint64_t value, size_t bytes) {
    for (size_t i = 0; i < bytes; ++i) packet_.bytes.push_back(static_cast<uint8_t>(value >> (8 * i)));
}

void Writer::text(std::string_view value) {
    value = value.substr(0, kTextBytes);
    u16(static_cast<uint16_t>(value.size()));
    packet_.bytes.insert(packet_.bytes.end(), value.begin(), value.end());
}

bool Writer::payload(std::span<const uint8_t> value) {
    if (value.size() > kPayloadBytes) return false;
    u32(static_cast<uint32_t>(value.size()));
    if (value.size() <= kInlineBytes) {
        packet_.bytes.insert(packet_.bytes.end(), value.begin(), value.end());
        return true;
    }
    packet_.descriptors.push_back(to_memory_file(value));
    return packet_.descriptors.back().is_open();
}

std::span<const uint8_t> Reader::take(size_t bytes) {
    if (!ok_ || bytes > rest_.size()) {
        ok_ = false;
        return {};
    }
    const std::span<const uint8_t> taken = rest_.first(bytes);
    rest_ = rest_.subspan(bytes);
    return taken;
}

uint64_t Reader::number(size_t bytes) {
    uint64_t value = 0;
    size_t shift = 0;
    for (const uint8_t byte : take(bytes)) {
        value |= uint64_t{byte} << shift;
        shift += 8;
    }
    return value;
}

std::string Reader::text() {
    const size_t size = u16();
    if (size > kTextBytes) ok_ = false;
    const std::span<const uint8_t> taken = take(size);
    return {taken.begin(), taken.end()};
}

void Reader::payload(Buffer &out) {
    const size_t size = u32();
    if (size <= kInlineBytes) {
        const std::span<const uint8_t> taken = take(size);
        out.assign(taken.begin(), taken.end());
        return;
    }
    out.clear();
    const UniqueFd *file = descriptor();
    if (size > kPayloadBytes || file == nullptr || !from_memory_file(file->get(), size, out)) ok_ = false;
}

UniqueFd *Reader::descriptor() {
    if (next_descriptor_ == packet_.descriptors.size()) {
        ok_ = false;
        return nullptr;
    }
    return &packet_.descriptors[next_descriptor_++];
}

void put_hello(OutPacket &packet, const Hello &hello) {
    Writer out(packet, Kind::kHello, 0);
    out.u32(kMagic);
    out.u32(kVersion);
    out.u64(hello.fingerprint);
    out.u8(static_cast<uint8_t>(hello.role));
    out.u32(hello.chip);
    out.u32(hello.pid);
    out.u32(hello.client);
    out.text(hello.process_name);
}

bool get_hello(Reader &in, Hello &hello, uint32_t &version) {
    if (in.u32() != kMagic) return false;
    version = in.u32();
    hello.fingerprint = in.u64();
    const uint8_t role = in.u8();
    hello.role = static_cast<Role>(role);
    hello.chip = in.u32();
    hello.pid = in.u32();
    hello.client = in.u32();
    hello.process_name = in.text();
    return in.finish() && role <= static_cast<uint8_t>(Role::kControl);
}

void put_joined(OutPacket &packet, const Joined &joined) {
    Writer out(packet, Kind::kWelcome, 0);
    out.u32(joined.client);
    out.u32(joined.welcome.chip);
    out.u32(joined.welcome.time_scale);
    out.u32(joined.welcome.ipc_salt);
    out.text(joined.welcome.run_dir);
    out.text(joined.welcome.root_dir);
    out.text(joined.welcome.name);
}

bool get_joined(Reader &in, Joined &joined) {
    joined.client = in.u32();
    joined.welcome.chip = in.u32();
    joined.welcome.time_scale = in.u32();
    joined.welcome.ipc_salt = in.u32();
    joined.welcome.run_dir = in.text();
    joined.welcome.root_dir = in.text();
    joined.welcome.name = in.text();
    return in.finish();
}

void put_refusal(OutPacket &packet, std::string_view why) { Writer(packet, Kind::kRefusal, 0).text(why); }

bool put_request(OutPacket &packet, uint32_t sequence, const Request &request) {
    Writer out(packet, Kind::kRequest, sequence);
    out.u8(static_cast<uint8_t>(request.op));
    out.u8(request.nonblocking ? 1 : 0);
    out.u32(request.handle);
    out.u32(request.code);
    out.u64(static_cast<uint64_t>(request.offset));
    out.u32(request.out_bytes);
    out.text(request.path);
    return request.path.size() <= kTextBytes && out.payload(request.in);
}

bool get_request(Reader &in, Request &request) {
    const uint8_t op = in.u8();
    request.op = static_cast<Op>(op);
    request.nonblocking = in.u8() != 0;
    request.handle = in.u32();
    request.code = in.u32();
    request.offset = static_cast<int64_t>(in.u64());
    request.out_bytes = in.u32();
    request.path = in.text();
    in.payload(request.in);
    return in.finish() && op <= static_cast<uint8_t>(Op::kPath);
}

bool put_reply(OutPacket &packet, uint32_t sequence, Reply &reply, int device) {
    Writer out(packet, Kind::kReply, sequence);
    out.u64(static_cast<uint64_t>(reply.value));
    out.u8(static_cast<uint8_t>(reply.opened));
    out.u8(static_cast<uint8_t>((reply.drained ? kDrained : 0) | (reply.killed ? kKilled : 0) |
                                (device >= 0 ? kHasDevice : 0) | (reply.fd >= 0 ? kHasMap : 0)));
    out.u32(reply.handle);
    out.u16(reply.class_index);
    out.text(reply.path);
    if (device >= 0) packet.descriptors.emplace_back(device);
    if (reply.fd >= 0) packet.descriptors.emplace_back(std::exchange(reply.fd, -1));
    return reply.path.size() <= kTextBytes && out.payload(reply.out);
}

bool get_reply(Reader &in, Reply &reply, int &device) {
    reply.value = static_cast<int64_t>(in.u64());
    const uint8_t opened = in.u8();
    reply.opened = static_cast<Opened>(opened);
    const uint8_t flags = in.u8();
    reply.drained = (flags & kDrained) != 0;
    reply.killed = (flags & kKilled) != 0;
    reply.handle = in.u32();
    reply.class_index = in.u16();
    reply.path = in.text();
    UniqueFd *device_fd = (flags & kHasDevice) != 0 ? in.descriptor() : nullptr;
    UniqueFd *map_fd = (flags & kHasMap) != 0 ? in.descriptor() : nullptr;
    in.payload(reply.out);
    if (!in.finish() || opened > static_cast<uint8_t>(Opened::kTty) || (flags & ~kAllReplyFlags) != 0)
        return false;
    device = device_fd != nullptr ? device_fd->release() : -1;
    reply.fd = map_fd != nullptr ? map_fd->release() : -1;
    return true;
}

void put_withdraw(OutPacket &packet, uint32_t sequence) { Writer(packet, Kind::kWithdraw, sequence); }

bool put_control(OutPacket &packet, std::span<const std::string> words) {
    Writer out(packet, Kind::kControl, 0);
    out.u16(static_cast<uint16_t>(words.size()));
    bool fits = true;
    for (const std::string &word : words) {
        fits = fits && word.size() <= kTextBytes;
        out.text(word);
    }
    return fits && packet.bytes.size() <= kPacketBytes;
}

bool get_control(Reader &in, std::vector<std::string> &words) {
    words.clear();
    const size_t count = in.u16();
    while (words.size() < count && in.ok()) words.push_back(in.text());
    return in.finish();
}

bool put_control_reply(OutPacket &packet, bool ok, std::string_view text) {
    Writer out(packet, Kind::kControlReply, 0);
    out.u8(ok ? 1 : 0);
    return out.payload({reinterpret_cast<const uint8_t *>(text.data()), text.size()});
}

bool get_control_reply(Reader &in, bool &ok, std::string &text) {
    ok = in.u8() != 0;
    Buffer bytes;
    in.payload(bytes);
    text.assign(bytes.begin(), bytes.end());
    return in.finish();
}

}  // namespace qel::board::wire
