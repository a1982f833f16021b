// config.cpp - device configuration. No operations yet: requests of other chips are refused.
#include "frame/log.h"
#include "product/adapter_module.h"
#include "qel/product.h"

extern "C" int QEL_configSlaveProc(AdapterMsg *msg) { return qel::product::refuse_request(__func__, msg); }

QEL_ADAPTER_MODULE(CONFIG, QEL_MODULE_CONFIG, QEL_configSlaveProc)

extern "C" int QEL_configInit(void) { return 0; }

extern "C" int QEL_configMasterIoctl(unsigned chip, unsigned cmd, void *, unsigned) {
    QEL_ERROR("cmd:%u to chip %u is not available\n", cmd, chip);
    return OSA_EFAIL;
}
