// system.cpp - system control. No operations yet: requests of other chips are refused.
#include "qel/system.h"
#include "product/adapter_module.h"

namespace {

int system_slave_proc(AdapterMsg *msg) { return qel::product::refuse_request(__func__, msg); }

}  // namespace

QEL_ADAPTER_MODULE(SYSTEM, QEL_MODULE_SYSTEM, system_slave_proc)
