#include "platform/include/xcc.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>
#include <atomic>
#include <csignal>
#include <cstring>
#include <deque>
#include <filesystem>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "platform/common/socket.h"
#include "platform/include/osa.h"
#include "platform/xcc/layout.h"
#include "tests/platform/world.h"
#include "tests/support/library.h"

namespace {

using qel::test::kPatienceMs;
using qel::test::Nursery;

constexpr int32_t kVesta = 2;
constexpr int32_t kTools = 4;
constexpr const char *kMasterName = "QEL_MToS1";
constexpr const char *kSlaveName = "QEL_S1ToM";

// ---- one end ----

struct End {
    uint32_t chip;
    const char *name;
    uint32_t peer_chip;
    const char *peer_name;
};
constexpr End kMaster{0, kMasterName, 1, kSlaveName};
constexpr End kSlave{1, kSlaveName, 0, kMasterName};

class Channel {
public:
    explicit Channel(const End &end, int32_t process_id = kVesta) : end_(end), process_id_(process_id) {
        const XCC_InitParams own{end.chip, process_id, 2};
        XCC_CreateParams params{};
        snprintf(params.name, sizeof params.name, "%s", end.name);
        params.size = XCC_CHANNEL_BYTES;
        EXPECT_EQ(XCC_init(&own), 0);
        EXPECT_EQ(XCC_create(&params, &handle), 0);
    }
    ~Channel() {
        XCC_delete(handle);
        XCC_deInit();
    }
    Channel(const Channel &) = delete;
    Channel &operator=(const Channel &) = delete;

    int bind(int timeout_ms = kPatienceMs) const {
        XCC_BindParams peer{end_.peer_chip, process_id_, {}};
        snprintf(peer.peerName, sizeof peer.peerName, "%s", end_.peer_name);
        return XCC_bind(handle, &peer, timeout_ms);
    }

    uintptr_t handle = 0;

private:
    const End end_;
    const int32_t process_id_;
};

// ---- messages: the first word says what the slave shall do, the rest is a pattern ----

enum Command : uint32_t {
    kAnswer = 1,  // with every byte of the pattern inverted
    kDrop,        // give back without an answer
    kDie,         // while the message is held
    kKeep,        // hold it until kAnswerKept comes
    kAnswerKept,  // answer what was kept, the last first, then this one
    kCount,       // no answer is wanted; kSum asks how many came
    kSum,
};

using Bytes = std::vector<uint8_t>;

Bytes message(Command command, size_t bytes, uint32_t seed = 1) {
    Bytes made(std::max(bytes, sizeof command));
    std::minstd_rand random(seed + 1);
    for (uint8_t &byte : made) byte = static_cast<uint8_t>(random());
    memcpy(made.data(), &command, sizeof command);
    return made;
}

Bytes inverted(Bytes bytes) {
    for (size_t i = sizeof(Command); i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(~bytes[i]);
    return bytes;
}

int put(const Channel &channel, Bytes *bytes, bool wait_reply = true, int timeout_ms = kPatienceMs) {
    XCC_BufInfo info{};
    info.addr = bytes->data();
    info.length = static_cast<uint32_t>(bytes->size());
    info.waitReply = wait_reply ? 1 : 0;
    return XCC_put(channel.handle, &info, timeout_ms);
}

int put_command(const Channel &channel, Command command, int timeout_ms = kPatienceMs) {
    Bytes bytes = message(command, 64);
    return put(channel, &bytes, true, timeout_ms);
}

void expect_answer(const Channel &channel, size_t size, uint32_t seed = 1) {
    Bytes bytes = message(kAnswer, size, seed);
    const Bytes wanted = inverted(bytes);
    EXPECT_EQ(put(channel, &bytes), 0);
    EXPECT_TRUE(bytes == wanted) << size << " bytes, seed " << seed;
}

// ---- the slave ----

class Slave {
public:
    explicit Slave(int32_t process_id = kVesta) : channel_(kSlave, process_id) {}

    // Receives for ever, works on several threads.
    void serve() {
        while (channel_.bind(kPatienceMs) != 0) {
        }
        std::vector<std::thread> workers;
        for (int i = 0; i < 4; ++i) workers.emplace_back([this] { receive_and_work(); });
        for (std::thread &worker : workers) worker.join();
    }

private:
    void receive_and_work() {
        XCC_BufInfo got{};
        while (XCC_get(channel_.handle, &got, -1) == 0) work(got);
    }

    void answer(XCC_BufInfo held) const {
        auto *const bytes = static_cast<uint8_t *>(held.addr);
        for (uint32_t i = sizeof(Command); i < held.length; ++i) bytes[i] = static_cast<uint8_t>(~bytes[i]);
        XCC_put(channel_.handle, &held, -1);
    }

    void work(XCC_BufInfo &got) {
        uint32_t command = 0;
        memcpy(&command, got.addr, sizeof command);
        switch (command) {
            case kAnswer:
                return answer(got);
            case kDie:
                raise(SIGKILL);
                return;
            case kKeep: {
                const std::lock_guard lock(mutex_);
                kept_.push_back(got);
                return;
            }
            case kAnswerKept: {
                const std::lock_guard lock(mutex_);
                for (; !kept_.empty(); kept_.pop_back()) answer(kept_.back());
                return answer(got);
            }
            case kCount:
                ++counted_;
                break;
            case kSum: {
                const uint32_t sum = counted_;
                memcpy(static_cast<uint8_t *>(got.addr) + sizeof command, &sum, sizeof sum);
                XCC_put(channel_.handle, &got, -1);
                return;
            }
            default:
                break;
        }
        XCC_release(channel_.handle, &got);
    }

    Channel channel_;
    std::mutex mutex_;
    std::vector<XCC_BufInfo> kept_;
    std::atomic<uint32_t> counted_{0};
};

void serve() { Slave().serve(); }

class Channels : public testing::Test {
protected:
    Nursery nursery_{{serve}};
    pid_t slave_ = nursery_.spawn();
    Channel master_{kMaster};

    void SetUp() override { ASSERT_EQ(master_.bind(), 0); }
};

TEST_F(Channels, AnswerMessagesOfEveryLengthInPlace) {
    for (const size_t size : {4u, 64u, 65u, 4096u, XCC_CHANNEL_BYTES - 1, XCC_CHANNEL_BYTES}) {
        expect_answer(master_, size);
    }
    Bytes too_long(XCC_CHANNEL_BYTES + 1);
    EXPECT_EQ(put(master_, &too_long), XCC_EFAIL);
}

TEST_F(Channels, ManyThreadsShareOneChannel) {
    std::vector<std::thread> threads;
    for (uint32_t i = 0; i < 8; ++i) {
        threads.emplace_back([this, i] {
            const size_t largest = i == 0 ? XCC_CHANNEL_BYTES : size_t{1000} << i;
            for (uint32_t n = 0; n < 15; ++n) expect_answer(master_, largest - n, i * 1000 + n);
        });
    }
    for (std::thread &thread : threads) thread.join();
}

TEST_F(Channels, AnswersMayComeInAnyOrder) {
    std::vector<std::thread> threads;
    for (uint32_t i = 0; i < 10; ++i) {
        threads.emplace_back([this, i] {
            Bytes bytes = message(kKeep, 5000, i);
            const Bytes wanted = inverted(bytes);
            EXPECT_EQ(put(master_, &bytes), 0);
            EXPECT_TRUE(bytes == wanted) << i;
        });
    }
    std::atomic<bool> all_answered{false};
    std::thread releaser([&] {
        while (!all_answered) put_command(master_, kAnswerKept);
    });
    for (std::thread &thread : threads) thread.join();
    all_answered = true;
    releaser.join();
}

TEST_F(Channels, TellWhyThereIsNoAnswer) {
    EXPECT_EQ(put_command(master_, kDrop), XCC_EDROPPED);
    EXPECT_EQ(put_command(master_, kKeep, 10), XCC_ETIMEOUT);
    // The late answer to what was given up disturbs nobody, and its memory comes back.
    EXPECT_EQ(put_command(master_, kAnswerKept), 0);
    expect_answer(master_, XCC_CHANNEL_BYTES);
    EXPECT_EQ(put_command(master_, kDie), XCC_EPEER);
    EXPECT_EQ(put_command(master_, kAnswer), XCC_EPEER);
}

TEST_F(Channels, PutsWithoutAnswerWaitForRoomAndAllArrive) {
    constexpr uint32_t kMessages = 300;
    Bytes large = message(kCount, 100'000);
    for (uint32_t i = 0; i < kMessages; ++i) EXPECT_EQ(put(master_, &large, false), 0);
    Bytes sum = message(kSum, 64);
    uint32_t counted = 0;
    for (int i = 0; i < kPatienceMs && counted < kMessages; ++i) {  // workers may still be counting
        ASSERT_EQ(put(master_, &sum), 0);
        memcpy(&counted, sum.data() + sizeof(Command), sizeof counted);
    }
    EXPECT_EQ(counted, kMessages);
}

TEST_F(Channels, ASlaveThatDiesEndsThePutAndIsFoundAgain) {
    for (int round = 0; round < 15; ++round) {
        expect_answer(master_, 1000, static_cast<uint32_t>(round));
        std::atomic<bool> stop{false};
        std::vector<std::thread> callers;
        for (int i = 0; i < 3; ++i) {
            callers.emplace_back([&] {
                while (!stop) {
                    Bytes bytes = message(kAnswer, 50'000);
                    const Bytes wanted = inverted(bytes);
                    const int status = put(master_, &bytes);
                    EXPECT_TRUE(status == XCC_EPEER || (status == 0 && bytes == wanted)) << status;
                }
            });
        }
        std::thread keeper([&] { EXPECT_EQ(put_command(master_, kKeep), XCC_EPEER); });
        OSA_sleepMs(static_cast<unsigned>(round));
        nursery_.end(slave_);
        keeper.join();
        slave_ = nursery_.spawn();
        stop = true;
        for (std::thread &caller : callers) caller.join();
        ASSERT_EQ(master_.bind(), 0) << "no more than a wait for the slave to be up";
    }
}

TEST_F(Channels, AreUsableAgainAfterUnbind) {
    expect_answer(master_, 64);
    EXPECT_EQ(XCC_unBind(master_.handle), 0);
    EXPECT_EQ(put_command(master_, kAnswer), XCC_EFAIL);
    EXPECT_EQ(XCC_unBind(master_.handle), XCC_EFAIL);
    ASSERT_EQ(master_.bind(), 0);
    expect_answer(master_, 64);
}

TEST(ChannelLife, UnbindEndsAPutThatWaits) {
    Nursery nursery({serve});
    nursery.spawn();
    const Channel master(kMaster);
    ASSERT_EQ(master.bind(), 0);
    std::thread caller([&] { EXPECT_EQ(put_command(master, kKeep), XCC_EPEER); });
    OSA_sleepMs(300);
    EXPECT_EQ(XCC_unBind(master.handle), 0);
    caller.join();
}

void call_for_ever() {
    const Channel master(kMaster);
    while (master.bind() != 0) {
    }
    std::vector<std::thread> callers;
    for (int i = 0; i < 3; ++i) {
        callers.emplace_back([&] {
            for (uint32_t seed = 0;; ++seed) expect_answer(master, 30'000, seed);
        });
    }
    for (std::thread &caller : callers) caller.join();
}

TEST(ChannelLife, ASlaveServesOneMasterAfterTheOther) {
    Nursery nursery({serve, call_for_ever, [] {
                         const Channel master(kMaster);
                         EXPECT_EQ(master.bind(), 0);
                         expect_answer(master, 1000);
                     }});
    const pid_t slave = nursery.spawn(0);
    for (int round = 0; round < 10; ++round) {
        const pid_t victim = nursery.spawn(1);
        OSA_sleepMs(static_cast<unsigned>(5 * round));
        nursery.end(victim);
        EXPECT_EQ(nursery.wait(nursery.spawn(2)), 0);
    }
    nursery.end(slave);
}

TEST(ChannelLife, MeetOnlyTheirOwnIdentity) {
    Nursery nursery({serve, [] { Slave(kTools).serve(); }});
    nursery.spawn(1);
    {
        const Channel master(kMaster, kVesta);
        EXPECT_EQ(master.bind(50), XCC_ETIMEOUT);
        nursery.spawn(0);
        EXPECT_EQ(master.bind(), 0);
        expect_answer(master, 64);
    }
    const Channel tools(kMaster, kTools);
    EXPECT_EQ(tools.bind(), 0);
    expect_answer(tools, 64);
}

TEST(ChannelLife, ALivingMasterKeepsItsChannel) {
    Nursery nursery({serve, [] {
                         const Channel second(kMaster);
                         EXPECT_EQ(second.bind(50), XCC_ETIMEOUT);
                     }});
    nursery.spawn(0);
    const Channel first(kMaster);
    ASSERT_EQ(first.bind(), 0);
    EXPECT_EQ(nursery.wait(nursery.spawn(1)), 0);
    expect_answer(first, 64);
}

TEST(ChannelLife, TimeOutsAreTheWorlds) {
    qel::test::world().time_scale = 50;
    const Channel slave(kSlave);
    const uint64_t start = OSA_timeMs();
    EXPECT_EQ(slave.bind(1000), XCC_ETIMEOUT);
    EXPECT_GE(OSA_timeMs() - start, 1000u);
    qel::test::world().time_scale = 1;
}

// ---- the slave's end, seen from inside ----

// A master in another process that sends what the test needs.
void send_three() {
    const Channel master(kMaster);
    EXPECT_EQ(master.bind(), 0);
    std::vector<std::thread> callers;
    for (uint32_t i = 0; i < 3; ++i) {
        callers.emplace_back([&] { put_command(master, kAnswer, -1); });
    }
    for (std::thread &caller : callers) caller.join();
}

TEST(SlaveEnd, GivesBackOnlyWhatItHolds) {
    Nursery nursery({send_three});
    const pid_t master = nursery.spawn();
    const Channel slave(kSlave);
    ASSERT_EQ(slave.bind(), 0);
    XCC_BufInfo got{};
    ASSERT_EQ(XCC_get(slave.handle, &got, kPatienceMs), 0);
    EXPECT_EQ(got.length, 64u);
    EXPECT_EQ(got.waitReply, 1u);
    for (const uint32_t slot : {63u, 64u, 0xFFFFFFFFu}) {
        XCC_BufInfo wrong = got;
        wrong.rsv[0] = slot;
        EXPECT_EQ(XCC_put(slave.handle, &wrong, 0), XCC_EFAIL) << slot;
    }
    XCC_BufInfo elsewhere = got;
    elsewhere.addr = &elsewhere;
    EXPECT_EQ(XCC_put(slave.handle, &elsewhere, 0), XCC_EFAIL);
    EXPECT_EQ(XCC_put(slave.handle, &got, 0), 0);
    EXPECT_EQ(XCC_release(slave.handle, &got), XCC_EFAIL) << "given back already";
    ASSERT_EQ(XCC_get(slave.handle, &got, kPatienceMs), 0);
    nursery.end(master);
    while (slave.bind(0) == 0) OSA_sleepMs(1);  // until its death is noticed
    XCC_BufInfo next{};
    EXPECT_EQ(XCC_get(slave.handle, &next, 0), XCC_ETIMEOUT) << "what nobody waits for is not worth the work";
    static_cast<uint8_t *>(got.addr)[0] = 1;
    EXPECT_EQ(XCC_put(slave.handle, &got, 0), XCC_EPEER);
}

TEST(SlaveEnd, KeepsAMessagesMemoryAfterDelete) {
    Nursery nursery({send_three});
    const pid_t master = nursery.spawn();
    XCC_BufInfo got{};
    uintptr_t handle = 0;
    {
        const Channel slave(kSlave);
        handle = slave.handle;
        ASSERT_EQ(slave.bind(), 0);
        ASSERT_EQ(XCC_get(slave.handle, &got, kPatienceMs), 0);
    }
    static_cast<uint8_t *>(got.addr)[got.length - 1] = 1;
    EXPECT_EQ(XCC_release(handle, &got), 0);
    EXPECT_EQ(XCC_release(handle, &got), XCC_EFAIL);
    nursery.end(master);
}

TEST(SlaveEnd, UnbindEndsAGetThatWaits) {
    Nursery nursery({[] {
        const Channel master(kMaster);
        EXPECT_EQ(master.bind(), 0);
        pause();
    }});
    nursery.spawn();
    const Channel slave(kSlave);
    XCC_BufInfo got{};
    EXPECT_EQ(XCC_get(slave.handle, &got, 0), XCC_EFAIL) << "not bound";
    ASSERT_EQ(slave.bind(), 0);
    std::thread getter([&] {
        XCC_BufInfo none{};
        EXPECT_EQ(XCC_get(slave.handle, &none, kPatienceMs), XCC_EFAIL);
    });
    OSA_sleepMs(5);
    EXPECT_EQ(XCC_unBind(slave.handle), 0);
    getter.join();
}

// A master that does not keep to the rules: it greets with memory of its own making.
class Stranger {
public:
    // False when the slave does not take it.
    bool greet(uint32_t claimed_bytes, uint32_t real_bytes, int seals) {
        char name[64];
        qel::xcc::meeting_name(kVesta, 1, kSlaveName, name, sizeof name);
        for (int i = 0; i < kPatienceMs && qel::platform::connect_to(name, &socket_) != 0; ++i)
            OSA_sleepMs(1);
        memory_.reset(memfd_create("stranger", MFD_CLOEXEC | MFD_ALLOW_SEALING));
        EXPECT_EQ(ftruncate(memory_.get(), real_bytes), 0);
        EXPECT_EQ(fcntl(memory_.get(), F_ADD_SEALS, seals), 0);
        qel::xcc::Hello hello{qel::xcc::kMagic, claimed_bytes, 0, kVesta, {}, {}};
        snprintf(hello.name, sizeof hello.name, "%s", kMasterName);
        snprintf(hello.peer_name, sizeof hello.peer_name, "%s", kSlaveName);
        const auto soon = qel::platform::Deadline::after_ms(kPatienceMs);
        EXPECT_EQ(qel::platform::send_packet(socket_.get(), {&hello, sizeof hello}, memory_.get(), soon), 0);
        qel::xcc::Welcome welcome{};
        bool truncated = false;
        EXPECT_GT(qel::platform::wait_readable(socket_.get(), soon), 0);
        qel::platform::receive_packet(socket_.get(), {&welcome, sizeof welcome}, &truncated, nullptr);
        return welcome.accepted == 1;
    }

    qel::xcc::Control &map() const {
        void *const base =
            mmap(nullptr, sizeof(qel::xcc::Control), PROT_READ | PROT_WRITE, MAP_SHARED, memory_.get(), 0);
        EXPECT_NE(base, MAP_FAILED);
        return *static_cast<qel::xcc::Control *>(base);
    }

private:
    qel::platform::Fd socket_;
    qel::platform::Fd memory_;
};

constexpr int kGoodSeals = F_SEAL_SHRINK | F_SEAL_GROW;
constexpr uint32_t kRegion = 4096;
constexpr uint32_t kFile = qel::xcc::kRegionOffset + kRegion;

TEST(SlaveEnd, TakesNoMemoryThatCouldVanish) {
    Nursery nursery({[] {
        EXPECT_FALSE(Stranger().greet(kRegion, kFile - 1, kGoodSeals)) << "smaller than it says";
        EXPECT_FALSE(Stranger().greet(kRegion, kFile, F_SEAL_GROW)) << "could shrink";
        EXPECT_FALSE(Stranger().greet(0xFFFFF000u, kFile, kGoodSeals));
        EXPECT_TRUE(Stranger().greet(kRegion, kFile, kGoodSeals));
    }});
    const pid_t stranger = nursery.spawn();
    const Channel slave(kSlave);
    EXPECT_EQ(slave.bind(), 0);
    EXPECT_EQ(nursery.wait(stranger), 0);
}

TEST(SlaveEnd, ChecksEveryWordOfItsMaster) {
    Nursery nursery({[] {
        Stranger stranger;
        ASSERT_TRUE(stranger.greet(kRegion, kFile, kGoodSeals));
        qel::xcc::Control &control = stranger.map();
        const uint32_t places[][2] = {{0, kRegion + 1}, {kRegion, 1}, {0xFFFFFFC0u, 128},
                                      {1, 8},           {64, 0},      {64, 64}};
        uint32_t posted = 0;
        const auto post = [&](uint32_t slot) {
            control.ring[posted % qel::xcc::kSlots] = slot;
            control.tail = ++posted;
        };
        post(qel::xcc::kSlots);
        post(0xFFFFFFFFu);
        for (uint32_t slot = 0; slot < std::size(places); ++slot) {
            control.slots[slot].offset = places[slot][0];
            control.slots[slot].length = places[slot][1];
            control.slots[slot].state = qel::xcc::kPosted;
            post(slot);
            post(slot);  // twice
        }
        control.bell.fetch_add(1);
        while (control.slots[std::size(places) - 1].state != qel::xcc::kReturned) OSA_sleepMs(1);
        control.tail = posted + 1000;  // more than there can be
        control.bell.fetch_add(1);
        OSA_sleepMs(20);
    }});
    const pid_t stranger = nursery.spawn();
    const Channel slave(kSlave);
    ASSERT_EQ(slave.bind(), 0);
    XCC_BufInfo got{};
    // Polls, since the stranger wakes nobody.
    int status = XCC_ETIMEOUT;
    for (int i = 0; i < kPatienceMs && status == XCC_ETIMEOUT; ++i) status = XCC_get(slave.handle, &got, 1);
    ASSERT_EQ(status, 0) << "the one good message";
    EXPECT_EQ(got.length, 64u);
    EXPECT_EQ(XCC_release(slave.handle, &got), 0);
    EXPECT_EQ(XCC_get(slave.handle, &got, 50), XCC_ETIMEOUT);
    EXPECT_EQ(nursery.wait(stranger), 0);
}

// ---- arguments ----

TEST(Arguments, AreChecked) {
    const XCC_InitParams good{0, kVesta, 2};
    XCC_CreateParams params{};
    uintptr_t handle = 1;
    EXPECT_EQ(XCC_create(&params, &handle), XCC_EFAIL) << "before init";
    EXPECT_EQ(handle, 0u);
    EXPECT_EQ(XCC_deInit(), XCC_EFAIL);
    const XCC_InitParams bad[] = {{0, kVesta, 1}, {2, kVesta, 2}};
    for (const XCC_InitParams &params_of_nobody : bad) EXPECT_EQ(XCC_init(&params_of_nobody), XCC_EFAIL);
    ASSERT_EQ(XCC_init(&good), 0);
    const XCC_InitParams other{1, kVesta, 2};
    EXPECT_EQ(XCC_init(&other), XCC_EFAIL) << "one process, one identity";
    EXPECT_EQ(XCC_init(&good), 0) << "once for each slave";
    params.size = XCC_CHANNEL_BYTES;
    EXPECT_EQ(XCC_create(&params, &handle), XCC_EFAIL) << "no name";
    memset(params.name, 'n', sizeof params.name);
    EXPECT_EQ(XCC_create(&params, &handle), XCC_EFAIL) << "no end of the name";
    snprintf(params.name, sizeof params.name, "../up");
    EXPECT_EQ(XCC_create(&params, &handle), XCC_EFAIL);
    snprintf(params.name, sizeof params.name, "%s", kMasterName);
    ASSERT_EQ(XCC_create(&params, &handle), 0);
    XCC_BufInfo info{};
    EXPECT_EQ(XCC_put(handle, &info, 0), XCC_EFAIL);
    EXPECT_EQ(XCC_get(handle, &info, 0), XCC_EFAIL) << "a master's end only sends";
    EXPECT_EQ(XCC_delete(handle), 0);
    EXPECT_EQ(XCC_delete(handle), XCC_EFAIL);
    EXPECT_EQ(XCC_deInit(), 0);
    EXPECT_EQ(XCC_deInit(), 0);
}

}  // namespace
