// port.cpp - port objects: what the port map says of a number decides what carries it; the operations
// check, count and hand on.
#include <atomic>

#include "comm/port_backend.h"
#include "comm/port_map.h"
#include "comm/port_rules.h"
#include "frame/log.h"
#include "qel/serial_driver.h"

namespace qel::comm {

namespace {

constexpr size_t kPortBytes = 512;
constexpr size_t kPortAlign = 16;
static_assert(sizeof(CommPort) <= kPortBytes);

QEL_ComManagePriv *private_of(const char *function, CommPort *thiz) {
    auto *priv = thiz != nullptr ? static_cast<QEL_ComManagePriv *>(thiz->priv) : nullptr;
    if (priv == nullptr) QEL_ERROR_AS(function, "Para: thiz or thiz->priv is NULL!\n");
    return priv;
}

// The null port has nothing that carries it.
bool is_null_port(const QEL_ComManagePriv &priv) { return priv.backend == nullptr; }

// Runs an operation of what carries the port; `null_result` where nothing does.
template <typename Operation>
int run(const char *function, CommPort *thiz, Operation operation) {
    QEL_ComManagePriv *priv = private_of(function, thiz);
    if (priv == nullptr) return OSA_EFAIL;
    return is_null_port(*priv) ? 0 : operation(*priv);
}

// False: it is not above zero.
bool take_one(int32_t &count, int32_t *left) {
    std::atomic_ref counted(count);
    int32_t now = counted.load();
    do {
        if (now < 1) return false;
    } while (!counted.compare_exchange_weak(now, now - 1));
    *left = now - 1;
    return true;
}

void log_closed(const char *function, const QEL_ComManagePriv &priv) {
    QEL_ERROR_AS(function, "port%d is not open\n", priv.port);
}

void free_port(CommPort *port) {
    OSA_memFree(port->priv);
    OSA_memAlignFree(port);
}

// ---- the operations ----

int add_ref(CommPort *thiz) {
    QEL_ComManagePriv *priv = private_of("COMM_addref", thiz);
    if (priv == nullptr) return OSA_EFAIL;
    std::atomic_ref(priv->references).fetch_add(1);
    return 0;
}

int release(CommPort *thiz) {
    QEL_ComManagePriv *priv = private_of("COMM_release", thiz);
    if (priv == nullptr) return OSA_EFAIL;
    int32_t left = 0;
    if (!take_one(priv->references, &left) || left > 0) return 0;
    if (!is_null_port(*priv)) {
        while (take_one(priv->opens, &left)) priv->backend->close(*priv);
        priv->backend->destroy(*priv);
    }
    free_port(thiz);
    return 0;
}

int open(CommPort *thiz) {
    return run("COMM_open", thiz, [](QEL_ComManagePriv &priv) {
        if (priv.backend->open(priv) != 0) return OSA_EFAIL;
        std::atomic_ref(priv.opens).fetch_add(1);
        return 0;
    });
}

// A UART's own: with the null port's record it has nothing to open, and says so.
int open_uart(CommPort *thiz) {
    constexpr const char *kFunction = "COMM_openForUart";
    const QEL_ComManagePriv *priv = private_of(kFunction, thiz);
    if (priv == nullptr) return OSA_EFAIL;
    if (!is_null_port(*priv)) return open(thiz);
    QEL_ERROR_AS(kFunction, "COMM_openForUart err\n");
    return 0;
}

int close(CommPort *thiz) {
    return run("COMM_close", thiz, [](QEL_ComManagePriv &priv) {
        int32_t left = 0;
        if (take_one(priv.opens, &left)) return priv.backend->close(priv);
        log_closed("COMM_close", priv);
        return OSA_EFAIL;
    });
}

int get_caps(CommPort *thiz, ComCaps *caps) {
    constexpr const char *kFunction = "COMM_getcaps";
    const auto *priv = thiz != nullptr ? static_cast<const QEL_ComManagePriv *>(thiz->priv) : nullptr;
    if (priv == nullptr || caps == nullptr) {
        QEL_ERROR_AS(kFunction, "Para: thiz, caps or thiz->priv is NULL!\n");
        return OSA_EFAIL;
    }
    if (is_null_port(*priv)) return 0;
    const ComMapItem *item = find_item(static_cast<uint32_t>(priv->port));
    if (item == nullptr) {
        QEL_ERROR_AS(kFunction, "port invalid: %d \n", priv->port);
        return OSA_EFAIL;
    }
    *caps = caps_of(*item, product::fixed_line_of(item->port));
    return 0;
}

int set_attribute(CommPort *thiz, const ComAttribute *attribute) {
    return run("COMM_setAttribute", thiz,
               [=](QEL_ComManagePriv &priv) { return priv.backend->set_attribute(priv, attribute); });
}

int read(CommPort *thiz, void *buffer, uint32_t bytes) {
    return run("COMM_read", thiz,
               [=](QEL_ComManagePriv &priv) { return priv.backend->read(priv, buffer, bytes); });
}

int write(CommPort *thiz, const void *buffer, uint32_t bytes) {
    return run("COMM_write", thiz,
               [=](QEL_ComManagePriv &priv) { return priv.backend->write(priv, buffer, bytes); });
}

int purge(CommPort *thiz, uint32_t flag) {
    return run("COMM_purge", thiz, [=](QEL_ComManagePriv &priv) { return priv.backend->purge(priv, flag); });
}

int set_type(CommPort *thiz, int rs485) {
    return run("COMM_setComType", thiz,
               [=](QEL_ComManagePriv &priv) { return priv.backend->set_type(priv, rs485); });
}

// ---- creation ----

constexpr uint32_t kAnyUsage = 0xFFFFFFFF;

// How the log tells what a port is registered as.
enum class Telling { kNot, kWarning, kWarningWithPort, kWithPort };

struct KindRule {
    uint32_t kind;
    uint32_t usage;
    const PortBackend &backend;
    Telling telling;
    const char *text;
};

// The first rule that fits; where none does the port is a plain tty. The spelling is the log's.
const KindRule kKindRules[] = {
    {QEL_COM_KIND_SCM, kAnyUsage, kScmPort, Telling::kWarning, "rigister scm"},
    {QEL_COM_KIND_SPI_PTZ, 1, kSpiPtzPort, Telling::kWarning, "register spiPTZcom"},
    {QEL_COM_KIND_SPI_PTZ, 30, kSpiPtzPort, Telling::kWarning, "register spiPTZcom"},
    {QEL_COM_KIND_UART, kAnyUsage, kUartPort, Telling::kWarningWithPort, "register uart"},
    {QEL_COM_KIND_MCU, kAnyUsage, kMcuPort, Telling::kWithPort, "register mcu"},
    {QEL_COM_KIND_MCU_SECOND, kAnyUsage, kMcuPort, Telling::kWithPort, "register mcu"},
    {QEL_COM_KIND_VIRTUAL, QEL_MCU_CHANNEL_PTZ, kChannelPort, Telling::kWithPort, "register PTZ"},
    {QEL_COM_KIND_VIRTUAL, QEL_MCU_CHANNEL_GPS, kChannelPort, Telling::kWithPort, "register Gps data"},
    {QEL_COM_KIND_VIRTUAL, QEL_MCU_CHANNEL_PTZ_LOG, kChannelPort, Telling::kWithPort,
     "register COM_IS_PTZ_LOG"},
    {QEL_COM_KIND_VIRTUAL, QEL_MCU_CHANNEL_PTZ_FUNCTION, kChannelPort, Telling::kWithPort,
     "register COM_IS_PTZ_PERIPHERAL_FUNC"},
    {QEL_COM_KIND_USB, 4, kUsbPort, Telling::kNot, ""},
    {QEL_COM_KIND_USB, 20, kUsbPort, Telling::kNot, ""},
};
const KindRule kPlainRule = {0, kAnyUsage, kTtyPort, Telling::kWithPort, "register com"};

const KindRule &rule_of(const ComMapItem &item) {
    for (const KindRule &rule : kKindRules) {
        if (rule.kind == item.kind && (rule.usage == kAnyUsage || rule.usage == item.usage)) return rule;
    }
    return kPlainRule;
}

void tell(const char *function, const KindRule &rule, uint32_t port) {
    switch (rule.telling) {
        case Telling::kNot:
            break;
        case Telling::kWarning:
            QEL_WARN_AS(function, "%s\n", rule.text);
            break;
        case Telling::kWarningWithPort:
            QEL_WARN_AS(function, "port%d %s\n", static_cast<int>(port), rule.text);
            break;
        case Telling::kWithPort:
            QEL_INFO("port%d %s\n", static_cast<int>(port), rule.text);
            break;
    }
}

void fill_operations(CommPort &port, const PortBackend *backend) {
    port.addref = add_ref;
    port.release = release;
    port.open = backend == &kUartPort ? open_uart : open;
    port.close = close;
    port.getcaps = get_caps;
    port.setAttribute = set_attribute;
    port.read = read;
    port.write = write;
    port.purge = purge;
    if (backend == nullptr || backend->set_type != nullptr) port.setComType = set_type;
}

CommPort *allocate(const char *function) {
    auto *port = static_cast<CommPort *>(OSA_memUCallocAlign(kPortBytes, kPortAlign));
    if (port == nullptr) {
        QEL_ERROR_AS(function, "malloc(sizeof(CommPort))\n");
        return nullptr;
    }
    auto *priv = static_cast<QEL_ComManagePriv *>(OSA_memCalloc(sizeof(QEL_ComManagePriv)));
    if (priv == nullptr) {
        QEL_ERROR_AS(function, "malloc(sizeof(QEL_ComManagePriv))\n");
        OSA_memAlignFree(port);
        return nullptr;
    }
    priv->port = -1;
    priv->references = 1;
    port->priv = priv;
    return port;
}

// What is to carry the port, made; the null port stays without.
int carry(const char *function, QEL_ComManagePriv &priv, uint32_t number) {
    if (number == QEL_COM_NULL_PORT) return 0;
    const ComMapItem *item = find_present_item(number);
    if (item == nullptr) {
        QEL_ERROR_AS(function, "port invalid: %d \n", static_cast<int>(number));
        return OSA_EFAIL;
    }
    const KindRule &rule = rule_of(*item);
    tell(function, rule, number);
    if (rule.backend.create(priv, *item) != 0) return OSA_EFAIL;
    priv.backend = &rule.backend;
    return 0;
}

}  // namespace

bool is_closed(const char *function, QEL_ComManagePriv &priv) {
    if (std::atomic_ref(priv.opens).load() > 0) return false;
    log_closed(function, priv);
    return true;
}

bool is_unfit(const char *function, QEL_ComManagePriv &priv, const void *buffer, uint32_t bytes) {
    if (is_closed(function, priv)) return true;
    if (buffer != nullptr && static_cast<int32_t>(bytes) > 0) return false;
    QEL_ERROR_AS(function, "para invalid buf=%p len=%d\n", buffer, static_cast<int>(bytes));
    return true;
}

int read_result(int status, const ComIoParam &request) {
    if (status == QEL_ETIMEOUT) return 0;
    return status == 0 ? static_cast<int>(request.length) : OSA_EFAIL;
}

int write_result(int status, const ComIoParam &request) {
    if (status == 0) return static_cast<int>(request.length);
    if (status != QEL_ETIMEOUT) QEL_ERROR_AS("COMM_write", " comm_write enter \n");
    return OSA_EFAIL;
}

}  // namespace qel::comm

using namespace qel::comm;

extern "C" int createCommPort(const CommPortDesc *desc, CommPort **out) {
    if (desc == nullptr || out == nullptr) {
        QEL_ERROR("Para: desc or commPort is NULL!\n");
        return OSA_EFAIL;
    }
    *out = nullptr;
    CommPort *port = allocate(__func__);
    if (port == nullptr) return OSA_EFAIL;
    auto *priv = static_cast<QEL_ComManagePriv *>(port->priv);
    if (carry(__func__, *priv, desc->port) != 0) {
        free_port(port);
        return OSA_EFAIL;
    }
    fill_operations(*port, priv->backend);
    priv->port = static_cast<int32_t>(desc->port);
    *out = port;
    return 0;
}
