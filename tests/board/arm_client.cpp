// arm_client.cpp - a 32-bit process on a board that a 64-bit server holds; run by net_arm_test.
//
//     arm_client SOCKET FINGERPRINT
//
// Built from the client's sources alone, so it takes the device classes' mark as an argument. Ends
// with the number of the first step that went wrong, 0 = none.
#include <fcntl.h>
#include <poll.h>
#include <cstdio>
#include <cstdlib>

#include "board/net/client.h"

namespace qel::board {

static uint64_t g_fingerprint = 0;
uint64_t class_fingerprint() { return g_fingerprint; }

}  // namespace qel::board

namespace {

using namespace qel::board;

constexpr uint32_t kEcho = 0xC0045000;  // of the probe
constexpr size_t kLarge = 1 << 20;

}  // namespace

int main(int argc, char **argv) {
    static_assert(sizeof(void *) == 4);
    if (argc != 3) return 99;
    g_fingerprint = strtoull(argv[2], nullptr, 16);
    std::string error;
    const auto link = connect_to_server(argv[1], 0, error);
    if (link == nullptr) {
        fprintf(stderr, "%s\n", error.c_str());
        return 1;
    }
    if (link->welcome().name != "test" || link->welcome().ipc_salt == 0) return 2;
    Request request;
    Reply reply;
    request.op = Op::kOpen;
    request.path = "/dev/probe";
    request.code = O_RDWR;
    const int fd = link->open(request, reply);
    if (fd < 0) return 3;
    const uint32_t handle = reply.handle;
    const auto call = [&](Op op, uint32_t code, Buffer in, uint32_t out_bytes) {
        request = {};
        request.op = op;
        request.handle = handle;
        request.code = code;
        request.in = std::move(in);
        request.out_bytes = out_bytes;
        reply = {};
        link->call(request, reply);
        return reply.value;
    };
    if (call(Op::kIoctl, kEcho, {1, 2, 3, 4, 5, 6, 7, 8}, 0) != 8) return 4;
    if (reply.out != Buffer{8, 7, 6, 5, 4, 3, 2, 1}) return 5;
    Buffer large(kLarge);
    for (size_t i = 0; i < large.size(); ++i) large[i] = static_cast<uint8_t>(i * 5 + (i >> 8));
    if (call(Op::kWrite, 0, large, 0) != static_cast<int64_t>(kLarge)) return 6;
    if (call(Op::kSeek, SEEK_SET, {}, 0) != 0) return 7;
    if (call(Op::kRead, 0, {}, kLarge) != static_cast<int64_t>(kLarge) || reply.out != large) return 8;
    pollfd one{fd, POLLIN, 0};
    if (poll(&one, 1, 0) != 0) return 9;
    return 0;
}
