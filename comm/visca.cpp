// visca.cpp - camera-module link. No operations yet: requests of other chips are refused.
#include "product/adapter_module.h"
#include "qel/comm.h"

namespace {

int visca_slave_proc(AdapterMsg *msg) { return qel::product::refuse_request(__func__, msg); }

}  // namespace

QEL_ADAPTER_MODULE(VISCA_COMM, QEL_MODULE_VISCA, visca_slave_proc)
