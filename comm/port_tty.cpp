// port_tty.cpp - ports over the tty layer: plain ttys and USB serial adapters.
#include "comm/port_layer.h"
#include "comm/port_rules.h"
#include "frame/log.h"

namespace qel::comm {

namespace {

constexpr Layer<ComHandle> kTtyLayer = {
    .handle = &QEL_ComManagePriv::com,
    .remove = QEL_comDelete,
    .open = QEL_comOpen,
    .close = QEL_comClose,
    .set_attribute = QEL_comSetAttribute,
    .read = QEL_comRead,
    .write = QEL_comWrite,
    .purge = QEL_comPurge,
};

constexpr Layer<ComHandle> usb_layer() {
    Layer<ComHandle> layer = kTtyLayer;
    layer.open = QEL_comOpen_usb;
    return layer;
}
constexpr Layer<ComHandle> kUsbLayer = usb_layer();

// The result of the layer's create tells only whether the object is new: it is the handle that counts.
int create(QEL_ComManagePriv &priv, const ComMapItem &item) {
    const ComObjDesc desc = object_of(item);
    if (desc.rs485 == 1)
        QEL_INFO(" QEL_COM_RS485 QEL_COM_SEMI_DUPLEX  \n");
    else
        QEL_INFO(" QEL_COM_RS232 QEL_COM_FULL_DUPLEX  \n");
    QEL_comCreate(&priv.com, &desc);
    return priv.com != nullptr ? 0 : OSA_EFAIL;
}

int set_type(QEL_ComManagePriv &priv, int rs485) {
    QEL_INFO("com port%d change to %s \n", priv.port, rs485 != 0 ? "RS485" : "RS232");
    return QEL_setComType(priv.com, static_cast<uint32_t>(priv.port), rs485 != 0 ? 0 : 1);
}

}  // namespace

constinit const PortBackend kTtyPort = backend_over<kTtyLayer>(create, set_type);
constinit const PortBackend kUsbPort = backend_over<kUsbLayer>(create, set_type);

}  // namespace qel::comm
