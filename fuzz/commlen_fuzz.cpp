// Streams of any content, in pieces of any size: the parser stays inside what it was given, finds the
// same frames however they come, and finds a good frame behind anything.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "comm/commlen_frame.h"

using namespace qel::commlen;

namespace {

using Bytes = std::vector<uint8_t>;

// The frames of the stream, built again, fed in pieces of `piece` bytes that each have a block of their own.
std::vector<Bytes> frames_of(const Bytes &stream, size_t piece) {
    Parser parser;
    std::vector<Bytes> found;
    for (size_t at = 0; at < stream.size(); at += piece) {
        const size_t end = stream.size() - at < piece ? stream.size() : at + piece;
        const Bytes bytes(stream.data() + at, stream.data() + end);
        parser.feed(bytes, [&](const Frame &frame) {
            std::array<uint8_t, kMaxFrameBytes> out;
            const size_t count = build(frame, out);
            if (count == 0) abort();
            found.emplace_back(out.data(), out.data() + count);
        });
    }
    return found;
}

}  // namespace

// The first byte is the size of the pieces.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0) return 0;
    Bytes stream(data + 1, data + size);
    const std::vector<Bytes> found = frames_of(stream, 1);
    if (frames_of(stream, data[0] + size_t{1}) != found || frames_of(stream, size) != found) abort();

    // Enough of zeroes to end whatever the stream seems to begin, then one good frame.
    const Bytes good = {0xAA, 0x10, 0x01, 0x02, 0x42, 0xFF};
    stream.insert(stream.end(), kMaxFrameBytes, 0);
    stream.insert(stream.end(), good.begin(), good.end());
    const std::vector<Bytes> all = frames_of(stream, data[0] + size_t{1});
    if (all.empty() || all.back() != good) abort();

    // Silence changes nothing of a frame that is whole when it ends.
    Parser parser;
    size_t frames = 0;
    const auto count = [&](const Frame &frame) {
        frames += frame.payload.size() <= kMaxPayloadBytes ? 1 : 0;
    };
    parser.feed({data + 1, size - 1}, count);
    parser.note_silence(count);
    parser.note_silence(count);
    if (frames < found.size()) abort();
    return 0;
}
