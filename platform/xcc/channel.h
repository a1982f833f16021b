// channel.h - one end of a named channel. A master's end sends, a slave's end receives; either survives
// the death of the process at the other end and goes on with its successor.
#pragma once

#include <memory>

#include "platform/common/socket.h"
#include "platform/include/xcc.h"

namespace qel::xcc {

using platform::Deadline;

class Channel {
public:
    virtual ~Channel() = default;
    virtual int bind(const XCC_BindParams &peer, Deadline deadline) = 0;
    virtual int put(XCC_BufInfo *message, Deadline deadline) = 0;
    virtual int get(XCC_BufInfo *message, Deadline deadline) = 0;
    virtual int release(const XCC_BufInfo &message) = 0;
    // Ends every call that waits; the channel may be bound again.
    virtual int unbind() = 0;
    // Messages got and not given back yet: their memory must stay.
    virtual unsigned held() = 0;
};

struct Identity {
    uint32_t chip;
    int32_t process_id;
    char name[XCC_NAME_BYTES];
    uint32_t region_bytes;
};

std::shared_ptr<Channel> make_master_channel(const Identity &own);
std::shared_ptr<Channel> make_slave_channel(const Identity &own);

}  // namespace qel::xcc
