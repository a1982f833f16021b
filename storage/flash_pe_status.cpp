// flash_pe_status.cpp - program/erase status of the flash, as the service that watches it tells.
//
// The service listens on a channel of the daemons' layer. A device may have none.
#include "frame/log.h"
#include "platform/include/bnd.h"
#include "qel/storage.h"

namespace {

constexpr const char *kChannel = "Qel2FlashBnd";
constexpr uint32_t kGetStatus = 1;
constexpr int kTimeoutMs = 2000;

struct StatusMessage {
    uint32_t command;
    int32_t result;   // answer: 0, or the status is not known
    uint32_t status;  // answer
};
static_assert(sizeof(StatusMessage) == 12);

int exchange(uintptr_t channel, StatusMessage *message) {
    BinderRecord record = {};
    record.flags = BND_FLAG_REPLY;
    record.sendLen = sizeof *message;
    record.replyLen = sizeof *message;
    record.buf = message;
    if (BND_put(channel, &record, kTimeoutMs) != 0 || BND_get(channel, &record, kTimeoutMs) != 0) {
        return OSA_EFAIL;
    }
    return record.replyLen == sizeof *message && message->command == kGetStatus ? message->result : OSA_EFAIL;
}

}  // namespace

extern "C" int QEL_getFlashPEStatus(uint32_t *status) {
    if (status == nullptr) {
        QEL_ERROR("bad argument\n");
        return OSA_EFAIL;
    }
    uintptr_t channel = 0;
    if (BND_init(0) != 0 || BND_open(kChannel, &channel) != 0) {
        QEL_ERROR("no service on channel %s\n", kChannel);
        return OSA_EFAIL;
    }
    StatusMessage message = {kGetStatus, OSA_EFAIL, 0};
    const int result = exchange(channel, &message);
    BND_delete(channel);
    if (result != 0) {
        QEL_ERROR("the service on channel %s does not answer\n", kChannel);
        return OSA_EFAIL;
    }
    *status = message.status;
    return 0;
}
