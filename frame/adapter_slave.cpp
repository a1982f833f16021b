// adapter_slave.cpp - forwarding on chips 1 and up: a receive thread that hands each request to the
// task of its sender, and those tasks, which run the modules' handlers and send the answers.
//
// So the requests of one thread of the master run in order, those of several at the same time.
#include <atomic>
#include <cstdint>
#include <cstdio>

#include "frame/adapter.h"
#include "frame/log.h"
#include "frame/mutex.h"
#include "qel/system.h"

namespace qel::adapter {

namespace {

constexpr unsigned kRecords = 64;  // requests taken in and not yet answered, at most
// Sending threads with a task of their own at one time. Threads of the master come and go, and only a
// request tells of them: the task that has been idle for longest makes room for a new one.
constexpr unsigned kMaxSenderTasks = 64;
constexpr unsigned kUnattachedPollMs = 100;
constexpr unsigned kReceiveRetryMs = 100;  // after a failure of the channel
constexpr int kTaskPriorityBelowMax = 9;
constexpr unsigned kTaskMessage = 1;

struct SenderTask {
    SenderTask *next;
    OSA_TskHandle task;
    OSA_SemHandle sem;
    uint32_t tid;
    unsigned pending;  // requests handed over and not finished
    uint64_t last_used;
};

struct State {
    uint32_t chip = 0;
    uintptr_t channel = 0;
    bool channel_open = false;
    std::atomic<bool> stopping{false};
    OSA_ThrHandle receiver = nullptr;
    OSA_QueHandle free_records = nullptr;
    XCC_BufInfo *records = nullptr;
    Mutex mutex;
    SenderTask *tasks QEL_GUARDED_BY(mutex) = nullptr;
    uint64_t requests QEL_GUARDED_BY(mutex) = 0;
};
constinit State state;

// ---- the senders' tasks: created, found and retired by the receive thread alone ----

void delete_task(SenderTask *sender) {
    if (sender->task != nullptr) OSA_tskDelete(&sender->task);
    if (sender->sem != nullptr) OSA_semDelete(&sender->sem);
    OSA_memFree(sender);
}

SenderTask *create_task(uint32_t tid) {
    constexpr const char *kFunction = "QEL_adapterGetTskInfo";
    auto *sender = static_cast<SenderTask *>(OSA_memCalloc(sizeof(SenderTask)));
    if (sender == nullptr) {
        QEL_ERROR_AS(kFunction, "malloc failed\n");
        return nullptr;
    }
    sender->tid = tid;
    if (OSA_semCreate(&sender->sem, kRecords, 0) != 0) {
        QEL_ERROR_AS(kFunction, "failed to create sem\n");
        delete_task(sender);
        return nullptr;
    }
    char name[32];
    snprintf(name, sizeof(name), "QEL_SlaveTid%d", static_cast<int>(tid));
    const int priority = OSA_thrGetMaxPri() - kTaskPriorityBelowMax;
    if (OSA_tskCreate(&sender->task, QEL_adapterSlaveTskRun, priority, 0, sender, name) != 0) {
        QEL_ERROR_AS(kFunction, "OSA_tskCreate is fail !!\n");
        delete_task(sender);
        return nullptr;
    }
    return sender;
}

SenderTask *find_task_locked(uint32_t tid) QEL_REQUIRES(state.mutex) {
    for (SenderTask *sender = state.tasks; sender != nullptr; sender = sender->next) {
        if (sender->tid == tid) return sender;
    }
    return nullptr;
}

// Takes the idle task that was used longest ago off a full list; nullptr while there is room, or
// where all are busy.
SenderTask *unlink_idle_locked() QEL_REQUIRES(state.mutex) {
    unsigned count = 0;
    SenderTask **oldest = nullptr;
    for (SenderTask **link = &state.tasks; *link != nullptr; link = &(*link)->next) {
        ++count;
        const bool idle = (*link)->pending == 0;
        if (idle && (oldest == nullptr || (*link)->last_used < (*oldest)->last_used)) oldest = link;
    }
    if (count < kMaxSenderTasks || oldest == nullptr) return nullptr;
    SenderTask *sender = *oldest;
    *oldest = sender->next;
    return sender;
}

void append_locked(SenderTask *sender) QEL_REQUIRES(state.mutex) {
    SenderTask **link = &state.tasks;
    while (*link != nullptr) link = &(*link)->next;
    *link = sender;
}

// The sender's task, with one more request pending; nullptr after a failure.
SenderTask *claim_task(uint32_t tid) {
    SenderTask *retired = nullptr;
    SenderTask *sender = nullptr;
    {
        const MutexLock lock(state.mutex);
        sender = find_task_locked(tid);
        if (sender == nullptr) {
            retired = unlink_idle_locked();
            sender = create_task(tid);
            if (sender != nullptr) append_locked(sender);
        }
        if (sender != nullptr) {
            ++sender->pending;
            sender->last_used = ++state.requests;
        }
    }
    if (retired != nullptr) delete_task(retired);
    return sender;
}

void finish_request(SenderTask *sender) {
    const MutexLock lock(state.mutex);
    --sender->pending;
}

// ---- the receive thread ----

void release(XCC_BufInfo *buffer) {
    if (XCC_release(state.channel, buffer) != 0 && !state.stopping)
        QEL_WARN_AS("QELAdapterThread", "XCC_release failed !\n");
}

// Hands the request to its sender's task; false: the caller still has the buffer.
bool hand_over(const XCC_BufInfo &buffer, uint32_t tid) {
    constexpr const char *kFunction = "QELAdapterThread";
    SenderTask *sender = claim_task(tid);
    if (sender == nullptr) {
        QEL_ERROR_AS(kFunction, "QEL_adapterGetTskInfo failed\n");
        return false;
    }
    void *record = nullptr;
    if (OSA_queGet(state.free_records, &record, 0) != 0) {
        QEL_ERROR_AS(kFunction, "queGet failed\n");
        finish_request(sender);
        return false;
    }
    *static_cast<XCC_BufInfo *>(record) = buffer;
    if (OSA_tskSendMsg(sender->task, kTaskMessage, record, 0) != 0) {
        QEL_ERROR_AS(kFunction, "QEL slave sendMsg failed\n");
        OSA_quePut(state.free_records, record, 0);
        finish_request(sender);
        return false;
    }
    OSA_semPost(sender->sem);
    return true;
}

// Whether the message is whole and for this chip.
bool accepts(const XCC_BufInfo &buffer) {
    constexpr const char *kFunction = "QELAdapterThread";
    const auto *msg = static_cast<const AdapterMsg *>(buffer.addr);
    if (buffer.length < QEL_ADAPTER_HEADER_BYTES) {
        QEL_ERROR_AS(kFunction, "length err:(%u)\r\n", buffer.length);
        return false;
    }
    QEL_adapterPrintBuffer("get:", msg, buffer.length);
    if (msg->chip != state.chip) {
        QEL_ERROR_AS(kFunction, "nChipId err:(%d)\r\n", static_cast<int>(msg->chip));
        return false;
    }
    if (!payload_fits(msg->length, buffer.length)) {
        QEL_ERROR_AS(kFunction, "length err:(%u) [%u]\r\n", msg->length, buffer.length);
        return false;
    }
    return true;
}

void *receive_requests(void *) {
    while (!state.stopping) {
        XCC_BufInfo buffer{};
        const int status = XCC_get(state.channel, &buffer, kForever);
        if (state.stopping) {
            if (status == 0) release(&buffer);
            break;
        }
        if (status != 0) {
            QEL_WARN_AS("QELAdapterThread", "XCC_get err:%d\n", status);
            OSA_sleepMs(kReceiveRetryMs);
            continue;
        }
        QEL_wdtFeed(QEL_WDT_FEED_BOTH);
        const bool taken =
            accepts(buffer) && hand_over(buffer, static_cast<const AdapterMsg *>(buffer.addr)->tid);
        if (!taken) release(&buffer);
    }
    return nullptr;
}

// ---- serving one request, on its sender's task ----

constexpr const char *kTaskFunction = "QEL_adapterSlaveTskRun";

enum class Served { kDone, kFailed, kNotAttached };

Served try_handler(AdapterMsg *msg, uint32_t module) {
    const HandlerUse use(module);
    if (use.get() == nullptr) return Served::kNotAttached;
    if (use.get()(msg) == 0) return Served::kDone;
    QEL_ERROR_AS(kTaskFunction, "Proc[%d]:%p err !\r\n", static_cast<int>(module),
                 reinterpret_cast<void *>(use.get()));
    return Served::kFailed;
}

// Waits for the module to attach, for ever; false when the library unloads first or the handler fails.
bool run_handler(AdapterMsg *msg) {
    const uint32_t module = msg->module;
    while (!state.stopping) {
        const Served served = try_handler(msg, module);
        if (served != Served::kNotAttached) return served == Served::kDone;
        QEL_WARN_AS(kTaskFunction, "Proc[%d] doesn't attach !\r\n", static_cast<int>(module));
        OSA_sleepMs(kUnattachedPollMs);
    }
    return false;
}

void serve(XCC_BufInfo *buffer) {
    auto *msg = static_cast<AdapterMsg *>(buffer->addr);
    if (!run_handler(msg) || msg->needReply != 1) {
        release(buffer);
        return;
    }
    msg->needReply = 0;
    msg->replied = 1;
    QEL_adapterPrintBuffer("put:", msg, buffer->length);
    const int status = XCC_put(state.channel, buffer, kForever);
    if (status != 0 && !state.stopping) QEL_ERROR_AS(kTaskFunction, "XCC_put err:%d\n", status);
}

// ---- start and stop ----

bool create_records() {
    constexpr const char *kFunction = "QEL_adapterSlaveInit";
    if (state.mutex.create() != 0) {
        QEL_WARN_AS(kFunction, "Failed to create mutex\n");
        return false;
    }
    if (OSA_queCreate(&state.free_records, kRecords) != 0) {
        QEL_WARN_AS(kFunction, "Failed to create que\n");
        return false;
    }
    state.records = static_cast<XCC_BufInfo *>(OSA_memCalloc(kRecords * sizeof(XCC_BufInfo)));
    if (state.records == nullptr) {
        QEL_WARN_AS(kFunction, "Failed to malloc XCC_BufInfo\n");
        return false;
    }
    for (unsigned i = 0; i < kRecords; ++i) {
        if (OSA_quePut(state.free_records, &state.records[i], 0) != 0) {
            QEL_WARN_AS(kFunction, "OSA_quePut failed\n");
            return false;
        }
    }
    return true;
}

// The receive thread is gone, so nobody adds to the list while it is taken apart.
void delete_tasks() {
    SenderTask *sender = nullptr;
    {
        const MutexLock lock(state.mutex);
        sender = state.tasks;
        state.tasks = nullptr;
    }
    while (sender != nullptr) {
        SenderTask *next = sender->next;
        delete_task(sender);
        sender = next;
    }
}

void tear_down() {
    state.stopping = true;
    if (state.channel_open && XCC_unBind(state.channel) != 0)
        QEL_WARN_AS("QEL_adapterSlaveDeInit", "XCC_unBind failed !\n");
    if (state.receiver != nullptr) OSA_thrDelete(&state.receiver);
    delete_tasks();
    if (state.channel_open) close_channel(state.channel);
    state.channel_open = false;
    if (state.free_records != nullptr) OSA_queDelete(&state.free_records);
    if (state.records != nullptr) OSA_memFree(state.records);
    state.records = nullptr;
    state.mutex.destroy();
}

}  // namespace

}  // namespace qel::adapter

using namespace qel;
using namespace qel::adapter;

extern "C" {

int QEL_openSlaveXcc(unsigned chip, unsigned count, uintptr_t *handle) {
    const Peer peer{.own_chip = chip,
                    .peer_chip = 0,
                    .chip_count = count,
                    .own_format = kSlaveToMaster,
                    .peer_format = kMasterToSlave,
                    .function = __func__};
    return open_channel(peer, handle);
}

int QEL_adapterSlaveInit(unsigned chip, unsigned count) {
    QEL_ASSERT(chip != 0 && count >= 2);
    state.chip = chip;
    state.stopping = false;
    if (!create_records()) {
        tear_down();
        return OSA_EFAIL;
    }
    state.channel_open = QEL_openSlaveXcc(chip, count, &state.channel) == 0;
    if (!state.channel_open) {
        QEL_WARN("QEL_openSlaveXcc err\n");
        tear_down();
        return OSA_EFAIL;
    }
    const int lowest = OSA_thrGetMinPri();
    const int priority = lowest + (OSA_thrGetMaxPri() - lowest) / 2;
    if (OSA_thrCreateEx(&state.receiver, receive_requests, priority, 0, nullptr, "QELAdapterThread") != 0) {
        QEL_ERROR("QEL_adapterSlaveInit create thread failed\n");
        tear_down();
        return OSA_EFAIL;
    }
    return 0;
}

int QEL_adapterSlaveDeInit(void) {
    if (state.receiver != nullptr) tear_down();
    return 0;
}

int QEL_adapterSlaveTskRun(OSA_TskHandle self, void *firstMsg, void *arg) {
    auto *sender = static_cast<SenderTask *>(arg);
    void *record = firstMsg;
    for (;;) {
        if (OSA_semPend(sender->sem, OSA_WAIT_FOREVER) != 0 && !state.stopping)
            QEL_ERROR("failed to get sem\n");
        serve(static_cast<XCC_BufInfo *>(record));
        if (OSA_quePut(state.free_records, record, 0) != 0) QEL_ERROR("qel_adapterSlave tsk quePut failed\n");
        finish_request(sender);
        unsigned command = OSA_TSK_CMD_EXIT;
        if (OSA_tskWaitMsg(self, &command, &record, OSA_WAIT_FOREVER) != 0) return OSA_EFAIL;
        if (command == OSA_TSK_CMD_EXIT) return 0;
    }
}

}  // extern "C"
