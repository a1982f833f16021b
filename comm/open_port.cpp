#include "comm/open_port.h"

namespace qel::comm {

CommPort *open_port(uint32_t number, uint32_t baud) {
    const CommPortDesc description{number};
    CommPort *port = nullptr;
    if (createCommPort(&description, &port) != 0) return nullptr;
    const ComAttribute line = {.baud = baud,
                               .dataBits = 8,
                               .parity = QEL_COM_PARITY_NONE,
                               .stopBits = QEL_COM_ONE_STOP_BIT,
                               .flowControl = 0};
    if (port->open(port) == 0) {
        if (port->setAttribute(port, &line) == 0) return port;
        port->close(port);
    }
    port->release(port);
    return nullptr;
}

}  // namespace qel::comm
