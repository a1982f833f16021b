#include "comm/commlen_frame.h"

#include <algorithm>

namespace qel::commlen {

namespace {

constexpr size_t kSequenceAt = 2;
constexpr size_t kLengthAt = 3;
constexpr size_t kCommandAt = 4;

uint8_t sum(std::span<const uint8_t> bytes) {
    uint8_t total = 0;
    for (const uint8_t byte : bytes) total = static_cast<uint8_t>(total + byte);
    return total;
}

size_t frame_bytes(uint8_t length) { return kFrameExtraBytes - kLengthExtra + length; }

}  // namespace

size_t build(const Frame &frame, std::span<uint8_t, kMaxFrameBytes> out) {
    const size_t payload_bytes = frame.payload.size();
    if (payload_bytes > kMaxPayloadBytes) return 0;
    const uint8_t length = static_cast<uint8_t>(payload_bytes + kLengthExtra);
    const uint8_t header[kHeaderBytes] = {kFirstMark, kSecondMark, frame.sequence, length, frame.command};
    std::ranges::copy(header, out.begin());
    std::ranges::copy(frame.payload, out.begin() + kHeaderBytes);
    const size_t checksum_at = kHeaderBytes + payload_bytes;
    out[checksum_at] = sum(out.first(checksum_at));
    return checksum_at + 1;
}

Look look(std::span<const uint8_t> bytes, Frame *frame) {
    if (bytes.empty()) return Look::kMore;
    if (bytes[0] != kFirstMark) return Look::kNoFrame;
    if (bytes.size() == 1) return Look::kMore;
    if (bytes[1] != kSecondMark) return Look::kNoFrame;
    if (bytes.size() <= kLengthAt) return Look::kMore;
    const uint8_t length = bytes[kLengthAt];
    if (length < kLengthExtra) return Look::kNoFrame;
    const size_t total = frame_bytes(length);
    if (bytes.size() < total) return Look::kMore;
    if (sum(bytes.first(total - 1)) != bytes[total - 1]) return Look::kNoFrame;
    frame->sequence = bytes[kSequenceAt];
    frame->command = bytes[kCommandAt];
    frame->payload = bytes.subspan(kHeaderBytes, length - kLengthExtra);
    return Look::kFrame;
}

size_t Parser::take_pending(std::span<const uint8_t> bytes) {
    const size_t header_bytes = kLengthAt + 1;
    const size_t wanted = pending_bytes_ < header_bytes ? header_bytes : frame_bytes(pending_[kLengthAt]);
    const size_t count = std::min(wanted - pending_bytes_, bytes.size());
    memcpy(pending_.data() + pending_bytes_, bytes.data(), count);
    pending_bytes_ += count;
    return count;
}

void Parser::drop_pending(size_t count) {
    pending_bytes_ -= count;
    memmove(pending_.data(), pending_.data() + count, pending_bytes_);
}

void Parser::keep(std::span<const uint8_t> bytes) {
    if (!bytes.empty()) memcpy(pending_.data(), bytes.data(), bytes.size());
    pending_bytes_ = bytes.size();
}

}  // namespace qel::commlen
