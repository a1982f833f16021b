// wire.h - what travels between a client and a daemon.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstring>

#include "platform/common/world.h"
#include "platform/include/bnd.h"

namespace qel::bnd {

constexpr uint32_t kMagic = 0x31444E42;  // "BND1"

enum Flags : uint32_t {
    kWantsReply = 1u << 0,  // in a request
    kRefused = 1u << 1,     // in an answer: the daemon could not take the request
};

// Stands before every payload, least significant byte first.
struct Header {
    uint32_t magic;
    uint32_t sequence;  // an answer carries its request's
    uint32_t flags;
    uint32_t length;  // bytes of payload
};
static_assert(sizeof(Header) == 16);

inline bool well_formed(const Header &header, size_t packet_bytes, bool truncated) {
    if (packet_bytes < sizeof header || header.magic != kMagic || header.length > BND_MAX_BYTES) return false;
    return truncated || header.length == packet_bytes - sizeof header;
}

// The socket of a channel; false when the name is not one. Each chip of a unit has daemons of its own.
inline bool socket_name(const char *channel, char *out, size_t out_bytes) {
    if (channel == nullptr) return false;
    const size_t length = strnlen(channel, BND_NAME_BYTES);
    if (length == 0 || length == BND_NAME_BYTES || memchr(channel, '/', length) != nullptr) return false;
    const unsigned chip = platform::world_chip();
    if (chip == 0) return snprintf(out, out_bytes, "bnd-%s", channel) > 0;
    return snprintf(out, out_bytes, "bnd%u-%s", chip, channel) > 0;
}

}  // namespace qel::bnd
