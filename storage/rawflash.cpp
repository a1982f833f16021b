// rawflash.cpp - the raw flash object. No operations yet: nothing is written, requests of other chips
// are refused.
#include "frame/log.h"
#include "product/adapter_module.h"
#include "storage/flash_description.h"

namespace {

int flash_slave_proc(AdapterMsg *msg) { return qel::product::refuse_request(__func__, msg); }

}  // namespace

QEL_ADAPTER_MODULE(FLASH, QEL_MODULE_FLASH, flash_slave_proc)

namespace qel::flash {

int write_through(RawFlash *, uint64_t, const void *, uint32_t) {
    QEL_ERROR("the partition writer is not available yet\n");
    return OSA_EFAIL;
}

}  // namespace qel::flash
