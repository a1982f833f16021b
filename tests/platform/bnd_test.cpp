#include "platform/include/bnd.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <atomic>
#include <csignal>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/include/osa.h"
#include "tests/platform/world.h"
#include "tests/support/library.h"

namespace {

using qel::test::kPatienceMs;
using qel::test::Nursery;
using qel::test::world;
using qel::test::world_dir;

constexpr const char *kName = "Qel2LensBnd";

uintptr_t open_client(const char *name = kName) {
    uintptr_t handle = 0;
    for (int i = 0; i < kPatienceMs / 2 && BND_open(name, &handle) != 0; ++i) OSA_sleepMs(2);
    EXPECT_NE(handle, 0u);
    return handle;
}

int put(uintptr_t handle, const std::string &text, bool wants_reply = true) {
    BinderRecord record{};
    record.flags = wants_reply ? BND_FLAG_REPLY : 0;
    record.sendLen = static_cast<uint32_t>(text.size());
    record.buf = const_cast<char *>(text.data());
    return BND_put(handle, &record, kPatienceMs);
}

// The answer, or "status N".
std::string get(uintptr_t handle, int timeout_ms = kPatienceMs, uint32_t capacity = BND_MAX_BYTES) {
    std::string buffer(capacity, '\0');
    BinderRecord record{};
    record.replyLen = capacity;
    record.buf = buffer.data();
    const int status = BND_get(handle, &record, timeout_ms);
    return status == 0 ? buffer.substr(0, record.replyLen) : "status " + std::to_string(status);
}

std::string exchange(uintptr_t handle, const std::string &text) {
    const int status = put(handle, text);
    return status == 0 ? get(handle) : "put " + std::to_string(status);
}

struct Request {
    std::string text;
    uint32_t client = 0;
    int wants_reply = 0;
};

int receive(uintptr_t server, Request *out, int timeout_ms = kPatienceMs, uint32_t capacity = BND_MAX_BYTES) {
    out->text.resize(capacity);
    uint32_t bytes = capacity;
    const int status =
        BND_serverReceive(server, out->text.data(), &bytes, &out->client, &out->wants_reply, timeout_ms);
    out->text.resize(status == 0 ? bytes : 0);
    return status;
}

int reply(uintptr_t server, const Request &request, const std::string &text) {
    return BND_serverReply(server, request.client, text.data(), static_cast<uint32_t>(text.size()));
}

uintptr_t create_server(const char *name = kName) {
    uintptr_t server = 0;
    EXPECT_EQ(BND_serverCreate(name, &server), 0);
    return server;
}

// Answers everything with "re: ..." and does not answer what starts with "mute".
void serve() {
    const uintptr_t server = create_server();
    for (Request request; receive(server, &request, -1) == 0;) {
        if (request.text.rfind("mute", 0) == 0) continue;
        if (request.wants_reply != 0) reply(server, request, "re: " + request.text);
    }
}

// A server in this process, for tests that say when what is answered.
class Binder : public testing::Test {
protected:
    uintptr_t server_ = create_server();
    uintptr_t client_ = open_client();

    ~Binder() override {
        BND_delete(client_);
        BND_serverDelete(server_);
    }
    Request next() const {
        Request request;
        EXPECT_EQ(receive(server_, &request), 0);
        return request;
    }
};

TEST_F(Binder, CarriesMessagesOfEveryLength) {
    for (const size_t bytes : {size_t{0}, size_t{1}, size_t{264}, size_t{BND_MAX_BYTES}}) {
        const std::string text(bytes, 'q');
        ASSERT_EQ(put(client_, text), 0);
        const Request request = next();
        EXPECT_EQ(request.text, text);
        EXPECT_EQ(request.wants_reply, 1);
        EXPECT_EQ(reply(server_, request, text + ""), 0);
        EXPECT_EQ(get(client_), text);
    }
    EXPECT_EQ(put(client_, std::string(BND_MAX_BYTES + 1, 'q')), BND_EFAIL);
}

TEST_F(Binder, KeepsALateAnswerFromTheNextRequest) {
    ASSERT_EQ(put(client_, "first"), 0);
    const Request first = next();
    EXPECT_EQ(get(client_, 5), "status -2");
    ASSERT_EQ(put(client_, "second"), 0);
    const Request second = next();
    EXPECT_EQ(reply(server_, first, "late"), 0);
    EXPECT_EQ(get(client_, 5), "status -2");
    EXPECT_EQ(reply(server_, second, "right"), 0);
    EXPECT_EQ(reply(server_, second, "again"), 0);
    EXPECT_EQ(get(client_), "right");
    EXPECT_EQ(get(client_), "again") << "a daemon may answer more than once";
}

TEST_F(Binder, RefusesWhatDoesNotFit) {
    ASSERT_EQ(put(client_, "long request"), 0);
    Request request;
    EXPECT_EQ(receive(server_, &request, kPatienceMs, 4), BND_ETOOBIG);
    EXPECT_EQ(get(client_), "status -1") << "and the client need not wait for its time-out";
    ASSERT_EQ(put(client_, "ask"), 0);
    reply(server_, next(), "long answer");
    EXPECT_EQ(get(client_, kPatienceMs, 4), "status -4");
    ASSERT_EQ(put(client_, "ask"), 0);
    reply(server_, next(), "fits");
    EXPECT_EQ(get(client_, kPatienceMs, 4), "fits");
}

TEST_F(Binder, RefusesBadNamesHandlesAndUnaskedGets) {
    uintptr_t handle = 1;
    for (const char *name : {"", "a/b", "0123456789012345678901234567890x", "nobody"}) {
        EXPECT_LT(BND_open(name, &handle), 0) << name;
        EXPECT_EQ(handle, 0u);
    }
    EXPECT_EQ(get(client_, 5), "status -1") << "nothing was asked";
    EXPECT_EQ(put(0, "x"), BND_EFAIL);
    const uintptr_t gone = open_client();
    EXPECT_EQ(BND_delete(gone), 0);
    EXPECT_EQ(BND_delete(gone), BND_EFAIL);
    EXPECT_EQ(put(gone, "x"), BND_EFAIL);
    EXPECT_EQ(BND_serverReply(server_, 12345, "x", 1), BND_EFAIL);
    EXPECT_LT(BND_serverCreate(kName, &handle), 0) << "served already";
}

TEST_F(Binder, EveryThreadGetsItsOwnAnswer) {
    constexpr int kThreads = 6;
    constexpr int kCalls = 200;
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([this, i] {
            for (int n = 0; n < kCalls; ++n) {
                const std::string text = std::to_string(i) + ":" + std::to_string(n);
                EXPECT_EQ(exchange(client_, text), "re: " + text);
            }
        });
    }
    // Answers in pairs, the later first, as long as two are waiting.
    for (int answered = 0; answered < kThreads * kCalls;) {
        Request first;
        Request second;
        if (receive(server_, &first) != 0) break;
        if (receive(server_, &second, 0) == 0) {
            reply(server_, second, "re: " + second.text);
            ++answered;
        }
        reply(server_, first, "re: " + first.text);
        ++answered;
    }
    for (std::thread &thread : threads) thread.join();
}

TEST_F(Binder, DeletingWakesWhoWaits) {
    ASSERT_EQ(put(client_, "never answered"), 0);
    std::thread getter([this] {
        ASSERT_EQ(put(client_, "nor this"), 0);
        EXPECT_EQ(get(client_), "status -1");
    });
    Request request = next();
    EXPECT_EQ(next().text, "nor this");
    BND_delete(client_);
    getter.join();
    std::thread receiver([this, &request] { EXPECT_EQ(receive(server_, &request), BND_EFAIL); });
    OSA_sleepMs(5);
    BND_serverDelete(server_);
    receiver.join();
}

int raw_connect(const std::string &name) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof address.sun_path, "%s/%s", world_dir().c_str(), name.c_str());
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    EXPECT_EQ(connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    return fd;
}

TEST_F(Binder, OutlivesClientsThatTalkNonsense) {
    const uint32_t packets[][4] = {
        {0, 0, 0, 0},                    // no magic
        {0x31444E42, 1, 1, 100},         // claims a payload it does not bring
        {0x31444E42, 1, 1, 0xFFFFFFFF},  // and one that cannot be
    };
    for (const auto &packet : packets) {
        for (const size_t bytes : {sizeof packet, size_t{3}}) {
            const int fd = raw_connect(std::string("bnd-") + kName);
            EXPECT_EQ(send(fd, packet, bytes, MSG_NOSIGNAL), static_cast<ssize_t>(bytes));
            Request request;
            EXPECT_EQ(receive(server_, &request, 50), BND_ETIMEOUT);
            char end = 0;
            EXPECT_EQ(recv(fd, &end, 1, 0), 0) << "the connection is closed";
            close(fd);
        }
    }
    ASSERT_EQ(put(client_, "sense"), 0);
    EXPECT_EQ(next().text, "sense");
}

TEST_F(Binder, AChildDoesNotTakeItsParentsAnswers) {
    ASSERT_EQ(put(client_, "parent"), 0);
    const Request parents = next();
    const int child = qel::test::fork_child();
    if (child == 0) qel::test::end_child(exchange(client_, "child") == "for the child" ? 0 : 1);
    const Request childs = next();
    EXPECT_EQ(childs.text, "child");
    reply(server_, parents, "for the parent");
    reply(server_, childs, "for the child");
    EXPECT_EQ(qel::test::wait_for_child(child, kPatienceMs), 0);
    EXPECT_EQ(get(client_), "for the parent");
}

TEST(BinderDeath, ADeadDaemonIsAnErrorAtOnceAndItsSuccessorIsFound) {
    Nursery nursery({serve});
    pid_t daemon = nursery.spawn();
    const uintptr_t client = open_client();
    for (int round = 0; round < 20; ++round) {
        EXPECT_EQ(exchange(client, "alive"), "re: alive");
        ASSERT_EQ(put(client, "mute"), 0);
        std::thread killer([&] { nursery.end(daemon); });
        EXPECT_EQ(get(client), "status -3");
        killer.join();
        EXPECT_EQ(put(client, "nobody"), BND_EPEER);
        daemon = nursery.spawn();
        BND_delete(open_client());  // it serves
    }
    EXPECT_EQ(exchange(client, "alive"), "re: alive");
    BND_delete(client);
}

TEST(BinderDeath, ADaemonOutlivesItsClients) {
    Nursery nursery({serve, [] {
                         const uintptr_t client = open_client();
                         for (;;) {
                             put(client, "mute");
                             exchange(client, "x");
                         }
                     }});
    const pid_t daemon = nursery.spawn(0);
    const uintptr_t client = open_client();
    for (int round = 0; round < 10; ++round) {
        const pid_t victim = nursery.spawn(1);
        OSA_sleepMs(static_cast<unsigned>(round));
        nursery.end(victim);
        EXPECT_EQ(exchange(client, "still there"), "re: still there");
    }
    BND_delete(client);
    nursery.end(daemon);
}

TEST(BinderWorld, EachChipHasItsOwnDaemons) {
    const uintptr_t master = create_server();
    world().chip = 1;
    uintptr_t handle = 0;
    EXPECT_EQ(BND_open(kName, &handle), BND_EPEER);
    const uintptr_t slave = create_server();
    const uintptr_t client = open_client();
    ASSERT_EQ(put(client, "to the slave"), 0);
    Request request;
    EXPECT_EQ(receive(slave, &request), 0);
    EXPECT_EQ(receive(master, &request, 0), BND_ETIMEOUT);
    BND_delete(client);
    BND_serverDelete(slave);
    BND_serverDelete(master);
    world().chip = 0;
}

}  // namespace
