// port_uart.cpp - ports over the driver-UART layer.
#include "comm/port_layer.h"
#include "comm/port_rules.h"
#include "frame/log.h"

namespace qel::comm {

namespace {

constexpr Layer<UartHandle> kUartLayer = {
    .handle = &QEL_ComManagePriv::uart,
    .remove = QEL_uartDelete,
    .open = QEL_uartOpen,
    .close = QEL_uartClose,
    .set_attribute = QEL_uartSetAttribute,
    .read = QEL_uartRead,
    .write = QEL_uartWrite,
    .purge = QEL_uartPurge,
};

// As with ttys it is the handle that counts.
int create(QEL_ComManagePriv &priv, const ComMapItem &item) {
    const ComObjDesc desc = object_of(item);
    QEL_uartCreate(&priv.uart, &desc);
    return priv.uart != nullptr ? 0 : OSA_EFAIL;
}

}  // namespace

constinit const PortBackend kUartPort = backend_over<kUartLayer>(create);

}  // namespace qel::comm
