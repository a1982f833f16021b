// server.cpp - the side of a channel that answers: a daemon, with any number of threads and clients.
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <unordered_map>

#include "platform/bnd/wire.h"
#include "platform/common/handles.h"
#include "platform/common/socket.h"

namespace qel::bnd {
namespace {

using platform::Deadline;
using platform::Fd;
using platform::Lock;
using platform::Mutex;

// What epoll tells apart: the listening socket, the end of the server, then the connections.
constexpr uint64_t kListener = 0;
constexpr uint64_t kEnd = 1;
constexpr uint64_t kFirstConnection = 2;

// Requests that can still be answered; the oldest is forgotten.
constexpr uint32_t kRequests = 256;

// To whom an answer goes. Stays valid after it, so that a daemon may answer twice.
struct Request {
    uint32_t token;
    uint32_t sequence;
    uint64_t connection;
};

class Server {
public:
    int open(const char *socket_name);
    int receive(void *buffer, uint32_t *bytes, uint32_t *client, int *wants_reply, Deadline deadline);
    int reply(uint32_t client, const void *buffer, uint32_t bytes);
    void close();

private:
    // 1 = a request is in, 0 = look again, else an error.
    int read_from(uint64_t id, void *buffer, uint32_t *bytes, uint32_t *client, int *wants_reply);
    int accept_one();
    int watch(int fd, uint64_t id);
    std::shared_ptr<Fd> find(uint64_t id);
    void drop(uint64_t id);
    uint32_t remember(uint32_t sequence, uint64_t connection);

    platform::Listener listener_;
    Fd epoll_;
    Fd end_;
    Mutex mutex_;
    std::unordered_map<uint64_t, std::shared_ptr<Fd>> connections_ QEL_GUARDED_BY(mutex_);
    uint64_t next_connection_ QEL_GUARDED_BY(mutex_) = kFirstConnection;
    uint32_t last_token_ QEL_GUARDED_BY(mutex_) = 0;
    Request requests_[kRequests] QEL_GUARDED_BY(mutex_) = {};
};

int Server::open(const char *socket_name) {
    epoll_.reset(epoll_create1(EPOLL_CLOEXEC));
    end_.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!epoll_.is_open() || !end_.is_open()) return BND_EFAIL;
    if (listener_.open(socket_name) != 0) return BND_EFAIL;
    return watch(listener_.fd(), kListener) == 0 && watch(end_.get(), kEnd) == 0 ? 0 : BND_EFAIL;
}

int Server::watch(int fd, uint64_t id) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = id;
    return epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event);
}

std::shared_ptr<Fd> Server::find(uint64_t id) {
    const Lock lock(mutex_);
    const auto found = connections_.find(id);
    return found != connections_.end() ? found->second : nullptr;
}

// The descriptor closes, and leaves epoll, when the last thread lets go of it.
void Server::drop(uint64_t id) {
    const Lock lock(mutex_);
    connections_.erase(id);
}

int Server::accept_one() {
    auto socket = std::make_shared<Fd>();
    const int failure = listener_.accept(socket.get());
    if (failure == -EAGAIN || failure == -ECONNABORTED) return 0;
    if (failure != 0) return BND_EFAIL;
    const Lock lock(mutex_);
    const uint64_t id = next_connection_++;
    if (watch(socket->get(), id) != 0) return BND_EFAIL;
    connections_.emplace(id, std::move(socket));
    return 0;
}

uint32_t Server::remember(uint32_t sequence, uint64_t connection) {
    const Lock lock(mutex_);
    if (++last_token_ == 0) ++last_token_;
    requests_[last_token_ % kRequests] = {last_token_, sequence, connection};
    return last_token_;
}

int Server::read_from(uint64_t id, void *buffer, uint32_t *bytes, uint32_t *client, int *wants_reply) {
    const auto socket = find(id);
    if (socket == nullptr) return 0;
    Header header{};
    bool truncated = false;
    const platform::Packet packet{&header, sizeof header, buffer, *bytes};
    const ssize_t got = platform::receive_packet(socket->get(), packet, &truncated, nullptr);
    if (got == -EAGAIN) return 0;  // another thread was faster
    if (got <= 0 || !well_formed(header, static_cast<size_t>(got), truncated)) {
        drop(id);
        return 0;
    }
    *wants_reply = (header.flags & kWantsReply) != 0 ? 1 : 0;
    if (truncated) {
        Header refusal{kMagic, header.sequence, kRefused, 0};
        const platform::Packet answer{&refusal, sizeof refusal, nullptr, 0};
        if (*wants_reply != 0) platform::send_packet(socket->get(), answer, -1, Deadline::after_ms(0));
        return BND_ETOOBIG;
    }
    *bytes = header.length;
    *client = remember(header.sequence, id);
    return 1;
}

int Server::receive(void *buffer, uint32_t *bytes, uint32_t *client, int *wants_reply, Deadline deadline) {
    for (;;) {
        epoll_event event{};
        const int ready = epoll_wait(epoll_.get(), &event, 1, deadline.left_ms());
        if (ready < 0 && errno != EINTR) return BND_EFAIL;
        if (ready == 0 && deadline.passed()) return BND_ETIMEOUT;
        if (ready <= 0) continue;
        if (event.data.u64 == kEnd) return BND_EFAIL;
        const int outcome = event.data.u64 == kListener
                                ? accept_one()
                                : read_from(event.data.u64, buffer, bytes, client, wants_reply);
        if (outcome != 0) return outcome > 0 ? 0 : outcome;
    }
}

int Server::reply(uint32_t client, const void *buffer, uint32_t bytes) {
    Request request{};
    {
        const Lock lock(mutex_);
        request = requests_[client % kRequests];
    }
    if (client == 0 || request.token != client) return BND_EFAIL;
    const auto socket = find(request.connection);
    if (socket == nullptr) return BND_EPEER;
    Header header{kMagic, request.sequence, 0, bytes};
    const platform::Packet packet{&header, sizeof header, const_cast<void *>(buffer), bytes};
    // A client that does not fetch its answers must not hold up the others.
    const int failure = platform::send_packet(socket->get(), packet, -1, Deadline::after_ms(0));
    if (failure == 0) return 0;
    return platform::peer_is_gone(failure) ? BND_EPEER : BND_EFAIL;
}

void Server::close() {
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t put = write(end_.get(), &one, sizeof one);
}

using Servers = platform::HandleTable<Server>;

}  // namespace
}  // namespace qel::bnd

using qel::bnd::Server;
using qel::bnd::Servers;
using qel::platform::Deadline;

extern "C" {

int BND_serverCreate(const char *name, uintptr_t *server) {
    if (server == nullptr) return BND_EFAIL;
    *server = 0;
    char socket_name[BND_NAME_BYTES + 16];
    if (!qel::bnd::socket_name(name, socket_name, sizeof socket_name)) return BND_EFAIL;
    auto created = std::make_shared<Server>();
    const int status = created->open(socket_name);
    if (status != 0) return status;
    *server = Servers::instance().add(std::move(created));
    return *server != 0 ? 0 : BND_EFAIL;
}

int BND_serverReceive(uintptr_t server, void *buffer, uint32_t *bytes, uint32_t *client, int *wantsReply,
                      int timeoutMs) {
    const auto found = Servers::instance().find(server);
    if (found == nullptr || buffer == nullptr || bytes == nullptr || client == nullptr ||
        wantsReply == nullptr) {
        return BND_EFAIL;
    }
    return found->receive(buffer, bytes, client, wantsReply, Deadline::from_timeout(timeoutMs));
}

int BND_serverReply(uintptr_t server, uint32_t client, const void *buffer, uint32_t bytes) {
    const auto found = Servers::instance().find(server);
    if (found == nullptr || bytes > BND_MAX_BYTES || (buffer == nullptr && bytes != 0)) return BND_EFAIL;
    return found->reply(client, buffer, bytes);
}

int BND_serverDelete(uintptr_t server) {
    const auto found = Servers::instance().remove(server);
    if (found == nullptr) return BND_EFAIL;
    found->close();
    return 0;
}

}  // extern "C"
