// commlen_frame.h - frames of the length-framed link: building them, and finding them in a stream.
//
//   0xAA  0x10  sequence  L + 2  command  payload[L]  checksum
//
// The checksum is the 8-bit sum of all bytes before it. Pure code: bytes in, values out.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

namespace qel::commlen {

constexpr uint8_t kFirstMark = 0xAA;
constexpr uint8_t kSecondMark = 0x10;
constexpr size_t kHeaderBytes = 5;
constexpr uint8_t kLengthExtra = 2;  // the length byte counts the command and the checksum too
constexpr size_t kMaxPayloadBytes = 255 - kLengthExtra;
constexpr size_t kFrameExtraBytes = kHeaderBytes + 1;
constexpr size_t kMaxFrameBytes = kFrameExtraBytes + kMaxPayloadBytes;

struct Frame {
    uint8_t sequence;
    uint8_t command;
    std::span<const uint8_t> payload;
};

// Writes the frame to `out`; its bytes, or 0 when the payload is too long for a frame.
size_t build(const Frame &frame, std::span<uint8_t, kMaxFrameBytes> out);

// The sender's numbers: 0 first, then 1 to 255 over and over.
class SequenceNumbers {
public:
    uint8_t next() {
        const uint8_t number = next_;
        next_ = number == UINT8_MAX ? 1 : static_cast<uint8_t>(number + 1);
        return number;
    }

private:
    uint8_t next_ = 0;
};

enum class Look {
    kFrame,    // a whole good frame
    kNoFrame,  // no frame starts here
    kMore,     // so far it may be one
};

// What stands at the start of `bytes`; with kFrame also the frame, its payload within `bytes`.
Look look(std::span<const uint8_t> bytes, Frame *frame);

// Finds the frames of a stream that comes in pieces of any size. Bytes that turn out to be no frame are
// searched again from the byte after their first, so a frame behind or within garbage is never lost.
class Parser {
public:
    // Calls sink(const Frame &) for every good frame that ends within `bytes`. The payload is valid
    // during the call only.
    template <typename Sink>
    void feed(std::span<const uint8_t> bytes, Sink &&sink) {
        while (pending_bytes_ > 0 && !bytes.empty()) {
            bytes = bytes.subspan(take_pending(bytes));
            drop_pending(scan({pending_.data(), pending_bytes_}, sink));
        }
        if (pending_bytes_ == 0) keep(bytes.subspan(scan(bytes, sink)));
    }

    // The line has gone silent. Where a whole good frame stands behind a start that promised more, that start
    // was none: what comes next need not fill it first. A frame that is merely slow stays as it is.
    template <typename Sink>
    void note_silence(Sink &&sink) {
        for (size_t at = 1; at < pending_bytes_;) {
            Frame frame;
            const std::span<const uint8_t> rest = std::span<const uint8_t>(pending_).first(pending_bytes_);
            if (look(rest.subspan(at), &frame) != Look::kFrame) {
                ++at;
                continue;
            }
            sink(static_cast<const Frame &>(frame));
            drop_pending(at + kFrameExtraBytes + frame.payload.size());
            drop_pending(scan({pending_.data(), pending_bytes_}, sink));
            at = 1;
        }
    }

private:
    // Bytes that are done with: all before the first that may still start a frame.
    template <typename Sink>
    static size_t scan(std::span<const uint8_t> bytes, Sink &sink) {
        size_t at = 0;
        while ((at = find_mark(bytes, at)) < bytes.size()) {
            Frame frame;
            switch (look(bytes.subspan(at), &frame)) {
                case Look::kFrame:
                    sink(static_cast<const Frame &>(frame));
                    at += kFrameExtraBytes + frame.payload.size();
                    break;
                case Look::kNoFrame:
                    ++at;
                    break;
                case Look::kMore:
                    return at;
            }
        }
        return at;
    }
    static size_t find_mark(std::span<const uint8_t> bytes, size_t from) {
        if (from >= bytes.size()) return bytes.size();
        if (bytes[from] == kFirstMark) return from;  // frames mostly follow one another
        const void *mark = memchr(bytes.data() + from, kFirstMark, bytes.size() - from);
        return mark == nullptr ? bytes.size()
                               : static_cast<size_t>(static_cast<const uint8_t *>(mark) - bytes.data());
    }
    // Moves what the pending start of a frame needs next out of `bytes`; how many.
    size_t take_pending(std::span<const uint8_t> bytes);
    void drop_pending(size_t count);
    void keep(std::span<const uint8_t> bytes);

    std::array<uint8_t, kMaxFrameBytes> pending_;
    size_t pending_bytes_ = 0;  // always the start of one possible frame
};

}  // namespace qel::commlen
