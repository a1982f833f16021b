// client.cpp - the side of a channel that asks.
//
// Several threads may exchange messages over one handle. Each request has a sequence number, which its
// answer repeats. Of the threads that wait for an answer one reads the socket: it keeps what is for the
// others and drops what nobody waits for any more.
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>
#include <atomic>
#include <climits>

#include "platform/bnd/wire.h"
#include "platform/common/futex.h"
#include "platform/common/handles.h"
#include "platform/common/socket.h"

namespace qel::bnd {
namespace {

using platform::Deadline;
using platform::Fd;
using platform::Lock;
using platform::Mutex;

// Threads that may wait for answers at once; the one that asked longest ago is forgotten.
constexpr unsigned kThreads = 64;
// Answers that one thread read for others; one too many is lost, as if it had never come.
constexpr unsigned kKeptReplies = 64;
constexpr int64_t kFullQueueRetryRealMs = 1;

struct Connection {
    Fd socket;
    uint32_t number = 0;
    pid_t process = 0;  // a child made by fork() must not answer for its parent
};

// The last request of a thread.
struct Request {
    pthread_t thread;
    uint32_t sequence;
    uint32_t connection;
    bool valid;
};

struct Reply {
    uint32_t arrival = 0;
    uint32_t sequence = 0;
    uint32_t bytes = 0;
    bool refused = false;
    std::unique_ptr<uint8_t[]> payload;
    bool kept = false;
};

class Client {
public:
    explicit Client(const char *socket_name) { snprintf(name_, sizeof name_, "%s", socket_name); }

    int open();
    int put(const BinderRecord &record, Deadline deadline);
    int get(BinderRecord *record, Deadline deadline);
    void close();

private:
    int connect_locked(Deadline deadline) QEL_REQUIRES(mutex_);
    int send(const BinderRecord &record, Deadline deadline);
    void drop(const std::shared_ptr<Connection> &lost);
    void drop_locked() QEL_REQUIRES(mutex_);
    void tell_others();
    const Request *request_of_caller() const QEL_REQUIRES(mutex_);
    void remember(const Request &request) QEL_REQUIRES(mutex_);
    bool awaited(uint32_t sequence) const QEL_REQUIRES(mutex_);
    bool take_kept(uint32_t sequence, BinderRecord *record, int *status) QEL_REQUIRES(mutex_);
    void keep(const Header &header) QEL_REQUIRES(mutex_);
    // 1 = the caller's answer is in, *status; 0 = look again; else an error.
    int read_one(const std::shared_ptr<Connection> &connection, uint32_t sequence, BinderRecord *record,
                 Deadline deadline, int *status);

    char name_[BND_NAME_BYTES + 16];
    Mutex mutex_;
    std::shared_ptr<Connection> connection_ QEL_GUARDED_BY(mutex_);
    uint32_t connections_made_ QEL_GUARDED_BY(mutex_) = 0;
    uint32_t last_sequence_ QEL_GUARDED_BY(mutex_) = 0;
    uint32_t arrivals_ QEL_GUARDED_BY(mutex_) = 0;
    bool reading_ QEL_GUARDED_BY(mutex_) = false;
    bool closed_ QEL_GUARDED_BY(mutex_) = false;
    Request requests_[kThreads] QEL_GUARDED_BY(mutex_) = {};
    Reply kept_[kKeptReplies] QEL_GUARDED_BY(mutex_);
    std::atomic<uint32_t> changed_{0};
    uint8_t incoming_[BND_MAX_BYTES];  // the reading thread's
};

int deliver(uint32_t bytes, bool refused, const uint8_t *payload, BinderRecord *record) {
    if (refused) return BND_EFAIL;
    if (bytes > record->replyLen) return BND_ETOOBIG;
    if (bytes != 0) memcpy(record->buf, payload, bytes);
    record->replyLen = bytes;
    return 0;
}

int Client::open() {
    const Lock lock(mutex_);
    return connect_locked(Deadline::after_ms(0));
}

int Client::connect_locked(Deadline deadline) {
    auto fresh = std::make_shared<Connection>();
    for (;;) {
        const int failure = platform::connect_to(name_, &fresh->socket);
        if (failure == 0) break;
        if (failure != -EAGAIN) return platform::peer_is_gone(failure) ? BND_EPEER : BND_EFAIL;
        if (deadline.passed()) return BND_ETIMEOUT;
        const std::atomic<uint32_t> nobody{0};
        platform::futex_wait(&nobody, 0, Deadline::after_real_ms(kFullQueueRetryRealMs).or_earlier(deadline),
                             platform::Scope::kProcess);
    }
    fresh->number = ++connections_made_;
    fresh->process = getpid();
    connection_ = std::move(fresh);
    return 0;
}

int Client::put(const BinderRecord &record, Deadline deadline) {
    const int status = send(record, deadline);
    // The daemon ended since the last exchange and took nothing of this one: it may be back.
    return status == BND_EPEER ? send(record, deadline) : status;
}

int Client::send(const BinderRecord &record, Deadline deadline) {
    const bool wants_reply = (record.flags & BND_FLAG_REPLY) != 0;
    std::shared_ptr<Connection> connection;
    Header header{kMagic, 0, wants_reply ? kWantsReply : 0u, record.sendLen};
    {
        const Lock lock(mutex_);
        if (closed_) return BND_EFAIL;
        if (connection_ != nullptr && connection_->process != getpid()) drop_locked();
        if (connection_ == nullptr) {
            const int status = connect_locked(deadline);
            if (status != 0) return status;
        }
        connection = connection_;
        header.sequence = ++last_sequence_;
        if (wants_reply) {
            remember({pthread_self(), header.sequence, connection->number, true});
        }
    }
    const platform::Packet packet{&header, sizeof header, record.buf, record.sendLen};
    const int failure = platform::send_packet(connection->socket.get(), packet, -1, deadline);
    if (failure == 0) return 0;
    if (failure == -ETIMEDOUT) return BND_ETIMEOUT;
    drop(connection);
    return platform::peer_is_gone(failure) ? BND_EPEER : BND_EFAIL;
}

void Client::drop_locked() { connection_.reset(); }

void Client::drop(const std::shared_ptr<Connection> &lost) {
    {
        const Lock lock(mutex_);
        if (connection_ == lost) drop_locked();
    }
    shutdown(lost->socket.get(), SHUT_RDWR);  // wakes the reading thread
    tell_others();
}

void Client::tell_others() {
    changed_.fetch_add(1);
    platform::futex_wake(&changed_, INT_MAX, platform::Scope::kProcess);
}

const Request *Client::request_of_caller() const {
    for (const Request &request : requests_) {
        if (request.valid && pthread_equal(request.thread, pthread_self()) != 0) return &request;
    }
    return nullptr;
}

// In the place of the thread's request before, else in a free one, else in the oldest's.
void Client::remember(const Request &request) {
    Request *place = &requests_[0];
    for (Request &other : requests_) {
        if (other.valid && pthread_equal(other.thread, request.thread) != 0) {
            other = request;
            return;
        }
        const bool older = static_cast<int32_t>(other.sequence - place->sequence) < 0;
        if (place->valid && (!other.valid || older)) place = &other;
    }
    *place = request;
}

bool Client::awaited(uint32_t sequence) const {
    for (const Request &request : requests_) {
        if (request.valid && request.sequence == sequence) return true;
    }
    return false;
}

// The one that came first, should there be several.
bool Client::take_kept(uint32_t sequence, BinderRecord *record, int *status) {
    Reply *first = nullptr;
    for (Reply &reply : kept_) {
        if (!reply.kept || reply.sequence != sequence) continue;
        if (first == nullptr || static_cast<int32_t>(reply.arrival - first->arrival) < 0) first = &reply;
    }
    if (first == nullptr) return false;
    *status = deliver(first->bytes, first->refused, first->payload.get(), record);
    *first = Reply();
    return true;
}

void Client::keep(const Header &header) {
    if (!awaited(header.sequence)) return;
    for (Reply &reply : kept_) {
        if (reply.kept && awaited(reply.sequence)) continue;
        reply = Reply();
        reply.payload.reset(new (std::nothrow) uint8_t[header.length + 1]);
        if (reply.payload == nullptr) return;
        memcpy(reply.payload.get(), incoming_, header.length);
        reply.arrival = ++arrivals_;
        reply.sequence = header.sequence;
        reply.bytes = header.length;
        reply.refused = (header.flags & kRefused) != 0;
        reply.kept = true;
        return;
    }
}

int Client::read_one(const std::shared_ptr<Connection> &connection, uint32_t sequence, BinderRecord *record,
                     Deadline deadline, int *status) {
    Header header{};
    const platform::Packet packet{&header, sizeof header, incoming_, sizeof incoming_};
    const int ready = platform::wait_readable(connection->socket.get(), deadline);
    if (ready == 0) return deadline.passed() ? BND_ETIMEOUT : 0;
    bool truncated = false;
    const ssize_t got =
        ready > 0 ? platform::receive_packet(connection->socket.get(), packet, &truncated, nullptr) : ready;
    if (got == -EAGAIN) return 0;
    if (got <= 0 || truncated || !well_formed(header, static_cast<size_t>(got), false)) {
        drop(connection);
        return BND_EPEER;
    }
    if (header.sequence == sequence) {
        *status = deliver(header.length, (header.flags & kRefused) != 0, incoming_, record);
        return 1;
    }
    const Lock lock(mutex_);
    keep(header);
    return 0;
}

int Client::get(BinderRecord *record, Deadline deadline) {
    for (;;) {
        std::shared_ptr<Connection> connection;
        uint32_t sequence = 0;
        uint32_t seen = 0;
        {
            const Lock lock(mutex_);
            const Request *const request = request_of_caller();
            if (closed_ || request == nullptr) return BND_EFAIL;
            sequence = request->sequence;
            int status = 0;
            if (take_kept(sequence, record, &status)) return status;
            if (connection_ == nullptr || connection_->number != request->connection ||
                connection_->process != getpid()) {
                return BND_EPEER;
            }
            seen = changed_.load();
            if (!reading_) {
                reading_ = true;
                connection = connection_;
            }
        }
        if (connection == nullptr) {
            if (!platform::futex_wait(&changed_, seen, deadline, platform::Scope::kProcess)) {
                return BND_ETIMEOUT;
            }
            continue;
        }
        int status = 0;
        int outcome = read_one(connection, sequence, record, deadline, &status);
        {
            const Lock lock(mutex_);
            reading_ = false;
            if (closed_ && outcome < 0) outcome = BND_EFAIL;  // we ended the connection, not the daemon
        }
        tell_others();
        if (outcome != 0) return outcome > 0 ? status : outcome;
    }
}

void Client::close() {
    std::shared_ptr<Connection> connection;
    {
        const Lock lock(mutex_);
        closed_ = true;
        connection = std::move(connection_);
        connection_.reset();
    }
    if (connection != nullptr && connection->process == getpid()) {
        shutdown(connection->socket.get(), SHUT_RDWR);
    }
    tell_others();
}

using Clients = platform::HandleTable<Client>;

bool usable(const BinderRecord *record, uint32_t bytes) {
    return record != nullptr && bytes <= BND_MAX_BYTES && (record->buf != nullptr || bytes == 0);
}

}  // namespace
}  // namespace qel::bnd

using qel::bnd::Client;
using qel::bnd::Clients;
using qel::platform::Deadline;

extern "C" {

int BND_init(int /*zero*/) { return 0; }

int BND_open(const char *name, uintptr_t *handle) {
    if (handle == nullptr) return BND_EFAIL;
    *handle = 0;
    char socket_name[BND_NAME_BYTES + 16];
    if (!qel::bnd::socket_name(name, socket_name, sizeof socket_name)) return BND_EFAIL;
    auto client = std::make_shared<Client>(socket_name);
    const int status = client->open();
    if (status != 0) return status;
    *handle = Clients::instance().add(std::move(client));
    return *handle != 0 ? 0 : BND_EFAIL;
}

int BND_put(uintptr_t handle, BinderRecord *record, int timeoutMs) {
    const auto client = Clients::instance().find(handle);
    if (client == nullptr || !qel::bnd::usable(record, record != nullptr ? record->sendLen : 0))
        return BND_EFAIL;
    return client->put(*record, Deadline::from_timeout(timeoutMs));
}

int BND_get(uintptr_t handle, BinderRecord *record, int timeoutMs) {
    const auto client = Clients::instance().find(handle);
    if (client == nullptr || record == nullptr || (record->buf == nullptr && record->replyLen != 0)) {
        return BND_EFAIL;
    }
    return client->get(record, Deadline::from_timeout(timeoutMs));
}

int BND_delete(uintptr_t handle) {
    const auto client = Clients::instance().remove(handle);
    if (client == nullptr) return BND_EFAIL;
    client->close();
    return 0;
}

}  // extern "C"
