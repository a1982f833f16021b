// adapter_handlers.cpp - forwarding: the table of the modules' handlers.
#include <atomic>

#include "frame/adapter.h"
#include "frame/log.h"

namespace qel::adapter {

namespace {

struct Entry {
    std::atomic<AdapterProc> handler{nullptr};
    // Calls under way. A user announces itself here before it looks at `handler`, and whoever detaches
    // clears `handler` before it looks here: one of the two sees the other.
    std::atomic<unsigned> users{0};
};

Entry handlers[QEL_MODULE_IDS];

}  // namespace

HandlerUse::HandlerUse(uint32_t id) : id_(id) {
    if (id_ >= QEL_MODULE_IDS) return;
    handlers[id_].users.fetch_add(1);
    handler_ = handlers[id_].handler.load();
}

HandlerUse::~HandlerUse() {
    if (id_ < QEL_MODULE_IDS) handlers[id_].users.fetch_sub(1);
}

}  // namespace qel::adapter

using namespace qel::adapter;

extern "C" {

int QEL_adapterSlaveAttachProc(AdapterProc handler, unsigned id) {
    if (handler == nullptr || id >= QEL_MODULE_IDS) return OSA_EFAIL;
    handlers[id].handler = handler;
    QEL_INFO("QEL adapter Attach Proc[%d] OK !\r\n", static_cast<int>(id));
    return 0;
}

int QEL_adapterSlaveDetachProc(unsigned id) {
    if (id >= QEL_MODULE_IDS) return OSA_EFAIL;
    Entry &entry = handlers[id];
    if (entry.handler.exchange(nullptr) == nullptr) return 0;
    while (entry.users.load() != 0) OSA_sleepMs(1);
    return 0;
}

}  // extern "C"
