// env_forward.cpp - boot parameters of other chips.
#include <algorithm>
#include <cstring>

#include "frame/log.h"
#include "product/adapter_module.h"
#include "product/environment.h"
#include "qel/product.h"

namespace qel::environment {

namespace {

constexpr uint32_t kCmdGet = 1;
constexpr unsigned kMaxNameLength = 31;

// The answer comes back in the same place.
struct Payload {
    int32_t status;
    uint8_t reserved[4];
    char value[QEL_BOOT_PARAMETER_BYTES];
    char name[kMaxNameLength + 1];
    uint32_t size;
    uint8_t more_reserved[4];
};
static_assert(sizeof(Payload) == 304 && offsetof(Payload, value) == 8 && offsetof(Payload, name) == 264 &&
              offsetof(Payload, size) == 296);

struct Request {
    AdapterMsg header;
    Payload payload;
};
static_assert(sizeof(Request) == 336);

constexpr const char *kByChannel = "getBootParameterByChn";

int ask(unsigned channel, uint32_t chip, const char *name, char *value, uint32_t size) {
    Request request = {};
    request.header = {.chip = chip,
                      .timeout = -1,
                      .needReply = 1,
                      .replied = 0,
                      .module = QEL_MODULE_ENVIRONMENT,
                      .cmd = kCmdGet,
                      .length = sizeof request.payload,
                      .tid = 0};
    memcpy(request.payload.name, name, strlen(name));
    request.payload.size = size;
    const int status = QEL_adapterMasterProc(&request.header);
    if (status != 0) {
        QEL_ERROR_AS(kByChannel, "Fail to put buffer, status=%d\n", status);
        return OSA_EFAIL;
    }
    const AdapterMsg &answer = request.header;
    QEL_ASSERT_AS(kByChannel, answer.chip == chip && answer.module == QEL_MODULE_ENVIRONMENT &&
                                  answer.cmd == kCmdGet && answer.needReply == 0 && answer.replied == 1);
    if (request.payload.status != 0 || memchr(request.payload.value, '\0', size) == nullptr) {
        QEL_WARN_AS(kByChannel, "getBootParameterByChn channel[%u] failed\n", channel);
        return OSA_EFAIL;
    }
    memcpy(value, request.payload.value, size);
    return 0;
}

}  // namespace

}  // namespace qel::environment

using namespace qel;
using namespace qel::environment;

extern "C" {

int getBootParameterByChn(unsigned logChn, const char *name, char *value, int size) {
    if (name == nullptr || value == nullptr || size < 1) {
        QEL_ERROR("bad argument\n");
        return OSA_EFAIL;
    }
    unsigned char info[QEL_CHANNEL_INFO_BYTES];
    if (QEL_chnMapGetInfo(logChn, info) != 0) {
        QEL_WARN("getBootParameterByChn get chnMapInfo failed\n");
        return OSA_EFAIL;
    }
    if (info[0] == 0) return read_parameter(name, value, size);
    if (strlen(name) > kMaxNameLength) {
        QEL_WARN("getBootParameterByChn params is too long\n");
        return OSA_EFAIL;
    }
    return ask(logChn, info[0], name, value,
               static_cast<uint32_t>(std::min(size, QEL_BOOT_PARAMETER_BYTES - 1)));
}

int QEL_envSlaveProc(AdapterMsg *msg) {
    QEL_ASSERT(msg->module == QEL_MODULE_ENVIRONMENT);
    if (msg->cmd != kCmdGet) {
        QEL_WARN("xcc cmd:%d err\n", static_cast<int>(msg->cmd));
        return OSA_EFAIL;
    }
    auto *const payload = static_cast<Payload *>(QEL_ADAPTER_PAYLOAD(msg));
    if (msg->length < sizeof *payload || memchr(payload->name, '\0', sizeof payload->name) == nullptr) {
        QEL_ERROR("bad request\n");
        return OSA_EFAIL;
    }
    const uint32_t size = std::min<uint32_t>(payload->size, sizeof payload->value);
    payload->status = read_parameter(payload->name, payload->value, static_cast<int>(size));
    if (payload->status != 0) QEL_ERROR("QEL_envSlaveProc execute error\n");
    return payload->status;
}

}  // extern "C"

QEL_ADAPTER_MODULE(ENV, QEL_MODULE_ENVIRONMENT, QEL_envSlaveProc)
