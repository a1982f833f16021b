// port_layer.h - ports that a device layer carries: the layer's calls, on the handle in the port's record.
#pragma once

#include "comm/port_backend.h"

namespace qel::comm {

template <typename Handle>
struct Layer {
    Handle QEL_ComManagePriv::*handle;
    int (*remove)(Handle);
    int (*open)(Handle);
    int (*close)(Handle);
    int (*set_attribute)(Handle, const ComAttribute *);
    int (*read)(Handle, ComIoParam *);
    int (*write)(Handle, ComIoParam *);
    int (*purge)(Handle, uint32_t);
};

// The operations of ports over a layer, all but those that differ within it.
template <const auto &kLayer>
constexpr PortBackend backend_over(int (*create)(QEL_ComManagePriv &, const ComMapItem &),
                                   int (*set_type)(QEL_ComManagePriv &, int) = nullptr) {
    return {
        .create = create,
        .destroy = [](QEL_ComManagePriv &priv) { kLayer.remove(priv.*kLayer.handle); },
        .open = [](QEL_ComManagePriv &priv) { return kLayer.open(priv.*kLayer.handle); },
        .close = [](QEL_ComManagePriv &priv) { return kLayer.close(priv.*kLayer.handle); },
        .set_attribute =
            [](QEL_ComManagePriv &priv, const ComAttribute *attribute) {
                return kLayer.set_attribute(priv.*kLayer.handle, attribute);
            },
        .read =
            [](QEL_ComManagePriv &priv, void *buffer, uint32_t bytes) {
                ComIoParam request{buffer, bytes, kPortReadTimeout_ms};
                return read_result(kLayer.read(priv.*kLayer.handle, &request), request);
            },
        .write =
            [](QEL_ComManagePriv &priv, const void *buffer, uint32_t bytes) {
                ComIoParam request{const_cast<void *>(buffer), bytes, kPortWriteTimeout_ms};
                return write_result(kLayer.write(priv.*kLayer.handle, &request), request);
            },
        .purge = [](QEL_ComManagePriv &priv,
                    uint32_t flag) { return kLayer.purge(priv.*kLayer.handle, flag); },
        .set_type = set_type,
    };
}

}  // namespace qel::comm
