// task.cpp - a thread with a message box. The thread waits for the first message and hands it to the
// entry, which fetches the others itself.
#include <new>

#include "platform/osa/queue.h"
#include "platform/osa/thread.h"

namespace {

using qel::osa::Queue;
using qel::osa::Thread;
using qel::osa::Wait;

constexpr uint32_t kBoxMessages = 128;

struct Message {
    unsigned command;
    void *parameter;
};

}  // namespace

struct OSA_Task {
    OSA_Task(std::unique_ptr<Message[]> slots, OSA_TskEntry task_entry, void *arg, int priority,
             const char *name)
        : box(std::move(slots), kBoxMessages),
          entry(task_entry),
          argument(arg),
          thread(run, this, priority, name) {}

    static void *run(void *self);
    // 0, or -1 when the time is over. Once the task is to end and its box is empty: the exit command.
    int wait(Message *out, unsigned timeout_ms);

    Queue<Message> box;
    const OSA_TskEntry entry;
    void *const argument;
    Thread thread;
};

int OSA_Task::wait(Message *out, unsigned timeout_ms) {
    switch (box.get(out, timeout_ms)) {
        case Wait::kSignalled:
            return 0;
        case Wait::kStopped:
            *out = {OSA_TSK_CMD_EXIT, nullptr};
            return 0;
        case Wait::kTimeOver:
            break;
    }
    if (!thread.stopping()) return OSA_EFAIL;
    *out = {OSA_TSK_CMD_EXIT, nullptr};
    return 0;
}

void *OSA_Task::run(void *self) {
    auto *const task = static_cast<OSA_Task *>(self);
    Message first{};
    if (task->wait(&first, OSA_WAIT_FOREVER) != 0 || first.command == OSA_TSK_CMD_EXIT) return nullptr;
    task->entry(task, first.parameter, task->argument);
    return nullptr;
}

extern "C" {

int OSA_tskCreate(OSA_TskHandle *handle, OSA_TskEntry entry, int priority, unsigned stack, void *arg,
                  const char *name) {
    if (handle == nullptr || entry == nullptr) return OSA_EFAIL;
    *handle = nullptr;
    std::unique_ptr<Message[]> slots(new (std::nothrow) Message[kBoxMessages]);
    if (slots == nullptr) return OSA_EFAIL;
    auto *const task = new (std::nothrow) OSA_Task(std::move(slots), entry, arg, priority, name);
    if (task == nullptr) return OSA_EFAIL;
    if (task->thread.start(stack) != 0) {
        delete task;
        return OSA_EFAIL;
    }
    *handle = task;
    return 0;
}

int OSA_tskSendMsg(OSA_TskHandle to, unsigned cmd, void *prm, unsigned /*flags*/) {
    return to != nullptr && to->box.put({cmd, prm}, 0) ? 0 : OSA_EFAIL;
}

int OSA_tskWaitMsg(OSA_TskHandle self, unsigned *cmd, void **prm, unsigned timeoutMs) {
    if (self == nullptr) return OSA_EFAIL;
    Message message{};
    if (self->wait(&message, timeoutMs) != 0) return OSA_EFAIL;
    if (cmd != nullptr) *cmd = message.command;
    if (prm != nullptr) *prm = message.parameter;
    return 0;
}

int OSA_tskDelete(OSA_TskHandle *handle) {
    if (handle == nullptr || *handle == nullptr || (*handle)->thread.is_self()) return OSA_EFAIL;
    (*handle)->thread.stop_and_join();
    delete *handle;
    *handle = nullptr;
    return 0;
}

}  // extern "C"
