// peripheral.cpp - upgrade of peripheral controllers. No operations yet: requests of other chips are refused.
#include "product/adapter_module.h"
#include "qel/upgrade.h"

namespace {

int peripheral_upgrade_slave_proc(AdapterMsg *msg) { return qel::product::refuse_request(__func__, msg); }

}  // namespace

QEL_ADAPTER_MODULE(PERUPGRADE, QEL_MODULE_PERIPHERAL_UPGRADE, peripheral_upgrade_slave_proc)
