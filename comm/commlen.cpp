// commlen.cpp - the length-framed link: one port, one receive thread, and readers that wait for the
// reply to a command code.
#include <algorithm>
#include <array>
#include <utility>

#include "comm/commlen_frame.h"
#include "comm/commlen_waiters.h"
#include "comm/open_port.h"
#include "comm/port_map.h"
#include "frame/log.h"
#include "frame/mutex.h"
#include "product/product_data.h"
#include "qel/comm.h"

struct CommLen {
    uint32_t magic = 0;
    qel::Mutex writing;  // one frame at a time; guards the sequence numbers and the port's creation
    qel::commlen::SequenceNumbers numbers;
    CommPort *port = nullptr;  // set before `opened` is posted, then constant
    qel::commlen::Waiters waiters;
    qel::Mutex reading;              // held by the receive thread while it is in the port
    bool lent = false;               // of `reading`: somebody else has had the port since the last read
    QEL_SemLock gate = nullptr;      // 1: the receive thread may read
    OSA_SemHandle opened = nullptr;  // posted once there is a port
    OSA_ThrHandle thread = nullptr;
};

namespace qel::commlen {

namespace {

constexpr size_t kReadBytes = 128;
constexpr unsigned kGateClosed_ms = 10;  // between two looks at the gate
constexpr unsigned kPortFailed_ms = 100;

static_assert(kMaxPayloadBytes == QEL_COMMLEN_PAYLOAD_MAX);

// The chain starts it before constructors of this source would run.
constinit CommLen g_link;

bool is_link(const CommLen *link, const void *message, const char *function) {
    if (link == nullptr || message == nullptr) {
        QEL_ERROR_AS(function, "comLenHandle=%p,commLenMsg=%p\n", static_cast<const void *>(link), message);
        return false;
    }
    if (link->magic == QEL_COMMLEN_MAGIC) return true;
    QEL_ERROR_AS(function, "magicNum is error\n");
    return false;
}

// ---- the port ----

CommPort *find_port(const char *function) {
    const product::LinkLine line = product::link_line();
    const ComMapItem *item = comm::find_present_item_for(line.usage);
    if (item != nullptr) return comm::open_port(item->port, line.baud);
    QEL_WARN_AS(function, "can not find commlen cfg\n");
    return nullptr;
}

// ---- the receive thread ----

enum class Received { kInTurn, kGateClosed, kFailed };

Received receive(CommLen &link, Parser &parser) {
    std::array<uint8_t, kReadBytes> bytes;
    int got = 0;
    {
        const MutexLock lock(link.reading);
        unsigned gate = 0;
        if (QEL_semLockGetValue(link.gate, &gate) != 0 || gate != 1) return Received::kGateClosed;
        if (std::exchange(link.lent, false)) parser = {};  // what had come of a frame has no end any more
        got = link.port->read(link.port, bytes.data(), bytes.size());
    }
    if (got < 0) return Received::kFailed;
    const auto deliver = [&](const Frame &frame) { link.waiters.deliver(frame); };
    const size_t count = std::min(static_cast<size_t>(got), bytes.size());
    if (count > 0)
        parser.feed({bytes.data(), count}, deliver);
    else
        parser.note_silence(deliver);  // for as long as a read waits
    return Received::kInTurn;
}

void *receive_frames(void *argument) {
    CommLen &link = *static_cast<CommLen *>(argument);
    if (OSA_semPend(link.opened, OSA_WAIT_FOREVER) != 0) return nullptr;
    Parser parser;
    while (OSA_thrStopping() == 0) {
        switch (receive(link, parser)) {
            case Received::kInTurn:
                break;
            case Received::kGateClosed:
                OSA_sleepMs(kGateClosed_ms);
                break;
            case Received::kFailed:
                OSA_sleepMs(kPortFailed_ms);
                break;
        }
    }
    return nullptr;
}

// ---- sending and waiting ----

// `waiter`: who wants the reply, nullptr for whoever joins next.
int send(CommLen &link, const CommLenMsg &message, const char *function, Waiter *waiter) {
    if (message.length > kMaxPayloadBytes) {
        QEL_ERROR_AS(function, "length %u is more than %zu\n", message.length, kMaxPayloadBytes);
        return OSA_EFAIL;
    }
    std::array<uint8_t, kMaxFrameBytes> frame;
    const uint8_t awaited = waiter != nullptr ? waiter->reply.command : message.command;
    const MutexLock lock(link.writing);
    const uint8_t number = link.numbers.next();
    link.waiters.note_request(awaited, number, waiter);
    const size_t bytes = build({number, message.command, {message.payload, message.length}}, frame);
    const int written = link.port->write(link.port, frame.data(), static_cast<uint32_t>(bytes));
    if (written == static_cast<int>(bytes)) return 0;
    link.waiters.give_up_request(awaited, number);
    QEL_ERROR_AS(function, "wrote %d of %zu bytes\n", written, bytes);
    return OSA_EFAIL;
}

int join(CommLen &link, uint8_t command, Waiter &waiter, const char *function) {
    if (link.waiters.join(command, waiter)) return 0;
    QEL_ERROR_AS(function, "more than %d command codes are waited for\n", QEL_COMMLEN_CODES_MAX);
    return OSA_EFAIL;
}

int wait(CommLen &link, Waiter &waiter, CommLenMsg *message, const char *function) {
    if (link.waiters.wait(waiter, QEL_COMMLEN_TIMEOUT_MS)) {
        message->command = waiter.reply.command;
        message->length = waiter.reply.length;
        std::copy_n(waiter.reply.payload, waiter.reply.length, message->payload);
        return 0;
    }
    QEL_WARN_AS(function, "Fail to OSA_semPend %d, wait comandCode:0x%x!\n", OSA_EFAIL, waiter.reply.command);
    return OSA_EFAIL;
}

// ---- start and end ----

int create_locks(CommLen &link, const char *function) {
    if (link.writing.create() != 0 || link.reading.create() != 0 || OSA_semCreate(&link.opened, 1, 0) != 0) {
        QEL_ERROR_AS(function, "no memory for the link\n");
        return OSA_EFAIL;
    }
    if (QEL_semLockCreate(&link.gate, 1) != 0) {
        QEL_ERROR_AS(function, "CommLen_CreatSemLock fail\n");
        QEL_WARN_AS(function, "CommLen_CreatSemLock fail\n");
        return OSA_EFAIL;
    }
    return link.waiters.create(function);
}

int delete_locks(CommLen &link, const char *function) {
    int status = 0;
    if (link.gate != nullptr && QEL_semLockDelete(&link.gate) != 0) {
        QEL_ERROR_AS(function, "CommLen_DeleteSemLock fail\n");
        status = OSA_EFAIL;
    }
    if (link.opened != nullptr) OSA_semDelete(&link.opened);
    const int failed = link.waiters.destroy() | link.reading.destroy() | link.writing.destroy();
    if (failed != 0) {
        QEL_WARN_AS(function, "OSA_mutexDelete fail\n");
        status = OSA_EFAIL;
    }
    return status;
}

}  // namespace

}  // namespace qel::commlen

using namespace qel;
using namespace qel::commlen;

extern "C" {

int QEL_commlenInit(void) {
    if (create_locks(g_link, __func__) != 0) {
        delete_locks(g_link, __func__);
        return OSA_EFAIL;
    }
    g_link.numbers = {};
    g_link.magic = QEL_COMMLEN_MAGIC;
    if (OSA_thrCreateEx(&g_link.thread, receive_frames, OSA_thrGetMinPri(), 0, &g_link,
                        "qel_lenRecvData_thr") == 0)
        return 0;
    QEL_ERROR("Fail to create CommLen_Handle!\n");
    g_link.magic = 0;
    delete_locks(g_link, __func__);
    return OSA_EFAIL;
}

int QEL_commlenDeinit(void) {
    if (g_link.magic != QEL_COMMLEN_MAGIC) return 0;
    g_link.magic = 0;
    int status = 0;
    if (OSA_thrDelete(&g_link.thread) != 0) {
        QEL_WARN("DeleteReadDataThread fail\n");
        status = OSA_EFAIL;
    }
    if (g_link.port != nullptr) {
        g_link.port->close(g_link.port);
        g_link.port->release(g_link.port);
        g_link.port = nullptr;
    }
    return delete_locks(g_link, __func__) == 0 ? status : OSA_EFAIL;
}

int QEL_commlenCreate(CommLen **out) {
    if (out == nullptr) {
        QEL_ERROR("out is NULL\n");
        return OSA_EFAIL;
    }
    *out = nullptr;
    if (!is_link(&g_link, out, __func__)) return OSA_EFAIL;
    const MutexLock lock(g_link.writing);
    if (g_link.port == nullptr) {
        g_link.port = find_port(__func__);
        if (g_link.port == nullptr) return OSA_EFAIL;
        OSA_semPost(g_link.opened);
    }
    *out = &g_link;
    return 0;
}

int QEL_commlenWrite(CommLen *link, const CommLenMsg *message) {
    return is_link(link, message, __func__) ? send(*link, *message, __func__, nullptr) : OSA_EFAIL;
}

int QEL_commlenRead(CommLen *link, CommLenMsg *message) {
    Waiter waiter;
    if (!is_link(link, message, __func__) || join(*link, message->command, waiter, __func__) != 0)
        return OSA_EFAIL;
    return wait(*link, waiter, message, __func__);
}

int QEL_commlenExchange(CommLen *link, const CommLenMsg *request, CommLenMsg *reply) {
    Waiter waiter;
    if (!is_link(link, request, __func__) || !is_link(link, reply, __func__)) return OSA_EFAIL;
    if (join(*link, reply->command, waiter, __func__) != 0) return OSA_EFAIL;
    if (send(*link, *request, __func__, &waiter) == 0) return wait(*link, waiter, reply, __func__);
    link->waiters.leave(waiter);
    return OSA_EFAIL;
}

int QEL_commlenSemLock(CommLen *link) {
    if (!is_link(link, link, __func__)) return OSA_EFAIL;
    if (link->gate == nullptr) {
        QEL_WARN("lock is null\n");
        return OSA_EFAIL;
    }
    if (QEL_semLockLock(link->gate) != 0) {
        QEL_WARN("lock fail\n");
        return OSA_EFAIL;
    }
    // The receive thread looks at the gate before every read: once it has left this one it stays out.
    const MutexLock lock(link->reading);
    link->lent = true;
    return 0;
}

int QEL_commlenSemUnlock(CommLen *link) {
    if (!is_link(link, link, __func__)) return OSA_EFAIL;
    if (link->gate == nullptr) {
        QEL_WARN("lock is null\n");
        return OSA_EFAIL;
    }
    if (QEL_semLockUnlock(link->gate) == 0) return 0;
    QEL_WARN("lock fail\n");
    return OSA_EFAIL;
}

}  // extern "C"
