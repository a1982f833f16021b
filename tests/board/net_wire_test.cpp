// What goes over the wire: whole, cut short, and made up by a stranger.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <array>
#include <functional>
#include <random>

#include "board/net/wire.h"

using namespace qel::board;

namespace {

// Two ends of a connection, and what arrives at the other one.
class Wire : public testing::Test {
protected:
    Wire() {
        std::array<int, 2> ends{};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()), 0);
        near_.reset(ends[0]);
        far_.reset(ends[1]);
    }
    InPacket &pass(const OutPacket &packet) {
        EXPECT_EQ(send_packet(near_.get(), packet), 0);
        EXPECT_EQ(receive_packet(far_.get(), in_), 0);
        return in_;
    }

    UniqueFd near_;
    UniqueFd far_;
    OutPacket out_;
    InPacket in_;
};

Buffer pattern(size_t bytes) {
    Buffer made(bytes);
    for (size_t i = 0; i < bytes; ++i) made[i] = static_cast<uint8_t>(i * 7 + (i >> 8));
    return made;
}

Request sample_request() {
    Request request;
    request.op = Op::kIoctl;
    request.handle = 0xFFFFFFFE;
    request.code = 0xC0044800;
    request.offset = -5'000'000'000;
    request.out_bytes = 12;
    request.nonblocking = true;
    request.path = "/dev/x";
    request.in = {1, 2, 3};
    return request;
}

}  // namespace

TEST_F(Wire, CarriesRequestsOfEverySize) {
    for (const size_t bytes :
         {size_t{0}, size_t{1}, wire::kInlineBytes, wire::kInlineBytes + 1, size_t{1} << 20}) {
        Request sent = sample_request();
        sent.in = pattern(bytes);
        ASSERT_TRUE(wire::put_request(out_, 77, sent));
        wire::Reader reader(pass(out_));
        const wire::Head head = wire::read_head(reader);
        Request got;
        ASSERT_TRUE(wire::get_request(reader, got)) << bytes;
        EXPECT_EQ(head.sequence, 77u);
        EXPECT_EQ(got.handle, sent.handle);
        EXPECT_EQ(got.offset, sent.offset);
        EXPECT_EQ(got.path, sent.path);
        EXPECT_TRUE(got.nonblocking);
        EXPECT_EQ(got.in, sent.in) << bytes;
    }
    Request large = sample_request();
    large.in.resize(wire::kPayloadBytes + 1);
    EXPECT_FALSE(wire::put_request(out_, 1, large));
}

TEST_F(Wire, HandsDescriptorsOver) {
    Reply sent;
    sent.value = -110;
    sent.fd = to_memory_file(pattern(5)).release();
    sent.drained = true;
    sent.out = pattern(wire::kInlineBytes + 1);  // a third descriptor beside the two
    std::array<int, 2> device{};
    ASSERT_EQ(pipe(device.data()), 0);
    UniqueFd read_end(device[0]);
    ASSERT_TRUE(wire::put_reply(out_, 3, sent, device[1]));
    wire::Reader reader(pass(out_));
    wire::read_head(reader);
    out_.clear();

    Reply got;
    int got_device = -1;
    ASSERT_TRUE(wire::get_reply(reader, got, got_device));
    UniqueFd map(got.fd);
    UniqueFd write_end(got_device);
    EXPECT_EQ(got.value, -110);
    EXPECT_TRUE(got.drained);
    EXPECT_EQ(got.out, pattern(wire::kInlineBytes + 1));
    Buffer mapped;
    EXPECT_TRUE(from_memory_file(map.get(), 5, mapped));
    EXPECT_EQ(mapped, pattern(5));
    EXPECT_EQ(write(write_end.get(), "x", 1), 1);
    char byte = 0;
    EXPECT_EQ(read(read_end.get(), &byte, 1), 1);
}

// Nothing may be made of a packet that lacks its end, or that holds more than it says.
TEST_F(Wire, RefusesEveryPacketThatIsNotWhole) {
    wire::Hello hello;
    hello.process_name = "vesta";
    Reply reply;
    reply.out = {9, 9};
    const std::vector<std::string> words = {"poke", "0", "/dev/x"};
    struct Case {
        const char *name;
        std::function<void()> put;
        std::function<bool(wire::Reader &)> get;
    };
    const Case cases[] = {
        {"hello", [&] { wire::put_hello(out_, hello); },
         [](wire::Reader &in) {
             wire::Hello got;
             uint32_t version = 0;
             return wire::get_hello(in, got, version);
         }},
        {"request", [&] { wire::put_request(out_, 1, sample_request()); },
         [](wire::Reader &in) {
             Request got;
             return wire::get_request(in, got);
         }},
        {"reply", [&] { wire::put_reply(out_, 1, reply, -1); },
         [](wire::Reader &in) {
             Reply got;
             int device = -1;
             return wire::get_reply(in, got, device);
         }},
        {"control", [&] { wire::put_control(out_, words); },
         [](wire::Reader &in) {
             std::vector<std::string> got;
             return wire::get_control(in, got);
         }},
    };
    for (const Case &one : cases) {
        one.put();
        const Buffer whole = out_.bytes;
        const auto accepted = [&](const Buffer &bytes) {
            out_.bytes = bytes;
            wire::Reader reader(pass(out_));
            wire::read_head(reader);
            return one.get(reader);
        };
        EXPECT_TRUE(accepted(whole)) << one.name;
        for (size_t bytes = 1; bytes < whole.size(); ++bytes)
            EXPECT_FALSE(accepted({whole.begin(), whole.begin() + static_cast<ptrdiff_t>(bytes)}))
                << one.name << bytes;
        Buffer longer = whole;
        longer.push_back(0);
        EXPECT_FALSE(accepted(longer)) << one.name;
        std::mt19937 random(1);
        for (int i = 0; i < 500; ++i) {  // whatever they say: no read outside of them
            Buffer turned = whole;
            turned[random() % turned.size()] = static_cast<uint8_t>(random());
            accepted(turned);
        }
    }
}

TEST_F(Wire, RefusesPayloadsThatAreNotThere) {
    Request request = sample_request();
    request.in = pattern(wire::kInlineBytes + 1);
    const auto accepted = [&](UniqueFd payload) {
        EXPECT_TRUE(wire::put_request(out_, 1, request));
        out_.descriptors.clear();
        if (payload.is_open()) out_.descriptors.push_back(std::move(payload));
        wire::Reader reader(pass(out_));
        wire::read_head(reader);
        Request got;
        return wire::get_request(reader, got);
    };
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe(ends.data()), 0);
    const UniqueFd write_end(ends[1]);
    EXPECT_TRUE(accepted(to_memory_file(request.in)));
    EXPECT_FALSE(accepted(UniqueFd()));
    EXPECT_FALSE(accepted(to_memory_file(pattern(wire::kInlineBytes))));  // a byte short
    EXPECT_FALSE(accepted(UniqueFd(ends[0])));                            // would block for ever
}

TEST_F(Wire, RefusesDescriptorsNobodyAskedFor) {
    wire::put_request(out_, 1, sample_request());
    out_.descriptors.push_back(to_memory_file(pattern(1)));
    wire::Reader reader(pass(out_));
    wire::read_head(reader);
    Request got;
    EXPECT_FALSE(wire::get_request(reader, got));
}
