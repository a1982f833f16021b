#include "board/net/client.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <vector>

#include "board/net/wire.h"

namespace qel::board {

namespace {

std::string own_name() {
    char name[32] = {};
    const UniqueFd file(::open("/proc/self/comm", O_RDONLY | O_CLOEXEC));
    const ssize_t got = file.is_open() ? ::read(file.get(), name, sizeof name - 1) : 0;
    std::string text(name, static_cast<size_t>(std::max<ssize_t>(got, 0)));
    while (!text.empty() && text.back() == '\n') text.pop_back();
    return text;
}

// Sends `out` and waits for the answer whatever signals come. 0 or -errno.
int exchange(int socket, const OutPacket &out, InPacket &in) {
    int error = send_packet(socket, out);
    if (error != 0) return error;
    do error = receive_packet(socket, in);
    while (error == -EINTR);
    return error;
}

std::string say(int error) { return strerror(-error); }

// One connection to the server with its buffers. Serves one request at a time.
struct Connection {
    UniqueFd socket;
    uint32_t sequence = 0;
    OutPacket out;
    InPacket in;
};

// Connects and says hello. nullptr and the reason when the server does not take it.
std::unique_ptr<Connection> join(const std::string &path, const wire::Hello &hello, wire::Joined &joined,
                                 std::string &error) {
    auto connection = std::make_unique<Connection>();
    connection->socket.reset(connect_socket(path));
    int result = connection->socket.get();
    if (result >= 0) {
        wire::put_hello(connection->out, hello);
        result = exchange(connection->socket.get(), connection->out, connection->in);
    }
    if (result < 0) {
        error = "no board answers at " + path + ": " + say(result);
        return nullptr;
    }
    wire::Reader reader(connection->in);
    switch (wire::read_head(reader).kind) {
        case wire::Kind::kWelcome:
            if (wire::get_joined(reader, joined)) return connection;
            break;
        case wire::Kind::kRefusal:
            error = reader.text();
            return nullptr;
        default:
            break;
    }
    error = "what answers at " + path + " is no board server of this version";
    return nullptr;
}

class SocketLink final : public Link {
public:
    SocketLink(std::string path, uint32_t chip) : path_(std::move(path)), chip_(chip) {}
    ~SocketLink() override;

    bool start(std::string &error);
    const Welcome &welcome() const override { return welcome_; }
    void call(Request &request, Reply &reply) override;
    int open(Request &request, Reply &reply) override;
    void closing(uint32_t handle) override;

    // Around fork(): all links stand still, and the child's begin anew.
    void lock() { mutex_.lock(); }
    void unlock() { mutex_.unlock(); }
    void begin_anew();

private:
    std::unique_ptr<Connection> take();
    void give_back(std::unique_ptr<Connection> connection, bool usable);
    std::unique_ptr<Connection> add_connection(wire::Joined &joined, std::string &error);
    int ask(Connection &connection, Request &request, Reply &reply, int &device);
    int await_reply(Connection &connection);
    void perform(Request &request, Reply &reply, int &device);
    void report_lost(const std::string &why);

    const std::string path_;
    const uint32_t chip_;
    Welcome welcome_;

    std::mutex mutex_;
    uint32_t client_ = wire::kNobody;
    bool lost_ = false;
    std::vector<std::unique_ptr<Connection>> idle_;
    std::vector<int> busy_;  // descriptors of connections that threads hold
    // A terminal's descriptor is the pty; what tells the server of its end stands beside it.
    std::map<uint32_t, UniqueFd> lines_;
};

// All links of this process, for fork(). Never destroyed: threads may outlive static objects.
struct AllLinks {
    std::mutex mutex;
    std::vector<SocketLink *> links;

    AllLinks() {
        pthread_atfork([] { get().before_fork(); }, [] { get().after_fork(false); },
                       [] { get().after_fork(true); });
    }
    static AllLinks &get() {
        static auto *all = new AllLinks;
        return *all;
    }
    void before_fork() {
        mutex.lock();
        for (SocketLink *link : links) link->lock();
    }
    void after_fork(bool child) {
        for (SocketLink *link : links) {
            if (child) link->begin_anew();
            link->unlock();
        }
        mutex.unlock();
    }
    void add(SocketLink *link) {
        const std::lock_guard guard(mutex);
        links.push_back(link);
    }
    void remove(SocketLink *link) {
        const std::lock_guard guard(mutex);
        std::erase(links, link);
    }
};

SocketLink::~SocketLink() { AllLinks::get().remove(this); }

bool SocketLink::start(std::string &error) {
    wire::Joined joined;
    std::unique_ptr<Connection> first = add_connection(joined, error);
    if (first == nullptr) return false;
    welcome_ = joined.welcome;
    give_back(std::move(first), true);
    AllLinks::get().add(this);
    return true;
}

// The parent's connections are the parent's; the child only drops its copies of them.
void SocketLink::begin_anew() {
    idle_.clear();
    for (const int fd : busy_) ::close(fd);
    busy_.clear();
    client_ = wire::kNobody;
}

std::unique_ptr<Connection> SocketLink::add_connection(wire::Joined &joined, std::string &error) {
    wire::Hello hello;
    hello.fingerprint = class_fingerprint();
    hello.chip = chip_;
    hello.pid = static_cast<uint32_t>(getpid());
    hello.process_name = own_name();
    {
        const std::lock_guard guard(mutex_);
        hello.client = client_;
    }
    std::unique_ptr<Connection> connection = join(path_, hello, joined, error);
    if (connection == nullptr) return nullptr;
    const std::lock_guard guard(mutex_);
    client_ = joined.client;
    lost_ = false;
    busy_.push_back(connection->socket.get());
    return connection;
}

std::unique_ptr<Connection> SocketLink::take() {
    {
        const std::lock_guard guard(mutex_);
        if (!idle_.empty()) {
            std::unique_ptr<Connection> connection = std::move(idle_.back());
            idle_.pop_back();
            busy_.push_back(connection->socket.get());
            return connection;
        }
    }
    wire::Joined joined;
    std::string error;
    std::unique_ptr<Connection> connection = add_connection(joined, error);
    if (connection == nullptr) report_lost(error);
    return connection;
}

void SocketLink::give_back(std::unique_ptr<Connection> connection, bool usable) {
    const std::lock_guard guard(mutex_);
    std::erase(busy_, connection->socket.get());
    if (usable) idle_.push_back(std::move(connection));
}

void SocketLink::report_lost(const std::string &why) {
    {
        const std::lock_guard guard(mutex_);
        if (std::exchange(lost_, true)) return;
        idle_.clear();
    }
    fprintf(stderr, "qelboard: the board is gone: %s; its devices answer ENODEV from now on\n", why.c_str());
}

// The reply to the request just sent. When a signal ends the wait the request is withdrawn, and then
// the answer says which of the two was first: the device or the signal.
int SocketLink::await_reply(Connection &connection) {
    int error = receive_packet(connection.socket.get(), connection.in);
    if (error != -EINTR) return error;
    wire::put_withdraw(connection.out, connection.sequence);
    return exchange(connection.socket.get(), connection.out, connection.in);
}

int SocketLink::ask(Connection &connection, Request &request, Reply &reply, int &device) {
    if (request.path.size() > wire::kTextBytes) {
        reply.value = -ENAMETOOLONG;
        return 0;
    }
    if (request.op == Op::kWrite && request.in.size() > wire::kPayloadBytes)
        request.in.resize(wire::kPayloadBytes);
    if (!wire::put_request(connection.out, ++connection.sequence, request)) {
        reply.value = -ENOMEM;
        return 0;
    }
    int error = send_packet(connection.socket.get(), connection.out);
    connection.out.descriptors.clear();
    if (error == 0) error = await_reply(connection);
    if (error != 0) return error;
    wire::Reader reader(connection.in);
    const wire::Head head = wire::read_head(reader);
    const bool fits = head.kind == wire::Kind::kReply && head.sequence == connection.sequence &&
                      wire::get_reply(reader, reply, device);
    connection.in.descriptors.clear();
    return fits ? 0 : -EPROTO;
}

void SocketLink::perform(Request &request, Reply &reply, int &device) {
    reply.value = -ENODEV;
    reply.fd = -1;
    reply.drained = reply.killed = false;
    std::unique_ptr<Connection> connection = take();
    if (connection == nullptr) return;
    const int error = ask(*connection, request, reply, device);
    if (error != 0) {
        report_lost(say(error));
        reply.value = -ENODEV;
    }
    give_back(std::move(connection), error == 0);
    if (reply.killed) {
        kill(getpid(), SIGKILL);
        for (;;) pause();
    }
}

void SocketLink::call(Request &request, Reply &reply) {
    int device = -1;
    perform(request, reply, device);
    if (device >= 0) ::close(device);
}

int SocketLink::open(Request &request, Reply &reply) {
    int device = -1;
    perform(request, reply, device);
    UniqueFd opened(device);
    if (reply.value < 0) return static_cast<int>(reply.value);
    if (reply.opened == Opened::kDevice) return opened.is_open() ? opened.release() : -EPROTO;
    if (reply.opened == Opened::kTty && opened.is_open()) {
        const std::lock_guard guard(mutex_);
        lines_[reply.handle] = std::move(opened);
    }
    return 0;
}

void SocketLink::closing(uint32_t handle) {
    const std::lock_guard guard(mutex_);
    lines_.erase(handle);
}

}  // namespace

std::unique_ptr<Link> connect_to_server(const std::string &socket_path, uint32_t chip, std::string &error) {
    auto link = std::make_unique<SocketLink>(socket_path, chip);
    if (!link->start(error)) return nullptr;
    return link;
}

std::unique_ptr<ControlLink> ControlLink::connect(const std::string &socket_path, std::string &error) {
    wire::Hello hello;
    hello.role = wire::Role::kControl;
    hello.fingerprint = class_fingerprint();
    hello.pid = static_cast<uint32_t>(getpid());
    hello.process_name = own_name();
    wire::Joined joined;
    std::unique_ptr<Connection> connection = join(socket_path, hello, joined, error);
    if (connection == nullptr) return nullptr;
    return std::unique_ptr<ControlLink>(new ControlLink(std::move(connection->socket)));
}

bool ControlLink::call(std::span<const std::string> words, std::string &text) {
    OutPacket out;
    InPacket in;
    if (!wire::put_control(out, words)) {
        text = "the command is too long";
        return false;
    }
    if (const int error = exchange(socket_.get(), out, in); error != 0) {
        text = "the board is gone: " + say(error);
        return false;
    }
    wire::Reader reader(in);
    bool ok = false;
    if (wire::read_head(reader).kind == wire::Kind::kControlReply &&
        wire::get_control_reply(reader, ok, text))
        return ok;
    text = "the board server answered something else";
    return false;
}

}  // namespace qel::board
