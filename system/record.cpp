// record.cpp - board record (addresses and the like). Changes are told in the log, nothing is kept yet.
#include "frame/log.h"
#include "qel/system.h"

namespace {

constexpr unsigned kAddresses = 3;

}  // namespace

extern "C" int QEL_recordInit(void) { return 0; }
extern "C" int QEL_recordDeinit(void) { return 0; }

extern "C" int QEL_recordSetMacChange(unsigned index, const unsigned char mac[6]) {
    if (index >= kAddresses || mac == nullptr) {
        QEL_ERROR("bad argument\n");
        return OSA_EFAIL;
    }
    QEL_INFO("hardware address %u is %02x:%02x:%02x:%02x:%02x:%02x\n", index, mac[0], mac[1], mac[2], mac[3],
             mac[4], mac[5]);
    return 0;
}
