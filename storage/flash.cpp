// flash.cpp - flash partitions. No operations yet: the table is not read, requests of other chips are
// refused.
#include "product/adapter_module.h"
#include "qel/storage.h"

namespace {

int flash_slave_proc(AdapterMsg *msg) { return qel::product::refuse_request(__func__, msg); }

}  // namespace

QEL_ADAPTER_MODULE(FLASH, QEL_MODULE_FLASH, flash_slave_proc)

extern "C" int QEL_flashIinit(void) { return 0; }
extern "C" int QEL_flashDeinit(void) { return 0; }
