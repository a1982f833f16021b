// master.cpp - the master's end: meets the slave by its name, and meets it again when it is back.
#include <poll.h>
#include <cstdio>
#include <cstring>

#include "platform/xcc/channel.h"
#include "platform/xcc/sender.h"
#include "platform/xcc/worker.h"

namespace qel::xcc {
namespace {

using platform::Lock;
using platform::Mutex;

// How often bind looks for a slave that is not there.
constexpr int64_t kRetryRealMs = 10;
// A slave answers the greeting at once, or is not one.
constexpr int64_t kGreetingRealMs = 1000;
// How long a put waits for a slave to come back: its library may be restarting this very moment.
constexpr int64_t kRebindRealMs = 200;

class MasterChannel final : public Channel {
public:
    explicit MasterChannel(const Identity &own) : own_(own) {}
    ~MasterChannel() override { unbind(); }

    int bind(const XCC_BindParams &peer, Deadline deadline) override;
    int put(XCC_BufInfo *message, Deadline deadline) override;
    int get(XCC_BufInfo *, Deadline) override { return XCC_EFAIL; }
    int release(const XCC_BufInfo &) override { return XCC_EFAIL; }
    int unbind() override;
    unsigned held() override { return 0; }

private:
    // The meeting that lasts, or a new one; XCC_EPEER when there is no slave within the time.
    int meet(Deadline deadline, std::shared_ptr<Sender> *out);
    int greet(const XCC_BindParams &peer, std::shared_ptr<Sender> *out) const;
    static void *watch(void *self);
    void watch_current();

    const Identity own_;
    Mutex control_;  // one bind or unbind at a time starts or ends the worker
    Worker worker_;
    Event changed_;
    Mutex mutex_;
    bool bound_ QEL_GUARDED_BY(mutex_) = false;
    bool meeting_ QEL_GUARDED_BY(mutex_) = false;  // a thread is at it
    XCC_BindParams peer_ QEL_GUARDED_BY(mutex_) = {};
    std::shared_ptr<Sender> current_ QEL_GUARDED_BY(mutex_);
};

int MasterChannel::bind(const XCC_BindParams &peer, Deadline deadline) {
    if (peer.processId != own_.process_id || peer.peerChip == own_.chip) return XCC_EFAIL;
    {
        const Lock control(control_);
        {
            const Lock lock(mutex_);
            peer_ = peer;
            bound_ = true;
        }
        if (!worker_.is_running() && worker_.start(watch, this, "xcc_watch") != 0) return XCC_EFAIL;
    }
    std::shared_ptr<Sender> sender;
    const int status = meet(deadline, &sender);
    return status == XCC_EPEER ? XCC_ETIMEOUT : status;
}

int MasterChannel::greet(const XCC_BindParams &peer, std::shared_ptr<Sender> *out) const {
    char name[64];
    meeting_name(peer.processId, peer.peerChip, peer.peerName, name, sizeof name);
    Fd socket;
    int failure = platform::connect_to(name, &socket);
    if (failure != 0) return failure;
    Fd memory_fd;
    Memory memory;
    failure = memory.create(own_.region_bytes, &memory_fd);
    if (failure != 0) return failure;
    Hello hello{kMagic, own_.region_bytes, own_.chip, own_.process_id, {}, {}};
    memcpy(hello.name, own_.name, sizeof hello.name);
    memcpy(hello.peer_name, peer.peerName, sizeof hello.peer_name);
    const Deadline soon = Deadline::after_real_ms(kGreetingRealMs);
    failure = platform::send_packet(socket.get(), {&hello, sizeof hello}, memory_fd.get(), soon);
    if (failure != 0) return failure;
    Welcome welcome{};
    bool truncated = false;
    if (platform::wait_readable(socket.get(), soon) <= 0) return -ETIMEDOUT;
    const ssize_t got =
        platform::receive_packet(socket.get(), {&welcome, sizeof welcome}, &truncated, nullptr);
    if (got != sizeof welcome || truncated || welcome.magic != kMagic) return -ECONNRESET;
    if (welcome.accepted == 0) return -ECONNREFUSED;
    *out = std::make_shared<Sender>(std::move(memory), Peer(std::move(socket)));
    return 0;
}

int MasterChannel::meet(Deadline deadline, std::shared_ptr<Sender> *out) {
    for (;;) {
        const uint32_t seen = changed_.seen();
        XCC_BindParams peer{};
        bool ours = false;
        {
            const Lock lock(mutex_);
            if (!bound_) return XCC_EFAIL;
            *out = current_;
            if (current_ != nullptr) return 0;
            ours = !meeting_;
            if (ours) meeting_ = true;
            peer = peer_;
        }
        if (ours) {
            std::shared_ptr<Sender> sender;
            const int failure = greet(peer, &sender);
            {
                const Lock lock(mutex_);
                meeting_ = false;
                if (failure == 0 && bound_) current_ = sender;
            }
            changed_.happened();
            if (failure == 0) {
                worker_.signal();
                continue;
            }
            if (deadline.passed()) return XCC_EPEER;
            // Woken early only by unbind, or by a thread that had more luck.
            changed_.wait(changed_.seen(), deadline.or_earlier(Deadline::after_real_ms(kRetryRealMs)));
        } else if (!changed_.wait(seen, deadline)) {
            return XCC_EPEER;
        }
    }
}

int MasterChannel::put(XCC_BufInfo *message, Deadline deadline) {
    if (message->addr == nullptr || message->length == 0 || message->length > own_.region_bytes)
        return XCC_EFAIL;
    for (int attempt = 0;; ++attempt) {
        std::shared_ptr<Sender> sender;
        int status = meet(deadline.or_earlier(Deadline::after_real_ms(kRebindRealMs)), &sender);
        if (status != 0) return status;
        bool seen = false;
        status = sender->send(*message, deadline, &seen);
        // What the slave never saw may go to its successor.
        if (status != XCC_EPEER || seen || attempt == 1) return status;
        const Lock lock(mutex_);
        if (current_ == sender) current_.reset();
    }
}

int MasterChannel::unbind() {
    const Lock control(control_);
    std::shared_ptr<Sender> sender;
    {
        const Lock lock(mutex_);
        if (!bound_) return XCC_EFAIL;
        bound_ = false;
        sender = std::move(current_);
        current_.reset();
    }
    if (sender != nullptr) sender->lose();
    changed_.happened();
    worker_.signal();
    worker_.join();
    return 0;
}

void *MasterChannel::watch(void *self) {
    static_cast<MasterChannel *>(self)->watch_current();
    return nullptr;
}

// The slave never says anything: a connection that turns readable has ended.
void MasterChannel::watch_current() {
    for (;;) {
        std::shared_ptr<Sender> sender;
        {
            const Lock lock(mutex_);
            if (!bound_) return;
            sender = current_;
        }
        pollfd watched[] = {{worker_.signal_fd(), POLLIN, 0},
                            {sender != nullptr ? sender->peer().socket() : -1, POLLIN, 0},
                            {sender != nullptr ? sender->peer().process() : -1, POLLIN, 0}};
        if (poll(watched, 3, -1) <= 0) continue;
        if (watched[0].revents != 0) worker_.clear_signal();
        if (watched[1].revents == 0 && watched[2].revents == 0) continue;
        {
            const Lock lock(mutex_);
            if (current_ == sender) current_.reset();
        }
        sender->lose();
    }
}

}  // namespace

std::shared_ptr<Channel> make_master_channel(const Identity &own) {
    return std::make_shared<MasterChannel>(own);
}

}  // namespace qel::xcc
