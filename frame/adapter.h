// adapter.h - forwarding between the chips of a unit: what its sources share, and the request that
// modules send.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

#include "platform/include/osa.h"
#include "platform/include/xcc.h"
#include "qel/frame.h"

namespace qel::adapter {

static_assert(sizeof(AdapterMsg) == QEL_ADAPTER_HEADER_BYTES);
static_assert(offsetof(AdapterMsg, timeout) == 4 && offsetof(AdapterMsg, needReply) == 8);
static_assert(offsetof(AdapterMsg, replied) == 12 && offsetof(AdapterMsg, module) == 16);
static_assert(offsetof(AdapterMsg, cmd) == 20 && offsetof(AdapterMsg, length) == 24);
static_assert(offsetof(AdapterMsg, tid) == 28);
static_assert(sizeof(XCC_BufInfo) == 32);
static_assert(QEL_ADAPTER_CHANNEL_BYTES == XCC_CHANNEL_BYTES);

constexpr int kForever = -1;
constexpr const char *kChannelPrefix = "QEL";
constexpr const char *kMasterToSlave = "%s_MToS%d";  // the prefix and the slave's number
constexpr const char *kSlaveToMaster = "%s_S%dToM";

// ---- messages ----

// The header of a request that waits for its answer without limit.
constexpr AdapterMsg request_header(uint32_t chip, uint32_t module, uint32_t cmd, uint32_t payload_bytes) {
    return {.chip = chip,
            .timeout = kForever,
            .needReply = 1,
            .replied = 0,
            .module = module,
            .cmd = cmd,
            .length = payload_bytes,
            .tid = 0};
}

// Whether `answer` is one to `request`.
constexpr bool is_answer(const AdapterMsg &request, const AdapterMsg &answer) {
    return answer.chip == request.chip && answer.module == request.module && answer.cmd == request.cmd &&
           answer.needReply == 0 && answer.replied == 1;
}

// Whether a payload of `payload_bytes` lies within a message of `message_bytes`, header included.
constexpr bool payload_fits(uint32_t payload_bytes, uint32_t message_bytes) {
    return message_bytes >= QEL_ADAPTER_HEADER_BYTES &&
           payload_bytes <= message_bytes - QEL_ADAPTER_HEADER_BYTES;
}

// A request in memory of its own, zero-filled. get() is nullptr where there was none.
class Request {
public:
    Request(uint32_t chip, uint32_t module, uint32_t cmd, uint32_t payload_bytes)
        : header_(request_header(chip, module, cmd, payload_bytes)),
          msg_(static_cast<AdapterMsg *>(OSA_memCalloc(QEL_ADAPTER_HEADER_BYTES + payload_bytes))) {
        if (msg_ != nullptr) *msg_ = header_;
    }
    Request(const Request &) = delete;
    Request &operator=(const Request &) = delete;
    ~Request() {
        if (msg_ != nullptr) OSA_memFree(msg_);
    }
    AdapterMsg *get() const { return msg_; }
    uint8_t *payload() const { return static_cast<uint8_t *>(QEL_ADAPTER_PAYLOAD(msg_)); }
    bool is_answered() const { return is_answer(header_, *msg_); }

private:
    const AdapterMsg header_;
    AdapterMsg *msg_;
};

// ---- what the sources of the layer share ----

// What QEL_adapterInit and QEL_adapterDeinit drive, in this order; the list is in startup.cpp.
struct Module {
    int (*init)();
    int (*deinit)();
};
std::span<const Module> modules();

// 1 unless this process reaches the slaves.
void set_chip_count(unsigned count);

// One end of the pair of channels between the master and one slave.
struct Peer {
    uint32_t own_chip;
    uint32_t peer_chip;
    uint32_t chip_count;
    const char *own_format;  // names of the two channels, kMasterToSlave and kSlaveToMaster
    const char *peer_format;
    const char *function;  // logs under this name
};
// Opens it and blocks until the other end is there. 0, or -1 after a line in the log.
int open_channel(const Peer &peer, uintptr_t *handle);
void close_channel(uintptr_t handle);

// The handler attached to `id` for as long as the object lives; any id may come from a peer.
class HandlerUse {
public:
    explicit HandlerUse(uint32_t id);
    ~HandlerUse();
    HandlerUse(const HandlerUse &) = delete;
    HandlerUse &operator=(const HandlerUse &) = delete;
    AdapterProc get() const { return handler_; }

private:
    uint32_t id_;
    AdapterProc handler_ = nullptr;
};

}  // namespace qel::adapter
