// adapter_module.h - how a module comes to serve the requests of other chips.
#pragma once

#include "qel/frame.h"

namespace qel::product {

// Attaches `handler` where this process runs on a slave chip; on the master there is nothing to serve.
// 0, or -1 after a line in the log under the name `function`.
int attach_on_slave(const char *function, unsigned id, AdapterProc handler);

// The answer to requests of a module that serves none yet: logs under the name `function`, returns -1.
int refuse_request(const char *function, const AdapterMsg *msg);

}  // namespace qel::product

// The pair <MODULE>_adapterInit and <MODULE>_adapterDeInit.
#define QEL_ADAPTER_MODULE(name, id, handler)                          \
    extern "C" int name##_adapterInit(void) {                          \
        return ::qel::product::attach_on_slave(__func__, id, handler); \
    }                                                                  \
    extern "C" int name##_adapterDeInit(void) { return QEL_adapterSlaveDetachProc(id); }
