// slave.cpp - the slave's end: listens at its name, and serves one master after the other.
#include <poll.h>
#include <cstdio>
#include <cstring>
#include <vector>

#include "platform/xcc/channel.h"
#include "platform/xcc/receiver.h"
#include "platform/xcc/worker.h"

namespace qel::xcc {
namespace {

using platform::Lock;
using platform::Mutex;

// How often bind tries to take its name from another process that holds it.
constexpr int64_t kRetryRealMs = 10;
// A master greets at once, or is not one.
constexpr int64_t kGreetingRealMs = 500;

class SlaveChannel final : public Channel {
public:
    explicit SlaveChannel(const Identity &own) : own_(own) {}
    ~SlaveChannel() override { unbind(); }

    int bind(const XCC_BindParams &peer, Deadline deadline) override;
    int put(XCC_BufInfo *message, Deadline) override { return give_back(*message, true); }
    int get(XCC_BufInfo *message, Deadline deadline) override;
    int release(const XCC_BufInfo &message) override { return give_back(message, false); }
    int unbind() override;
    unsigned held() override;

private:
    using Meeting = std::shared_ptr<Receiver>;

    int start_listening(Deadline deadline);
    int give_back(const XCC_BufInfo &message, bool answer);
    void prune() QEL_REQUIRES(mutex_);
    Meeting newest();
    bool has_met(uint32_t meetings_before);
    bool is_bound();
    bool accepts(const Hello &hello) QEL_REQUIRES(mutex_);
    void greet_one();
    static void *serve(void *self);
    void serve_all();

    const Identity own_;
    Mutex control_;  // one bind or unbind at a time starts or ends the worker
    platform::Listener listener_;
    Worker worker_;
    Event changed_;
    Mutex mutex_;
    bool bound_ QEL_GUARDED_BY(mutex_) = false;
    XCC_BindParams peer_ QEL_GUARDED_BY(mutex_) = {};
    uint32_t meetings_made_ QEL_GUARDED_BY(mutex_) = 0;
    // The oldest first: those whose master is gone leave when all they brought is given back.
    std::vector<Meeting> meetings_ QEL_GUARDED_BY(mutex_);
};

int SlaveChannel::start_listening(Deadline deadline) {
    char name[64];
    meeting_name(own_.process_id, own_.chip, own_.name, name, sizeof name);
    for (;;) {
        const uint32_t seen = changed_.seen();
        {
            const Lock control(control_);
            if (!is_bound()) return XCC_EFAIL;
            if (worker_.is_running()) return 0;
            const int failure = listener_.open(name);
            if (failure == 0) return worker_.start(serve, this, "xcc_serve") == 0 ? 0 : XCC_EFAIL;
            if (failure != -EADDRINUSE) return XCC_EFAIL;
        }
        if (deadline.passed()) return XCC_ETIMEOUT;
        changed_.wait(seen, deadline.or_earlier(Deadline::after_real_ms(kRetryRealMs)));
    }
}

int SlaveChannel::bind(const XCC_BindParams &peer, Deadline deadline) {
    if (peer.processId != own_.process_id || peer.peerChip == own_.chip) return XCC_EFAIL;
    uint32_t meetings_before = 0;
    {
        const Lock lock(mutex_);
        bound_ = true;
        peer_ = peer;
        meetings_before = meetings_made_;
    }
    const int status = start_listening(deadline);
    if (status != 0) return status;
    for (;;) {
        const uint32_t seen = changed_.seen();
        if (!is_bound()) return XCC_EFAIL;
        if (has_met(meetings_before)) return 0;
        if (!changed_.wait(seen, deadline)) return XCC_ETIMEOUT;
    }
}

bool SlaveChannel::is_bound() {
    const Lock lock(mutex_);
    return bound_;
}

// A master that came and went meanwhile counts: what it sent can be got.
bool SlaveChannel::has_met(uint32_t meetings_before) {
    const Lock lock(mutex_);
    return meetings_made_ != meetings_before || (!meetings_.empty() && !meetings_.back()->is_lost());
}

// The master that lives, if one does.
SlaveChannel::Meeting SlaveChannel::newest() {
    const Lock lock(mutex_);
    return !meetings_.empty() && !meetings_.back()->is_lost() ? meetings_.back() : nullptr;
}

int SlaveChannel::get(XCC_BufInfo *message, Deadline deadline) {
    for (bool in_time = true;;) {
        const uint32_t seen = changed_.seen();
        uint32_t heard = 0;
        Meeting live;
        {
            const Lock lock(mutex_);
            if (!bound_) return XCC_EFAIL;
            if (!meetings_.empty() && !meetings_.back()->is_lost()) {
                live = meetings_.back();
                heard = live->heard();
            }
            for (const Meeting &meeting : meetings_) {
                if (meeting->take(message)) return 0;
            }
            prune();
        }
        if (!in_time) return XCC_ETIMEOUT;
        in_time = live != nullptr ? live->wait(heard, deadline) : changed_.wait(seen, deadline);
    }
}

// After all were found empty.
void SlaveChannel::prune() {
    std::erase_if(meetings_,
                  [](const Meeting &meeting) { return meeting->is_lost() && meeting->held() == 0; });
}

int SlaveChannel::give_back(const XCC_BufInfo &message, bool answer) {
    const Lock lock(mutex_);
    for (const Meeting &meeting : meetings_) {
        if (meeting->owns(message)) return meeting->give_back(message, answer);
    }
    return XCC_EFAIL;
}

unsigned SlaveChannel::held() {
    const Lock lock(mutex_);
    unsigned sum = 0;
    for (const Meeting &meeting : meetings_) sum += meeting->held();
    return sum;
}

int SlaveChannel::unbind() {
    const Lock control(control_);
    {
        const Lock lock(mutex_);
        if (!bound_) return XCC_EFAIL;
        bound_ = false;
        for (const Meeting &meeting : meetings_) meeting->lose();
    }
    changed_.happened();
    if (worker_.is_running()) worker_.signal();
    worker_.join();
    listener_.close();
    return 0;
}

bool SlaveChannel::accepts(const Hello &hello) {
    return hello.magic == kMagic && hello.chip == peer_.peerChip && hello.process_id == own_.process_id &&
           hello.region_bytes <= own_.region_bytes &&
           memcmp(hello.name, peer_.peerName, sizeof hello.name) == 0 &&
           memcmp(hello.peer_name, own_.name, sizeof hello.peer_name) == 0;
}

void SlaveChannel::greet_one() {
    Fd socket;
    if (listener_.accept(&socket) != 0) return;
    Hello hello{};
    Fd memory_fd;
    bool truncated = false;
    const Deadline soon = Deadline::after_real_ms(kGreetingRealMs);
    if (platform::wait_readable(socket.get(), soon) <= 0) return;
    const ssize_t got =
        platform::receive_packet(socket.get(), {&hello, sizeof hello}, &truncated, &memory_fd);
    if (got != sizeof hello || truncated) return;
    // A master that lives keeps its channel; one that died this moment makes way.
    const Meeting last = newest();
    if (last != nullptr && last->peer().is_gone()) last->lose();
    Memory memory;
    Welcome welcome{kMagic, 0};
    {
        const Lock lock(mutex_);
        const bool wanted = accepts(hello) && (last == nullptr || last->is_lost());
        if (wanted && memory.adopt(memory_fd, hello.region_bytes) == 0) welcome.accepted = 1;
    }
    if (platform::send_packet(socket.get(), {&welcome, sizeof welcome}, -1, soon) != 0) return;
    if (welcome.accepted == 0) return;
    {
        const Lock lock(mutex_);
        meetings_.push_back(
            std::make_shared<Receiver>(++meetings_made_, std::move(memory), Peer(std::move(socket))));
    }
    changed_.happened();
}

void *SlaveChannel::serve(void *self) {
    static_cast<SlaveChannel *>(self)->serve_all();
    return nullptr;
}

// A master never says anything after its greeting: a connection that turns readable has ended.
void SlaveChannel::serve_all() {
    while (is_bound()) {
        const Meeting live = newest();
        pollfd watched[] = {{worker_.signal_fd(), POLLIN, 0},
                            {listener_.fd(), POLLIN, 0},
                            {live != nullptr ? live->peer().socket() : -1, POLLIN, 0},
                            {live != nullptr ? live->peer().process() : -1, POLLIN, 0}};
        if (poll(watched, 4, -1) <= 0) continue;
        if (watched[0].revents != 0) worker_.clear_signal();
        if (watched[2].revents != 0 || watched[3].revents != 0) {
            live->lose();
            changed_.happened();
        }
        if (watched[1].revents != 0) greet_one();
    }
}

}  // namespace

std::shared_ptr<Channel> make_slave_channel(const Identity &own) {
    return std::make_shared<SlaveChannel>(own);
}

}  // namespace qel::xcc
