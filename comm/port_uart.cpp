// port_uart.cpp - ports over the driver-UART layer.
#include "comm/port_backend.h"
#include "comm/port_map.h"
#include "frame/log.h"

namespace qel::comm {

namespace {

// As with ttys it is the handle that counts.
int create(QEL_ComManagePriv &priv, const ComMapItem &item) {
    const uint32_t rs485 = has_direction_line(item) ? 1 : 0;
    const ComObjDesc desc{.port = item.port, .rs485 = rs485, .halfDuplex = rs485};
    QEL_uartCreate(&priv.uart, &desc);
    return priv.uart != nullptr ? 0 : OSA_EFAIL;
}

void destroy(QEL_ComManagePriv &priv) { QEL_uartDelete(priv.uart); }

int open(QEL_ComManagePriv &priv) {
    if (priv.port == static_cast<int32_t>(QEL_COM_NULL_PORT)) {
        QEL_ERROR_AS("COMM_openForUart", "COMM_openForUart err\n");
        return 0;
    }
    return QEL_uartOpen(priv.uart);
}

int close(QEL_ComManagePriv &priv) { return QEL_uartClose(priv.uart); }

int set_attribute(QEL_ComManagePriv &priv, const ComAttribute *attribute) {
    return QEL_uartSetAttribute(priv.uart, attribute);
}

int read(QEL_ComManagePriv &priv, void *buffer, uint32_t bytes) {
    ComIoParam request{buffer, bytes, kPortReadTimeout_ms};
    return read_result(QEL_uartRead(priv.uart, &request), request);
}

int write(QEL_ComManagePriv &priv, const void *buffer, uint32_t bytes) {
    ComIoParam request{const_cast<void *>(buffer), bytes, kPortWriteTimeout_ms};
    return write_result(QEL_uartWrite(priv.uart, &request), request);
}

int purge(QEL_ComManagePriv &priv, uint32_t flag) { return QEL_uartPurge(priv.uart, flag); }

}  // namespace

const PortBackend kUartPort = {create, destroy, open, close, set_attribute, read, write, purge, nullptr};

}  // namespace qel::comm
