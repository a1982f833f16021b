// environment.cpp - boot environment parameters. The block in flash is not read yet: every parameter
// is missing, requests of other chips are refused.
#include "product/environment.h"

#include "os/os.h"
#include "product/adapter_module.h"
#include "qel/product.h"

namespace qel::environment {

int read_parameter(const char *name, char *, int) {
    os::print_out("Fail to get env %s!\n", name);
    return OSA_EFAIL;
}

}  // namespace qel::environment

extern "C" int ENV_preInit(void) { return 0; }

extern "C" int QEL_envSlaveProc(AdapterMsg *msg) { return qel::product::refuse_request(__func__, msg); }

QEL_ADAPTER_MODULE(ENV, QEL_MODULE_ENVIRONMENT, QEL_envSlaveProc)
