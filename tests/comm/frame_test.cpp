// Frames of the length-framed link: what they look like, and what a parser finds in any stream.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <utility>
#include <vector>

#include "comm/commlen_frame.h"

namespace qel::commlen {
namespace {

using Bytes = std::vector<uint8_t>;

struct Found {
    uint8_t sequence;
    uint8_t command;
    Bytes payload;
    bool operator==(const Found &) const = default;
};

Bytes frame(uint8_t sequence, uint8_t command, const Bytes &payload) {
    std::array<uint8_t, kMaxFrameBytes> out;
    const size_t bytes = build({sequence, command, payload}, out);
    return {out.begin(), out.begin() + static_cast<ptrdiff_t>(bytes)};
}

Bytes operator+(Bytes left, const Bytes &right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

// Feeds `stream` in pieces whose sizes `next_piece` chooses.
template <typename NextPiece>
std::vector<Found> parse(const Bytes &stream, NextPiece next_piece) {
    Parser parser;
    std::vector<Found> found;
    std::span<const uint8_t> rest = stream;
    while (!rest.empty()) {
        const size_t piece = std::min<size_t>(next_piece(), rest.size());
        // A copy of its own, so that a sanitizer sees any step outside.
        const Bytes bytes(rest.begin(), rest.begin() + static_cast<ptrdiff_t>(piece));
        parser.feed(bytes, [&](const Frame &f) {
            found.push_back({f.sequence, f.command, {f.payload.begin(), f.payload.end()}});
        });
        rest = rest.subspan(piece);
    }
    return found;
}

TEST(CommlenFrame, LooksAsTheWireWantsIt) {
    EXPECT_EQ(frame(0, 0x21, {}), (Bytes{0xAA, 0x10, 0x00, 0x02, 0x21, 0xDD}));
    EXPECT_EQ(frame(7, 0x30, {1, 2, 0xFF}), (Bytes{0xAA, 0x10, 0x07, 0x05, 0x30, 1, 2, 0xFF, 0xF8}));
    EXPECT_EQ(frame(1, 2, Bytes(253)).size(), 259u);
    EXPECT_TRUE(frame(1, 2, Bytes(254)).empty());
}

struct Stream {
    const char *name;
    Bytes bytes;
    std::vector<Found> expected;
};

std::vector<Stream> streams() {
    const Found one{1, 0x20, {9, 8, 7}};
    const Found two{2, 0x21, {}};
    const Found long_one{0xAA, 0xAA, Bytes(253, 0xAA)};
    const auto of = [](const Found &f) { return frame(f.sequence, f.command, f.payload); };
    Bytes wrong_sum = of(one);
    ++wrong_sum.back();
    Bytes cut = of(one);
    cut.erase(cut.begin() + 6);
    return {
        {"frames one after the other", of(one) + of(two) + of(long_one) + of(one), {one, two, long_one, one}},
        {"marks before the mark", Bytes{0xAA} + of(one) + Bytes{0xAA, 0xAA} + of(two), {one, two}},
        {"noise between", Bytes{0, 0x10, 0xAA, 0x11} + of(one) + Bytes{0xAA, 0, 0xFF} + of(two), {one, two}},
        {"wrong checksum", wrong_sum + of(two), {two}},
        {"a byte lost on the way", cut + of(two) + of(one), {two, one}},
        {"length byte below two",
         Bytes{0xAA, 0x10, 5, 1} + of(one) + Bytes{0xAA, 0x10, 0xAA, 0} + of(two),
         {one, two}},
        {"a header that promises more than comes", Bytes{0xAA, 0x10, 3, 8} + of(one) + of(two), {one, two}},
        {"an unfinished frame at the end", of(one) + Bytes{0xAA, 0x10, 3, 8, 1}, {one}},
        {"a frame in a frame's payload", frame(3, 4, of(one)), {{3, 4, of(one)}}},
        {"nothing but marks", Bytes(600, 0xAA), {}},
    };
}

TEST(CommlenFrame, AreFoundHoweverTheStreamIsSplit) {
    for (const Stream &stream : streams()) {
        SCOPED_TRACE(stream.name);
        EXPECT_EQ(parse(stream.bytes, [] { return size_t{1}; }), stream.expected);
        for (size_t split = 1; split <= stream.bytes.size(); ++split) {
            bool first = true;
            const auto pieces = [&] { return std::exchange(first, false) ? split : stream.bytes.size(); };
            ASSERT_EQ(parse(stream.bytes, pieces), stream.expected) << "split at " << split;
        }
    }
}

TEST(CommlenFrame, BehindAStartThatPromisedMoreAreFoundWhenTheLineGoesSilent) {
    const Bytes one = frame(1, 0x20, {9, 8, 7});
    const Bytes two = frame(2, 0x21, {});
    const Bytes promise = {0xAA, 0x10, 3, 255};
    const struct {
        const char *name;
        Bytes first, second;
        size_t found_first, found;
    } cases[] = {
        {"a promise", promise + one + two, one, 2, 3},
        {"two promises", promise + promise + one + Bytes{0xAA} + promise + two, one, 2, 3},
        {"a slow frame", Bytes(one.begin(), one.begin() + 6), Bytes(one.begin() + 6, one.end()), 0, 1},
        {"a slow start", Bytes{0xAA}, Bytes(one.begin() + 1, one.end()), 0, 1},
        {"nothing", {}, two, 0, 1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        Parser parser;
        size_t found = 0;
        const auto count = [&](const Frame &) { ++found; };
        parser.feed(c.first, count);
        parser.note_silence(count);
        EXPECT_EQ(found, c.found_first);
        parser.feed(c.second, count);
        EXPECT_EQ(found, c.found);
    }
}

// Noise may itself hold a good frame, but it never hides one that follows.
TEST(CommlenFrame, BehindNoiseOfAnyKindAreFound) {
    std::mt19937 random(1);
    const auto any = [&](unsigned from, unsigned to) {
        return std::uniform_int_distribution<unsigned>(from, to)(random);
    };
    const Bytes common = {0xAA, 0x10, 0xAA, 2, 255};
    for (int round = 0; round < 300; ++round) {
        Bytes stream;
        for (unsigned i = any(0, 40); i > 0; --i) {
            stream.push_back(any(0, 1) == 0 ? common[any(0, 4)] : static_cast<uint8_t>(any(0, 255)));
        }
        // The good frames come last and often enough to end whatever frame the noise seems to begin.
        const Found good{static_cast<uint8_t>(round), 0x42, Bytes(any(0, 20), 0x55)};
        for (int i = 0; i < 60; ++i) stream = stream + frame(good.sequence, good.command, good.payload);
        const std::vector<Found> found = parse(stream, [&] { return size_t{any(1, 40)}; });
        ASSERT_EQ(parse(stream, [] { return size_t{1}; }), found) << "round " << round;
        const auto count = static_cast<size_t>(std::ranges::count(found, good));
        ASSERT_TRUE(count == 60 || count < found.size()) << "round " << round << ", found " << count;
    }
}

}  // namespace
}  // namespace qel::commlen
