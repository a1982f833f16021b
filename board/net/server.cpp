#include "board/net/server.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <list>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <vector>

#include "board/core/lock.h"
#include "board/net/client.h"
#include "board/net/commands.h"
#include "board/net/wire.h"

namespace qel::board {

namespace {

constexpr uint64_t kListener = 0;  // numbers of what the loop watches; connections follow
constexpr uint64_t kWaker = 1;
constexpr uint64_t kFirstConnection = 2;
constexpr uint64_t kToken = 1;  // eight bytes, as a reader expects of one

enum class State : uint8_t { kNew, kRequests, kControl, kDevice, kStarter };

struct Connection {
    uint64_t number = 0;
    UniqueFd socket;
    State state = State::kNew;
    pid_t pid = 0;        // as this machine counts
    uint32_t client = 0;  // kRequests and kDevice
    uint32_t handle = 0;  // kDevice: what the descriptor at the other end stands for
    bool holds = false;   // kControl and kStarter
    bool parked = false;
    uint32_t sequence = 0;  // of the request being served
    int64_t deadline_ms = -1;
    Request request;
};

struct Client {
    uint32_t pid = 0;
    uint32_t chip = 0;
    size_t connections = 0;
};

// What the board told us while it held its lock; done afterwards.
struct Notes {
    std::vector<uint32_t> ready;
    bool changed = false;
};

}  // namespace

struct Server::Impl {
    Impl(Board &board, std::string socket_path);
    ~Impl();
    void run();
    void stop();
    void stop_when_unused(UniqueFd starter);

    using Words = std::vector<std::string>;

    Board &board_;
    Commands commands_;
    const std::string path_;
    const uint64_t fingerprint_ = class_fingerprint();
    const int64_t time_scale_ = std::max<int64_t>(board_.welcome(0).time_scale, 1);
    UniqueFd listener_;
    UniqueFd epoll_;
    UniqueFd waker_;
    UniqueFd spare_;  // given up for a moment to turn a connection away when descriptors run out
    std::atomic<bool> stopping_ = false;
    bool until_unused_ = false;
    size_t holders_ = 0;

    uint64_t next_number_ = kFirstConnection;
    std::unordered_map<uint64_t, std::unique_ptr<Connection>> connections_;
    std::unordered_map<uint32_t, uint64_t> devices_;  // connection of a handle
    std::unordered_map<uint32_t, Client> clients_;
    std::list<Connection *> parked_;  // in the order of their arrival
    InPacket in_;
    OutPacket out_;
    Reply reply_;
    bool changed_ = false;  // noted, and parked requests not asked again yet

    Mutex notes_mutex_;
    Notes notes_ QEL_GUARDED_BY(notes_mutex_);
    std::thread::id loop_thread_ QEL_GUARDED_BY(notes_mutex_);

    void note(uint32_t handle, bool changed);
    bool put_tokens();
    void follow_notes();
    bool ask_parked_again(bool only_late);
    int wait_ms() const;

    void watch(int fd, uint64_t number);
    void accept_connection();
    void turn_one_away();
    Connection &add_connection(UniqueFd socket, State state);
    void drop(Connection &connection);
    void close_handle(uint32_t client, uint32_t handle);
    void release(Connection &connection);
    void leave_client(uint32_t client);

    void serve(Connection &connection);
    void handle_packet(Connection &connection);
    bool greet(Connection &connection, wire::Reader &reader);
    std::string why_not(const wire::Hello &hello, uint32_t version, bool readable) const;
    bool begin_request(Connection &connection, uint32_t sequence, wire::Reader &reader);
    bool withdraw(Connection &connection, uint32_t sequence);
    bool control(Connection &connection, wire::Reader &reader);
    void unpark(Connection &connection);
    bool try_request(Connection &connection);
    bool send_reply(Connection &connection);
    int add_device(const Connection &opener);
    bool send(const Connection &connection);
    static void accuse(const Connection &connection, const char *what);
};

Server::Impl::Impl(Board &board, std::string socket_path)
    : board_(board), commands_(board), path_(std::move(socket_path)) {
    const auto need = [&](int fd, const char *what) {
        if (fd < 0) throw std::system_error(errno, std::generic_category(), what);
        return fd;
    };
    const int listening = listen_socket(path_);
    if (listening < 0)
        throw std::system_error(-listening, std::generic_category(), "cannot listen at " + path_);
    listener_.reset(listening);
    ::chmod(path_.c_str(), 0600);
    epoll_.reset(need(epoll_create1(EPOLL_CLOEXEC), "epoll"));
    waker_.reset(need(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd"));
    spare_.reset(need(::open("/dev/null", O_RDONLY | O_CLOEXEC), "/dev/null"));
    watch(listener_.get(), kListener);
    watch(waker_.get(), kWaker);
    board_.on_change([this](uint32_t handle) { note(handle, false); }, [this] { note(0, true); });
}

Server::Impl::~Impl() {
    while (!connections_.empty()) drop(*connections_.begin()->second);
    board_.on_change({}, {});
    ::unlink(path_.c_str());
}

void Server::Impl::watch(int fd, uint64_t number) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = number;
    if (epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event) != 0)
        throw std::system_error(errno, std::generic_category(), "epoll");
}

// ---- The loop ----------------------------------------------------------------------------------

void Server::Impl::run() {
    {
        const Lock lock(notes_mutex_);
        loop_thread_ = std::this_thread::get_id();
    }
    std::array<epoll_event, 64> events{};
    while (!stopping_) {
        const int count = epoll_wait(epoll_.get(), events.data(), events.size(), wait_ms());
        // One that stops promises nobody to stay: who says "hold" now must find another server.
        for (int i = 0; i < count && !stopping_; ++i) {
            const uint64_t number = events[static_cast<size_t>(i)].data.u64;
            if (number == kListener) {
                accept_connection();
            } else if (number == kWaker) {
                uint64_t unused = 0;
                if (::read(waker_.get(), &unused, sizeof unused) < 0) continue;
            } else if (const auto found = connections_.find(number); found != connections_.end()) {
                serve(*found->second);
            }
        }
        follow_notes();
        ask_parked_again(true);
        follow_notes();
    }
}

void Server::Impl::stop() {
    stopping_ = true;
    const uint64_t one = 1;
    if (::write(waker_.get(), &one, sizeof one) < 0) return;  // full: it wakes anyway
}

void Server::Impl::stop_when_unused(UniqueFd starter) {
    until_unused_ = true;
    add_connection(std::move(starter), State::kStarter).holds = true;
    ++holders_;
}

void Server::Impl::note(uint32_t handle, bool changed) {
    bool wake = false;
    {
        const Lock lock(notes_mutex_);
        if (changed)
            notes_.changed = true;
        else
            notes_.ready.push_back(handle);
        wake = loop_thread_ != std::this_thread::get_id();
    }
    const uint64_t one = 1;
    if (wake && ::write(waker_.get(), &one, sizeof one) < 0) return;
}

// Does what the board noted; whether something changed that parked requests may wait for.
bool Server::Impl::put_tokens() {
    Notes notes;
    {
        const Lock lock(notes_mutex_);
        std::swap(notes, notes_);
    }
    for (const uint32_t handle : notes.ready) {
        const auto found = devices_.find(handle);
        if (found == devices_.end()) continue;
        const int socket = connections_.at(found->second)->socket.get();
        // Its buffer takes far more tokens than the one that can lie there.
        if (::send(socket, &kToken, sizeof kToken, MSG_DONTWAIT | MSG_NOSIGNAL) < 0) continue;
    }
    return notes.changed;
}

void Server::Impl::follow_notes() {
    bool changed = std::exchange(changed_, false);
    changed = put_tokens() || changed;
    // Asking again may change things once more, but it ends: every turn answers a request.
    while (changed && ask_parked_again(false)) changed = put_tokens() || std::exchange(changed_, false);
    changed_ = false;
}

// True when one of them was answered.
bool Server::Impl::ask_parked_again(bool only_late) {
    const int64_t now_ms = parked_.empty() ? 0 : board_.now_ms();
    const std::vector<Connection *> waiting(parked_.begin(), parked_.end());
    bool answered = false;
    for (Connection *connection : waiting) {
        const bool late = connection->deadline_ms >= 0 && connection->deadline_ms <= now_ms;
        if (only_late && !late) continue;
        const uint64_t number = connection->number;
        if (!try_request(*connection)) drop(*connection);
        const auto found = connections_.find(number);
        answered = answered || found == connections_.end() || !found->second->parked;
    }
    return answered;
}

// Real milliseconds until the first deadline of a parked request; -1 = none.
int Server::Impl::wait_ms() const {
    int64_t first_ms = -1;
    for (const Connection *connection : parked_) {
        const int64_t deadline_ms = connection->deadline_ms;
        if (deadline_ms >= 0 && (first_ms < 0 || deadline_ms < first_ms)) first_ms = deadline_ms;
    }
    if (first_ms < 0) return -1;
    const int64_t left_ms = std::max<int64_t>(first_ms - board_.now_ms(), 0);
    return static_cast<int>(std::min<int64_t>((left_ms + time_scale_ - 1) / time_scale_, 60'000));
}

// ---- Connections -------------------------------------------------------------------------------

void Server::Impl::accept_connection() {
    const int fd = ::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0) {
        if (errno == EMFILE || errno == ENFILE) turn_one_away();
        return;
    }
    UniqueFd socket(fd);
    ucred peer{};
    socklen_t size = sizeof peer;
    const bool known = getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0;
    if (!known || (peer.uid != geteuid() && peer.uid != 0)) return;
    add_connection(std::move(socket), State::kNew).pid = peer.pid;
}

void Server::Impl::turn_one_away() {
    spare_.reset();
    const UniqueFd refused(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    fprintf(stderr, "qelboard: too many open descriptors; a process was turned away\n");
    spare_.reset(::open("/dev/null", O_RDONLY | O_CLOEXEC));
}

Connection &Server::Impl::add_connection(UniqueFd socket, State state) {
    auto connection = std::make_unique<Connection>();
    connection->number = next_number_++;
    connection->state = state;
    connection->socket = std::move(socket);
    watch(connection->socket.get(), connection->number);
    Connection &added = *connection;
    connections_[added.number] = std::move(connection);
    return added;
}

void Server::Impl::drop(Connection &connection) {
    if (connection.parked) {
        board_.withdraw(connection.request);
        unpark(connection);
    }
    if (connection.state == State::kDevice) {
        devices_.erase(connection.handle);
        close_handle(connection.client, connection.handle);
    }
    release(connection);
    const bool counts = connection.state == State::kDevice || connection.state == State::kRequests;
    const uint32_t client = connection.client;
    connections_.erase(connection.number);
    if (counts) leave_client(client);
}

// The descriptor is gone already: a fault may fail or delay the closing, but not prevent it.
void Server::Impl::close_handle(uint32_t client, uint32_t handle) {
    Request close;
    close.op = Op::kClose;
    close.client = client;
    close.chip = clients_.at(client).chip;
    close.handle = handle;
    Reply ignored;
    int64_t deadline_ms = -1;
    if (board_.execute(close, ignored, deadline_ms)) return;
    close.waiting.hold_until_ms = -1;
    board_.execute(close, ignored, deadline_ms);
}

void Server::Impl::release(Connection &connection) {
    if (std::exchange(connection.holds, false) && --holders_ == 0 && until_unused_) stopping_ = true;
}

void Server::Impl::leave_client(uint32_t client) {
    if (--clients_.at(client).connections > 0) return;
    clients_.erase(client);
    board_.remove_client(client);
}

void Server::Impl::accuse(const Connection &connection, const char *what) {
    fprintf(stderr, "qelboard: a packet from process %d is %s; its connection was closed\n",
            static_cast<int>(connection.pid), what);
}

bool Server::Impl::send(const Connection &connection) {
    // A process that does not take its answers would fill the socket: it is dropped, nobody waits for it.
    const bool sent = send_packet(connection.socket.get(), out_, MSG_DONTWAIT) == 0;
    out_.descriptors.clear();  // the process alone holds its device open from now on
    return sent;
}

// ---- Packets -----------------------------------------------------------------------------------

// One packet per turn, so that a busy process does not keep the others waiting.
void Server::Impl::serve(Connection &connection) {
    if (connection.state == State::kStarter) {  // nothing is ever written there
        drop(connection);
        return;
    }
    const int error = receive_packet(connection.socket.get(), in_, MSG_DONTWAIT);
    if (error == -EAGAIN || error == -EINTR) return;
    if (error == 0 || error == -EMSGSIZE) {
        if (connection.state == State::kDevice) return;  // somebody wrote into a descriptor: not ours to mind
    }
    if (error == 0) {
        handle_packet(connection);
    } else {
        if (error == -EMSGSIZE) accuse(connection, "too large");
        drop(connection);
    }
    in_.descriptors.clear();
    follow_notes();
}

void Server::Impl::handle_packet(Connection &connection) {
    wire::Reader reader(in_);
    const wire::Head head = wire::read_head(reader);
    bool fine = false;
    if (connection.state == State::kNew && head.kind == wire::Kind::kHello) {
        fine = greet(connection, reader);
    } else if (connection.state == State::kRequests && head.kind == wire::Kind::kRequest) {
        fine = begin_request(connection, head.sequence, reader);
    } else if (connection.state == State::kRequests && head.kind == wire::Kind::kWithdraw) {
        fine = withdraw(connection, head.sequence);
    } else if (connection.state == State::kControl && head.kind == wire::Kind::kControl) {
        fine = control(connection, reader);
    } else {
        accuse(connection, "not of this protocol");
    }
    if (!fine) drop(connection);
}

std::string Server::Impl::why_not(const wire::Hello &hello, uint32_t version, bool readable) const {
    if (version != wire::kVersion || (readable && hello.fingerprint != fingerprint_))
        return "the board is served by another build of qelboard than this libqelboard.so; use those of one";
    if (!readable) return "not understood";
    if (hello.chip >= board_.chip_count())
        return "board " + board_.name() + " has no chip " + std::to_string(hello.chip) +
               ", its chips are 0 to " + std::to_string(board_.chip_count() - 1);
    return {};
}

bool Server::Impl::greet(Connection &connection, wire::Reader &reader) {
    wire::Hello hello;
    uint32_t version = 0;
    const bool readable = wire::get_hello(reader, hello, version);
    if (const std::string why = why_not(hello, version, readable); !why.empty()) {
        if (version == 0) accuse(connection, "not of this protocol");
        wire::put_refusal(out_, why);
        send(connection);
        return false;
    }
    wire::Joined joined;
    joined.welcome = board_.welcome(hello.chip);
    if (hello.role == wire::Role::kControl) {
        connection.state = State::kControl;
    } else {
        const auto known = clients_.find(hello.client);
        const bool same =
            known != clients_.end() && known->second.pid == hello.pid && known->second.chip == hello.chip;
        joined.client = same ? hello.client : board_.add_client(hello.chip, hello.pid, hello.process_name);
        Client &client = clients_[joined.client];
        client.pid = hello.pid;
        client.chip = hello.chip;
        ++client.connections;
        connection.client = joined.client;
        connection.state = State::kRequests;
    }
    wire::put_joined(out_, joined);
    return send(connection);
}

bool Server::Impl::control(Connection &connection, wire::Reader &reader) {
    Words words;
    if (!wire::get_control(reader, words)) {
        accuse(connection, "not understood");
        return false;
    }
    bool ok = true;
    std::string text;
    if (words == Words{"hold"}) {
        if (!std::exchange(connection.holds, true)) ++holders_;
    } else if (words == Words{"release"}) {
        release(connection);
        text = std::to_string(holders_);
    } else if (words == Words{"stop"}) {
        stopping_ = true;
    } else {
        ok = commands_.run(words, text);
    }
    changed_ = put_tokens() || changed_;  // a poke is over when it shows
    return wire::put_control_reply(out_, ok, text) && send(connection);
}

// ---- Requests ----------------------------------------------------------------------------------

bool Server::Impl::begin_request(Connection &connection, uint32_t sequence, wire::Reader &reader) {
    if (connection.parked) {
        accuse(connection, "a request while another one waits");
        return false;
    }
    connection.request.waiting = {};
    if (!wire::get_request(reader, connection.request)) {
        accuse(connection, "not understood");
        return false;
    }
    connection.sequence = sequence;
    connection.request.client = connection.client;
    connection.request.chip = clients_.at(connection.client).chip;
    if (connection.request.op == Op::kRead)
        connection.request.out_bytes = std::min<uint32_t>(connection.request.out_bytes, wire::kPayloadBytes);
    if (connection.request.op == Op::kClose && devices_.contains(connection.request.handle)) {
        reply_ = {};  // closed with the last descriptor of it, not before
        return send_reply(connection);
    }
    return try_request(connection);
}

void Server::Impl::unpark(Connection &connection) {
    parked_.remove(&connection);
    connection.parked = false;
}

// Asks the board and sends the answer or parks the request. False when the process does not take it.
bool Server::Impl::try_request(Connection &connection) {
    reply_ = {};
    connection.deadline_ms = -1;
    const bool done = board_.execute(connection.request, reply_, connection.deadline_ms);
    if (!done) {
        if (!connection.parked) parked_.push_back(&connection);
        connection.parked = true;
        return true;
    }
    if (connection.parked) unpark(connection);
    return send_reply(connection);
}

bool Server::Impl::send_reply(Connection &connection) {
    int device = -1;
    const bool opened = connection.request.op == Op::kOpen && reply_.value >= 0 &&
                        (reply_.opened == Opened::kDevice || reply_.opened == Opened::kTty);
    if (opened && (device = add_device(connection)) < 0) {
        reply_ = {};
        reply_.value = -ENFILE;
    }
    // First the tokens: what the answer made readable must poll so, what it drained must be there.
    changed_ = put_tokens() || changed_;
    if (!wire::put_reply(out_, connection.sequence, reply_, device)) {
        Reply failed;
        failed.value = -ENOMEM;
        wire::put_reply(out_, connection.sequence, failed, -1);
    }
    return send(connection);
}

// Makes the pair of sockets that stands for an open device: one end is the process's descriptor, and
// when its last copy closes, the other end tells us. The process's end, or -1.
int Server::Impl::add_device(const Connection &opener) {
    std::array<int, 2> ends{};
    const bool made =
        ::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends.data()) == 0;
    const uint32_t handle = reply_.handle;
    if (!made) {
        close_handle(opener.client, handle);
        return -1;
    }
    Connection &device = add_connection(UniqueFd(ends[1]), State::kDevice);
    device.client = opener.client;
    device.handle = handle;
    devices_[handle] = device.number;
    ++clients_.at(opener.client).connections;
    return ends[0];
}

// The answer to the request in any case: where it is no longer parked, it is on its way already.
bool Server::Impl::withdraw(Connection &connection, uint32_t sequence) {
    if (!connection.parked || connection.sequence != sequence) return true;
    board_.withdraw(connection.request);
    unpark(connection);
    reply_ = {};
    reply_.value = -EINTR;
    wire::put_reply(out_, sequence, reply_, -1);
    return send(connection);
}

Server::Server(Board &board, const std::string &socket_path)
    : impl_(std::make_unique<Impl>(board, socket_path)) {}

Server::~Server() = default;

void Server::run() { impl_->run(); }

void Server::stop() { impl_->stop(); }

void Server::stop_when_unused(int starter) { impl_->stop_when_unused(UniqueFd(starter)); }

}  // namespace qel::board
