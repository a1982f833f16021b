// port_backend.h - what carries a serial port: one table of operations per kind of port. The port object
// (port.cpp) checks its arguments, counts references and opens, and leaves the rest to these.
#pragma once

#include <cstdint>

#include "qel/serial.h"

namespace qel::comm {

struct PortBackend;

// A port object's private record. Backends keep what they made in the field that is theirs.
struct QEL_ComManagePriv {
    ScmHandle scm;  // also of the SPI-attached line
    ComHandle com;
    int32_t references;
    UartHandle uart;
    int32_t port;  // -1 until set
    const PortBackend *backend;
    int32_t opens;     // of this object, not yet undone by a close
    uint32_t channel;  // inside the microcontroller link
    uint32_t gps;      // the same, of the channel that only reads
};
static_assert(sizeof(void *) != 4 || sizeof(QEL_ComManagePriv) == 36);

// 0 or -1 with a line in the log; read and write as the slots of CommPort. Buffers, lengths and records are
// the backend's to check.
struct PortBackend {
    int (*create)(QEL_ComManagePriv &priv, const ComMapItem &item);
    void (*destroy)(QEL_ComManagePriv &priv);
    int (*open)(QEL_ComManagePriv &priv);
    int (*close)(QEL_ComManagePriv &priv);
    int (*set_attribute)(QEL_ComManagePriv &priv, const ComAttribute *attribute);
    int (*read)(QEL_ComManagePriv &priv, void *buffer, uint32_t bytes);
    int (*write)(QEL_ComManagePriv &priv, const void *buffer, uint32_t bytes);
    int (*purge)(QEL_ComManagePriv &priv, uint32_t flag);
    int (*set_type)(QEL_ComManagePriv &priv, int rs485);  // nullptr: the slot stays empty
};

constexpr int32_t kPortReadTimeout_ms = 500;
constexpr int32_t kPortWriteTimeout_ms = 2000;

// For what carries a port without a descriptor of its own. True, with a line in the log under `function`: the
// object has nothing open, or the request has no buffer or length.
bool is_closed(const char *function, QEL_ComManagePriv &priv);
bool is_unfit(const char *function, QEL_ComManagePriv &priv, const void *buffer, uint32_t bytes);

// What the read and write slots return for a request that a device layer has ended with `status`.
int read_result(int status, const ComIoParam &request);
int write_result(int status, const ComIoParam &request);

extern const PortBackend kTtyPort;      // port_tty.cpp
extern const PortBackend kUsbPort;      // port_tty.cpp
extern const PortBackend kUartPort;     // port_uart.cpp
extern const PortBackend kScmPort;      // port_scm.cpp
extern const PortBackend kSpiPtzPort;   // port_scm.cpp
extern const PortBackend kChannelPort;  // port_channel.cpp
extern const PortBackend kMcuPort;      // mcu_port.cpp: kinds 4 and 5

}  // namespace qel::comm
