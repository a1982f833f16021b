// port_scm.cpp - ports of the secondary controller and of the SPI bridge.
#include "comm/port_layer.h"
#include "comm/scm.h"
#include "qel/serial_driver.h"

namespace qel::comm {

namespace {

constexpr Layer<ScmHandle> kScmLayer = {
    .handle = &QEL_ComManagePriv::scm,
    .remove = QEL_scmDelete,
    .open = QEL_scmOpen,
    .close = QEL_scmClose,
    .set_attribute = QEL_scmSetAttribute,
    .read = QEL_scmRead,
    .write = QEL_scmWrite,
    .purge = QEL_scmPurge,
};

int create(QEL_ComManagePriv &priv, const ComMapItem &item) { return QEL_scmCreate(&priv.scm, item.port); }

int create_spi(QEL_ComManagePriv &priv, const ComMapItem &item) {
    priv.scm = create_own_line("createCommPort", QEL_SPI_PTZ_DEVICE_PREFIX, item.port);
    return priv.scm != nullptr ? 0 : OSA_EFAIL;
}

}  // namespace

constinit const PortBackend kScmPort = backend_over<kScmLayer>(create);
constinit const PortBackend kSpiPtzPort = backend_over<kScmLayer>(create_spi);

}  // namespace qel::comm
