// hwid_ex.cpp - the extended hardware id of the board. Filled while the library loads.
#include "product/hwid_ex.h"

#include "frame/log.h"
#include "product/environment.h"
#include "product/hwid_store.h"

namespace qel::product {

namespace {

constexpr int kParameterBytes = 128;
constexpr unsigned kFunctionStatusByte = 7;

struct State {
    bool valid = false;
    HwidEx id;
};
constinit State state;

}  // namespace

}  // namespace qel::product

using namespace qel;
using namespace qel::product;

extern "C" {

int QEL_hwidProbe(void) {
    char value[kParameterBytes] = {};
    const int status = environment::read_parameter("HWID", value, sizeof(value));
    if (status != 0) QEL_ERROR("Get armboot para HWID error\n");
    return status;
}

int QEL_hwidExInit(void) {
    char value[kParameterBytes] = {};
    // Before the mutex is taken: the environment asks for board properties while it loads.
    if (environment::read_parameter("hwidEx", value, sizeof(value)) != 0) return 0;
    const MutexLock lock(module_mutex());
    state.id = parse_hwid_ex(value);
    state.valid = true;
    if (state.id.has_more) QEL_WARN("hwidEx num > %d\n", QEL_HWID_EX_BYTES);
    return 0;
}

int QEL_getHwidExInfo(unsigned id, unsigned char *value) {
    if (value == nullptr) {
        QEL_ERROR("para:pCmdVal is NULL\n");
        return OSA_EFAIL;
    }
    if (id >= QEL_HWID_EX_BYTES) {
        QEL_ERROR("infoId  too large!\n");
        return OSA_EFAIL;
    }
    if (!state.valid) return OSA_EFAIL;
    *value = state.id.bytes[id];
    return 0;
}

int QEL_getFuncStatus(unsigned *status) {
    if (status == nullptr) {
        QEL_ERROR("pFuncParam is null!\n");
        return OSA_EFAIL;
    }
    unsigned char value = 0;
    if (QEL_getHwidExInfo(kFunctionStatusByte, &value) != 0) return OSA_EFAIL;
    *status = value;
    return 0;
}

}  // extern "C"
