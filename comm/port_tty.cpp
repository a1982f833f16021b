// port_tty.cpp - ports over the tty layer: plain ttys and USB serial adapters.
#include "comm/port_backend.h"
#include "comm/port_map.h"
#include "frame/log.h"

namespace qel::comm {

namespace {

ComObjDesc describe(const ComMapItem &item) {
    const uint32_t rs485 = has_direction_line(item) ? 1 : 0;
    return {.port = item.port, .rs485 = rs485, .halfDuplex = rs485};
}

// The result of the layer's create tells only whether the object is new: it is the handle that counts.
int create(QEL_ComManagePriv &priv, const ComMapItem &item) {
    const ComObjDesc desc = describe(item);
    if (desc.rs485 == 1)
        QEL_INFO(" QEL_COM_RS485 QEL_COM_SEMI_DUPLEX  \n");
    else
        QEL_INFO(" QEL_COM_RS232 QEL_COM_FULL_DUPLEX  \n");
    QEL_comCreate(&priv.com, &desc);
    return priv.com != nullptr ? 0 : OSA_EFAIL;
}

void destroy(QEL_ComManagePriv &priv) { QEL_comDelete(priv.com); }

int open(QEL_ComManagePriv &priv) { return QEL_comOpen(priv.com); }

int open_usb(QEL_ComManagePriv &priv) { return QEL_comOpen_usb(priv.com); }

int close(QEL_ComManagePriv &priv) { return QEL_comClose(priv.com); }

int set_attribute(QEL_ComManagePriv &priv, const ComAttribute *attribute) {
    return QEL_comSetAttribute(priv.com, attribute);
}

int read(QEL_ComManagePriv &priv, void *buffer, uint32_t bytes) {
    ComIoParam request{buffer, bytes, kPortReadTimeout_ms};
    return read_result(QEL_comRead(priv.com, &request), request);
}

int write(QEL_ComManagePriv &priv, const void *buffer, uint32_t bytes) {
    ComIoParam request{const_cast<void *>(buffer), bytes, kPortWriteTimeout_ms};
    return write_result(QEL_comWrite(priv.com, &request), request);
}

int purge(QEL_ComManagePriv &priv, uint32_t flag) { return QEL_comPurge(priv.com, flag); }

int set_type(QEL_ComManagePriv &priv, int rs485) {
    QEL_INFO("com port%d change to %s \n", priv.port, rs485 != 0 ? "RS485" : "RS232");
    return QEL_setComType(priv.com, static_cast<uint32_t>(priv.port), rs485 != 0 ? 0 : 1);
}

}  // namespace

const PortBackend kTtyPort = {create, destroy, open, close, set_attribute, read, write, purge, set_type};
const PortBackend kUsbPort = {create, destroy, open_usb, close, set_attribute, read, write, purge, set_type};

}  // namespace qel::comm
