#include "product/adapter_module.h"

#include "frame/log.h"
#include "product/hwid_store.h"

namespace qel::product {

int attach_on_slave(const char *function, unsigned id, AdapterProc handler) {
    hwid::ChipInfo chip{};
    if (chip_info(&chip) != 0) {
        QEL_ERROR_AS(function, "QEL_getChipInfo err\n");
        return OSA_EFAIL;
    }
    if (chip.chip_idx == 0) return 0;
    if (QEL_adapterSlaveAttachProc(handler, id) != 0) {
        QEL_ERROR_AS(function, "QEL_adapterSlaveAttachProc err\n");
        return OSA_EFAIL;
    }
    return 0;
}

int refuse_request(const char *function, const AdapterMsg *msg) {
    QEL_ERROR_AS(function, "cmd:%u of module %u is not available\n", msg->cmd, msg->module);
    return OSA_EFAIL;
}

}  // namespace qel::product
