// Forwarding between two processes on the two chips of the board "twin": this one is the master, each
// slave is a child. The children are forked before this process has loaded the library.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <numeric>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "board/core/board.h"
#include "platform/include/xcc.h"
#include "qel/qel.h"
#include "tests/support/library.h"

namespace qel::test {
namespace {

constexpr uint32_t kTestModule = 12;  // what the slaves attach, see serve()
constexpr uint32_t kLateModule = 20;  // attached by kAttachLate
constexpr uint32_t kNobody = 30;      // never attached
constexpr int kProcess = 2;           // "vesta"
constexpr int kShort_ms = 300;

enum Command : uint32_t { kInvert, kMeet, kFail, kDie, kAttachLate, kInOrder, kCountThreads };

// libqel and libxcc name their threads; those of a sanitizer's or an emulator's runtime come and go as they
// like.
int threads_of_library() {
    int count = 0;
    for (const auto &task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string name;
        std::getline(std::ifstream(task.path() / "comm"), name);
        if (name.starts_with("QEL") || name.starts_with("xcc_")) ++count;
    }
    return count;
}

// A thread that was joined stays in the list until the kernel has taken it away.
int threads_left() {
    for (int i = 0; i < 100 && threads_of_library() != 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return threads_of_library();
}

// ---- the slave's side ----

std::optional<Library> slave_library;

void invert(uint8_t *bytes, uint32_t length) {
    for (uint32_t i = 0; i < length; ++i) bytes[i] = static_cast<uint8_t>(~bytes[i]);
}

// Returns 0 once two calls are inside at the same time.
int meet() {
    static std::mutex mutex;
    static std::condition_variable arrived;
    static int inside = 0;
    std::unique_lock lock(mutex);
    ++inside;
    arrived.notify_all();
    return arrived.wait_for(lock, std::chrono::seconds(5), [] { return inside >= 2; }) ? 0 : -1;
}

// Each sending thread counts its requests up from 0.
int in_order(uint32_t tid, uint32_t number) {
    static std::mutex mutex;
    static std::map<uint32_t, uint32_t> next;
    const std::lock_guard lock(mutex);
    return next[tid]++ == number ? 0 : -1;
}

int serve(AdapterMsg *msg) {
    auto *payload = static_cast<uint8_t *>(QEL_ADAPTER_PAYLOAD(msg));
    uint32_t word = 0;
    if (msg->length >= sizeof(word)) memcpy(&word, payload, sizeof(word));
    switch (msg->cmd) {
        case kInvert:
            invert(payload, msg->length);
            return 0;
        case kMeet:
            return meet();
        case kDie:
            raise(SIGKILL);
            return -1;
        case kAttachLate:
            std::thread([] {
                std::this_thread::sleep_for(std::chrono::milliseconds(150));
                CALL(*slave_library, QEL_adapterSlaveAttachProc)(serve, kLateModule);
            }).detach();
            return 0;
        case kInOrder:
            return in_order(msg->tid, word);
        case kCountThreads:
            word = static_cast<uint32_t>(threads_of_library());
            memcpy(payload, &word, sizeof(word));
            return 0;
        default:
            return -1;
    }
}

// A process on chip 1. Forked at once, loads the library on start(), unloads it on stop().
class Slave {
public:
    using Check = std::function<void(const Log &)>;

    explicit Slave(
        board::Board &board, Check at_end = [](const Log &) {}, const std::string &as = "vesta") {
        if (pipe(to_child_.data()) != 0) abort();
        pid_ = fork_child();
        if (pid_ != 0) {
            close(to_child_[0]);
            return;
        }
        close(to_child_[1]);
        if (!told()) end_child(0);
        live(board, at_end, as);
    }
    ~Slave() {
        if (pid_ > 0) stop();
    }
    void start() { EXPECT_EQ(write(to_child_[1], "g", 1), 1); }
    // Its exit code: 0 unless something failed there.
    int stop() {
        close(to_child_[1]);
        const int code = wait_for_child(pid_, 20000);
        pid_ = 0;
        return code;
    }

private:
    bool told() {
        char byte = 0;
        return read(to_child_[0], &byte, 1) == 1;
    }
    [[noreturn]] void live(board::Board &board, const Check &at_end, const std::string &as) {
        board.enter({.chip = 1, .as = as});
        const Log log;
        slave_library.emplace();
        CALL(*slave_library, QEL_adapterSlaveAttachProc)(serve, kTestModule);
        told();  // the end of the pipe
        slave_library.reset();
        EXPECT_EQ(threads_left(), 0) << "threads left behind";
        at_end(log);
        end_child(0);
    }

    std::array<int, 2> to_child_{};
    int pid_ = -1;
};

// ---- the master's side ----

class Message {
public:
    Message(uint32_t module, uint32_t cmd, std::vector<uint8_t> payload = {}, int timeout_ms = 10000)
        : bytes_(sizeof(AdapterMsg) + payload.size()) {
        const AdapterMsg header{1, timeout_ms, 1, 0, module, cmd, static_cast<uint32_t>(payload.size()), 0};
        memcpy(bytes_.data(), &header, sizeof(header));
        std::copy(payload.begin(), payload.end(), bytes_.begin() + sizeof(header));
    }
    AdapterMsg *get() { return reinterpret_cast<AdapterMsg *>(bytes_.data()); }
    std::vector<uint8_t> payload() const { return {bytes_.begin() + sizeof(AdapterMsg), bytes_.end()}; }
    uint32_t size() const { return static_cast<uint32_t>(bytes_.size()); }

private:
    std::vector<uint8_t> bytes_;
};

std::vector<uint8_t> word_bytes(uint32_t word) {
    std::vector<uint8_t> bytes(sizeof(word));
    memcpy(bytes.data(), &word, sizeof(word));
    return bytes;
}

class Forwarding : public testing::Test {
protected:
    ~Forwarding() override {
        library_.reset();
        board_.leave();
    }
    // Loads the library as the master; returns when the slave is there.
    void load(Slave &slave) {
        slave.start();
        board_.enter({.chip = 0, .as = "vesta"});
        library_.emplace();
    }
    int send(Message &message) { return CALL(*library_, QEL_adapterMasterProc)(message.get()); }
    bool inverts(uint32_t bytes) {
        std::vector<uint8_t> payload(bytes);
        std::iota(payload.begin(), payload.end(), static_cast<uint8_t>(bytes));
        Message message(kTestModule, kInvert, payload);
        if (send(message) != 0) return false;
        invert(payload.data(), bytes);
        return message.payload() == payload;
    }

    board::Board board_{board::find_board("twin")};
    Log log_;
    std::optional<Library> library_;
};

TEST_F(Forwarding, GathersTheOtherChipsRecordWhileLoading) {
    Slave slave(board_);
    load(slave);
    EXPECT_TRUE(log_.contains("[libqel] QEL Adapter Master Init !\n"));
    EXPECT_TRUE(log_.contains("[libqel] QEL Adapter Init OK !\n"));
    EXPECT_TRUE(log_.contains("[libqel] QEL product has 2 configs!!!\r\n"));
    EXPECT_TRUE(log_.contains("[libqel] QEL hwid Get OK!\n"));
    EXPECT_EQ(CALL(*library_, QEL_productGetCfgNum)(), 2);
    const auto property = CALL(*library_, QEL_productGetHwidInfoByChip);
    EXPECT_GT(property(1, 5), 0);
    EXPECT_EQ(property(2, 5), -1);
    unsigned char info[4] = {};
    bool has_remote = false;
    for (int i = 0; i < CALL(*library_, QEL_chnMapGetTotalNum)(); ++i) {
        ASSERT_EQ(CALL(*library_, QEL_chnMapGetInfo)(static_cast<unsigned>(i), info), 0);
        if (info[0] != 1) continue;
        has_remote = true;
        EXPECT_EQ(CALL(*library_, QEL_productGetHwidInfoByChn)(static_cast<unsigned>(i), 1), property(1, 1));
    }
    EXPECT_TRUE(has_remote);
    EXPECT_EQ(slave.stop(), 0);
}

TEST_F(Forwarding, AnswersInPlaceWhateverTheLength) {
    Slave slave(board_);
    load(slave);
    for (const uint32_t bytes : {0u, 1u, 31u, 4096u, 65537u, QEL_ADAPTER_MAX_PAYLOAD}) {
        EXPECT_TRUE(inverts(bytes)) << bytes;
    }
    Message message(kTestModule, kInvert, {1, 2, 3});
    EXPECT_EQ(send(message), 0);
    EXPECT_EQ(message.get()->needReply, 0u);
    EXPECT_EQ(message.get()->replied, 1u);
    EXPECT_EQ(message.get()->tid, static_cast<uint32_t>(gettid()));
    EXPECT_EQ(slave.stop(), 0);
}

TEST_F(Forwarding, RefusesWhatCannotBeSent) {
    Slave slave(board_);
    load(slave);
    const auto master_proc = CALL(*library_, QEL_adapterMasterProc);
    EXPECT_EQ(master_proc(nullptr), -1);
    EXPECT_TRUE(log_.contains("(QEL_adapterMasterProc|"));
    EXPECT_TRUE(log_.contains("): pMsg is NULL !\n"));
    Message message(kTestModule, kInvert);
    for (const uint32_t chip : {0u, 2u, 0xFFFFFFFFu}) {
        message.get()->chip = chip;
        EXPECT_EQ(send(message), -1);
    }
    EXPECT_TRUE(log_.contains("): id err :[ffffffff] [2] !\n"));
    message.get()->chip = 1;
    message.get()->length = QEL_ADAPTER_MAX_PAYLOAD + 1;
    EXPECT_EQ(send(message), -1);
    EXPECT_EQ(slave.stop(), 0);
}

TEST_F(Forwarding, ThreadsOfTheMasterAreServedAtTheSameTime) {
    Slave slave(board_);
    load(slave);
    std::atomic<int> met{0};
    const auto send_meet = [&] {
        Message message(kTestModule, kMeet);
        if (send(message) == 0) ++met;
    };
    std::thread other(send_meet);
    send_meet();
    other.join();
    EXPECT_EQ(met, 2);
    EXPECT_EQ(slave.stop(), 0);
}

TEST_F(Forwarding, RequestsOfOneThreadStayInOrder) {
    Slave slave(board_);
    load(slave);
    std::vector<std::thread> senders;
    std::atomic<int> failed{0};
    for (int i = 0; i < 6; ++i) {
        senders.emplace_back([&, i] {
            for (uint32_t number = 0; number < 60; ++number) {
                Message message(kTestModule, kInOrder, word_bytes(number));
                message.get()->needReply = number % 3 == 0 ? 0 : 1;  // some wait, some only send
                if (send(message) != 0) ++failed;
                if (!inverts(static_cast<uint32_t>(number * 17 + static_cast<uint32_t>(i)))) ++failed;
            }
        });
    }
    for (std::thread &sender : senders) sender.join();
    EXPECT_EQ(failed, 0);
    EXPECT_EQ(slave.stop(), 0);
}

TEST_F(Forwarding, SendersThatAreGoneLeaveNoTasksBehindForEver) {
    Slave slave(board_);
    load(slave);
    for (int i = 0; i < 100; ++i) std::thread([&] { EXPECT_TRUE(inverts(64)); }).join();
    Message message(kTestModule, kCountThreads, word_bytes(0));
    ASSERT_EQ(send(message), 0);
    uint32_t threads = 0;
    memcpy(&threads, message.payload().data(), sizeof(threads));
    EXPECT_LT(threads, 80u);
    EXPECT_EQ(slave.stop(), 0);
}

TEST_F(Forwarding, AFailingHandlerEndsTheCallWithAnError) {
    Slave slave(board_, [](const Log &log) {
        EXPECT_TRUE(log.contains("(QEL_adapterSlaveTskRun|"));
        EXPECT_TRUE(log.contains("): Proc[12]:0x"));
        EXPECT_TRUE(log.contains("): cmd:9 of module 7 is not available\n"));
        EXPECT_TRUE(log.contains("): cmd:0 of module 0 with 455 bytes is unknown\n"));
    });
    load(slave);
    Message failing(kTestModule, kFail);
    Message system(QEL_MODULE_SYSTEM, 9);
    Message record(QEL_MODULE_PRODUCT, 0, std::vector<uint8_t>(455));
    for (Message *message : {&failing, &system, &record}) EXPECT_LT(send(*message), 0);
    EXPECT_EQ(log_.count("): Fail to put buffer, status=-"), 3);
    EXPECT_TRUE(inverts(8));
    EXPECT_EQ(slave.stop(), 0);
}

TEST_F(Forwarding, ARequestWaitsUntilItsModuleAttaches) {
    Slave slave(board_, [](const Log &log) { EXPECT_GE(log.count("): Proc[20] doesn't attach !\r\n"), 1); });
    load(slave);
    Message attach(kTestModule, kAttachLate);
    ASSERT_EQ(send(attach), 0);
    Message message(kLateModule, kInvert, {0x0F});
    EXPECT_EQ(send(message), 0);
    EXPECT_EQ(message.payload(), std::vector<uint8_t>{0xF0});
    EXPECT_EQ(slave.stop(), 0);
}

TEST_F(Forwarding, ARequestToNobodyEndsWithItsTimeAndDoesNotHoldUpTheUnloading) {
    Slave slave(board_);
    load(slave);
    std::thread sender([&] {
        Message message(kNobody, 0, {}, kShort_ms);
        EXPECT_LT(send(message), 0);
    });
    sender.join();
    EXPECT_TRUE(inverts(8)) << "other senders are served";
    EXPECT_EQ(slave.stop(), 0);
}

TEST_F(Forwarding, ASlaveThatDiesEndsTheCallAndServesAgainWhenItIsBack) {
    Slave first(board_);
    Slave second(board_);
    load(first);
    Message message(kTestModule, kDie, {}, -1);
    EXPECT_LT(send(message), 0);
    EXPECT_TRUE(log_.contains("): Fail to put buffer, status=-"));
    EXPECT_EQ(first.stop(), 128 + SIGKILL);

    second.start();
    bool served = false;
    for (int i = 0; i < 100 && !served; ++i) served = inverts(16);
    EXPECT_TRUE(served);
    EXPECT_EQ(second.stop(), 0);
}

TEST_F(Forwarding, AForkedChildThatExitsLeavesItsParentsChannelsAlone) {
    Slave slave(board_);
    load(slave);
    const int pid = fork_child();
    if (pid == 0) exit(0);
    EXPECT_EQ(wait_for_child(pid, 10000), 0);
    EXPECT_TRUE(inverts(8));
    EXPECT_EQ(slave.stop(), 0);
}

TEST_F(Forwarding, UnloadingTheMasterLeavesNoThreadAndItMayLoadAgain) {
    Slave slave(board_);
    load(slave);
    EXPECT_TRUE(inverts(8));
    library_.reset();
    EXPECT_EQ(threads_left(), 0);
    library_.emplace();
    EXPECT_TRUE(inverts(8));
    EXPECT_EQ(slave.stop(), 0);
}

TEST_F(Forwarding, OnlyNamedProcessesTakePart) {
    board_.enter({.chip = 0, .as = "sh"});
    library_.emplace();
    EXPECT_TRUE(log_.contains("[libqel] QEL Adapter needn't Init!\n"));
    Message message(kTestModule, kInvert);
    EXPECT_EQ(send(message), -1);
    EXPECT_TRUE(log_.contains("): Handle Need Init !\n"));
    EXPECT_EQ(CALL(*library_, QEL_productGetCfgNum)(), 1);
}

TEST_F(Forwarding, HandlersAreAttachedById) {
    board_.enter({.chip = 0, .as = "sh"});
    library_.emplace();
    const auto attach = CALL(*library_, QEL_adapterSlaveAttachProc);
    const auto detach = CALL(*library_, QEL_adapterSlaveDetachProc);
    EXPECT_EQ(attach(serve, 44), 0);
    EXPECT_EQ(log_.find("Attach Proc").text, "[libqel] QEL adapter Attach Proc[44] OK !\r\n");
    EXPECT_EQ(attach(serve, 45), -1);
    EXPECT_EQ(attach(serve, 0xFFFFFFFF), -1);
    EXPECT_EQ(attach(nullptr, 1), -1);
    EXPECT_EQ(detach(44), 0);
    EXPECT_EQ(detach(44), 0);
    EXPECT_EQ(detach(45), -1);
}

// A master that says what no library would: straight over the channel.
TEST_F(Forwarding, WhatAMasterClaimsIsChecked) {
    Slave slave(board_, [](const Log &log) {
        EXPECT_TRUE(log.contains("): nChipId err:(7)\r\n"));
        EXPECT_TRUE(log.contains("): length err:(8)\r\n"));
        EXPECT_TRUE(log.contains("): length err:(4) [35]\r\n"));
        EXPECT_TRUE(log.contains("): length err:(4294967295) [32]\r\n"));
        EXPECT_TRUE(log.contains("): Proc[45] doesn't attach !\r\n"));
        EXPECT_TRUE(log.contains("): Proc[-1] doesn't attach !\r\n"));
    });
    slave.start();
    board_.enter({.chip = 0, .as = "vesta"});
    const XCC_InitParams init{0, kProcess, 2};
    ASSERT_EQ(XCC_init(&init), 0);
    XCC_CreateParams create{"QEL_MToS1", XCC_CHANNEL_BYTES};
    uintptr_t channel = 0;
    ASSERT_EQ(XCC_create(&create, &channel), 0);
    XCC_BindParams peer{1, kProcess, "QEL_S1ToM"};
    while (XCC_bind(channel, &peer, -1) != 0) {
    }
    const auto put = [&](Message &message, uint32_t bytes) {
        XCC_BufInfo buffer{};
        buffer.addr = message.get();
        buffer.length = bytes;
        buffer.waitReply = 1;
        return XCC_put(channel, &buffer, kShort_ms);
    };
    Message wrong_chip(kTestModule, kInvert);
    wrong_chip.get()->chip = 7;
    EXPECT_LT(put(wrong_chip, wrong_chip.size()), 0);
    Message whole(kTestModule, kInvert, {1, 2, 3, 4});
    EXPECT_LT(put(whole, 8), 0);
    EXPECT_LT(put(whole, whole.size() - 1), 0);
    Message endless(kTestModule, kInvert);
    endless.get()->length = 0xFFFFFFFF;
    EXPECT_LT(put(endless, endless.size()), 0);
    // Two senders: each of these keeps its task waiting for ever.
    Message module_45(45, kInvert);
    module_45.get()->tid = 1;
    EXPECT_LT(put(module_45, module_45.size()), 0);
    Message module_last(0xFFFFFFFF, kInvert);
    module_last.get()->tid = 2;
    EXPECT_LT(put(module_last, module_last.size()), 0);
    whole.get()->tid = 3;
    EXPECT_EQ(put(whole, whole.size()), 0);
    EXPECT_EQ(whole.payload(), (std::vector<uint8_t>{0xFE, 0xFD, 0xFC, 0xFB}));
    EXPECT_EQ(slave.stop(), 0);
    XCC_unBind(channel);
    XCC_delete(channel);
    XCC_deInit();
}

}  // namespace
}  // namespace qel::test
