// port_scm.cpp - ports of the secondary controller and of the SPI bridge.
#include "comm/port_backend.h"
#include "comm/scm.h"
#include "qel/serial_driver.h"

namespace qel::comm {

namespace {

int create(QEL_ComManagePriv &priv, const ComMapItem &item) { return QEL_scmCreate(&priv.scm, item.port); }

int create_spi(QEL_ComManagePriv &priv, const ComMapItem &item) {
    priv.scm = create_own_line(QEL_SPI_PTZ_DEVICE_PREFIX, item.port);
    return priv.scm != nullptr ? 0 : OSA_EFAIL;
}

void destroy(QEL_ComManagePriv &priv) { QEL_scmDelete(priv.scm); }

int open(QEL_ComManagePriv &priv) { return QEL_scmOpen(priv.scm); }

int close(QEL_ComManagePriv &priv) { return QEL_scmClose(priv.scm); }

int set_attribute(QEL_ComManagePriv &priv, const ComAttribute *attribute) {
    return QEL_scmSetAttribute(priv.scm, attribute);
}

int read(QEL_ComManagePriv &priv, void *buffer, uint32_t bytes) {
    ComIoParam request{buffer, bytes, kPortReadTimeout_ms};
    return read_result(QEL_scmRead(priv.scm, &request), request);
}

int write(QEL_ComManagePriv &priv, const void *buffer, uint32_t bytes) {
    ComIoParam request{const_cast<void *>(buffer), bytes, kPortWriteTimeout_ms};
    return write_result(QEL_scmWrite(priv.scm, &request), request);
}

int purge(QEL_ComManagePriv &priv, uint32_t flag) { return QEL_scmPurge(priv.scm, flag); }

}  // namespace

const PortBackend kScmPort = {create, destroy, open, close, set_attribute, read, write, purge, nullptr};
const PortBackend kSpiPtzPort = {create_spi, destroy, open,  close,  set_attribute,
                                 read,       write,   purge, nullptr};

}  // namespace qel::comm
