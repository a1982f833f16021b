// Device objects: the common check, the life cycle of the two kinds that differ, and the lines of
// "/dev/gpio".
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>

#include "board/core/board.h"
#include "qel/qel.h"
#include "tests/support/library.h"

namespace qel::test {
namespace {

struct PrivateHeader {
    int32_t references;
    uint32_t kind_word;
    int32_t fd;
};

class Objects : public testing::Test {
protected:
    void SetUp() override { log_.clear(); }
    uint32_t created(int word) {
        return static_cast<const uint32_t *>(library_.symbol("g_obj_created_libdvr"))[word];
    }
    static PrivateHeader header(const void *record) {
        return **static_cast<const PrivateHeader *const *>(record);
    }

    struct Entered {
        board::Board board{board::find_board("dome")};
        Entered() { board.enter({.chip = 0, .as = "vesta"}); }
        ~Entered() { board.leave(); }
    };
    Entered world_;
    Log log_;
    Library library_;
};

TEST_F(Objects, AreCheckedToTheDepthAskedFor) {
    const auto verify = CALL(library_, verify_para_comm);
    PrivateHeader closed{1, 0, -1};
    PrivateHeader open{1, 0, 0};
    struct Record {
        void *priv;
    } bare{nullptr}, with_closed{&closed}, with_open{&open};
    struct Case {
        void *thiz;
        int depth, result;
        const char *told;
    };
    const Case cases[] = {
        {nullptr, 0, 0, nullptr},
        {nullptr, -5, 0, nullptr},
        {nullptr, 1, -1, "me: thiz"},
        {nullptr, 3, -1, "me: thiz"},
        {&bare, 1, 0, nullptr},
        {&bare, 2, -2, "me: thiz->priv"},
        {&bare, 3, -2, "me: thiz->priv"},
        {&with_closed, 2, 0, nullptr},
        {&with_closed, 3, -3, "me: priv->common.fd"},
        {&with_open, 3, 0, nullptr},
        {&with_open, 99, 0, nullptr},
    };
    for (const Case &c : cases) {
        log_.clear();
        EXPECT_EQ(verify(c.thiz, c.depth, "me"), c.result) << "depth " << c.depth;
        if (c.told == nullptr) {
            EXPECT_EQ(log_.all(), "");
        } else {
            const std::string line = log_.find("[libqel] ERROR  (verify_para_comm|").text;
            EXPECT_TRUE(line.ends_with(std::string("): ") + c.told)) << line;
        }
    }
}

TEST_F(Objects, WatchdogIsASingletonHandedOutWithoutAReference) {
    const auto create = CALL(library_, createWatchdog);
    EXPECT_EQ(create(nullptr), -1);
    EXPECT_TRUE(log_.contains("Obiect is NULL\n"));

    Watchdog *watchdog = nullptr;
    ASSERT_EQ(create(&watchdog), 0);
    EXPECT_EQ(created(QEL_OBJECT_WATCHDOG), 1u);
    EXPECT_EQ(header(watchdog).references, 0);
    EXPECT_EQ(header(watchdog).fd, -1);

    Watchdog *const sentinel = reinterpret_cast<Watchdog *>(&watchdog);
    Watchdog *second = sentinel;
    EXPECT_EQ(create(&second), -1);
    EXPECT_EQ(second, sentinel);
    EXPECT_TRUE(log_.contains("): Error:OBJ is created\n"));

    EXPECT_EQ(watchdog->release(watchdog), 0);  // nothing to give up: it stays
    EXPECT_EQ(created(QEL_OBJECT_WATCHDOG), 1u);
    EXPECT_EQ(watchdog->addRef(watchdog), 0);
    EXPECT_EQ(watchdog->addRef(watchdog), 0);
    EXPECT_EQ(watchdog->release(watchdog), 0);
    EXPECT_EQ(header(watchdog).references, 1);
    EXPECT_EQ(watchdog->release(watchdog), 0);
    EXPECT_EQ(created(QEL_OBJECT_WATCHDOG), 0u);

    ASSERT_EQ(create(&watchdog), 0);
    watchdog->addRef(watchdog);
    watchdog->release(watchdog);
}

TEST_F(Objects, WatchdogOperationsCheckTheirRecordAndSayWhatIsMissing) {
    Watchdog *watchdog = nullptr;
    ASSERT_EQ(CALL(library_, createWatchdog)(&watchdog), 0);
    EXPECT_EQ(watchdog->feed(watchdog), -1);
    EXPECT_TRUE(log_.contains("(watchdog_feed|"));
    EXPECT_EQ(watchdog->set_time(nullptr, 5), -1);
    EXPECT_TRUE(log_.contains("watchdog_set_time: thiz"));
    Watchdog bare{};
    EXPECT_EQ(watchdog->start(&bare), -1);
    EXPECT_EQ(watchdog->addRef(&bare), -1);
    EXPECT_TRUE(log_.contains("watchdog_addref: thiz->priv"));
    EXPECT_EQ(watchdog->release(&bare), -1);
    EXPECT_TRUE(log_.contains("watchdog_release: thiz->priv"));
    watchdog->addRef(watchdog);
    watchdog->release(watchdog);
}

TEST_F(Objects, FeedingChecksItsTypeFirst) {
    const auto feed = CALL(library_, QEL_wdtFeed);
    for (const int type : {0, 4, -1}) EXPECT_EQ(feed(type), -1);
    EXPECT_EQ(log_.count("(QEL_wdtFeed|"), 3);
    EXPECT_EQ(log_.count("): The Wdt type is invalid\n"), 3);
}

TEST_F(Objects, SeveralGpioObjectsMayExist) {
    const auto create = CALL(library_, createGPIO);
    GPIO *first = nullptr;
    GPIO *second = nullptr;
    ASSERT_EQ(create(&first), 0);
    ASSERT_EQ(create(&second), 0);
    EXPECT_NE(first, second);
    EXPECT_EQ(created(QEL_OBJECT_GPIO), 0u);
    EXPECT_EQ(header(first).references, 1);
    EXPECT_GE(header(first).fd, 0);
    EXPECT_EQ(first->addRef(first), 0);
    EXPECT_EQ(first->release(first), 0);
    EXPECT_EQ(first->release(first), 0);
    int direction = -1;
    EXPECT_EQ(second->get_direction(second, 0, &direction), 0) << "the other object is as it was";
    EXPECT_EQ(second->release(second), 0);
}

TEST_F(Objects, GpioWithoutItsDeviceIsNotMade) {
    world_.board.add_fault("/dev/gpio open fail ENODEV");
    int there = 0;
    GPIO *gpio = reinterpret_cast<GPIO *>(&there);
    testing::internal::CaptureStderr();
    EXPECT_EQ(CALL(library_, createGPIO)(&gpio), -1);
    const std::string told = testing::internal::GetCapturedStderr();
    EXPECT_EQ(gpio, nullptr);
    EXPECT_EQ(told.rfind("err: FILE -> gpio, LINE -> ", 0), 0u) << told;
    EXPECT_TRUE(told.ends_with(": \nopen /dev/gpio ")) << told;
}

class Gpio : public Objects {
protected:
    void SetUp() override {
        Objects::SetUp();
        ASSERT_EQ(CALL(library_, createGPIO)(&gpio_), 0);
    }
    void TearDown() override {
        if (gpio_ != nullptr) gpio_->release(gpio_);
    }
    // Something outside the board drives the line.
    void drive(unsigned line, int level) {
        const std::vector<std::string> words = {"drive", std::to_string(line), std::to_string(level)};
        ASSERT_EQ(world_.board.poke(0, "/dev/gpio", words).value, 0);
    }
    GPIO *gpio_ = nullptr;
};

TEST_F(Gpio, LinesAreDrivenAndRead) {
    int value = -1;
    ASSERT_EQ(gpio_->set_direction(gpio_, 1, QEL_GPIO_OUT), 0);
    EXPECT_EQ(gpio_->get_direction(gpio_, 1, &value), 0);
    EXPECT_EQ(value, static_cast<int>(QEL_GPIO_OUT));
    for (const int level : {1, 0, 1}) {
        EXPECT_EQ(gpio_->write(gpio_, 1, level), 0);
        EXPECT_EQ(gpio_->read(gpio_, 1, &value), 0);
        EXPECT_EQ(value, level);
    }
    ASSERT_EQ(gpio_->set_direction(gpio_, 2, QEL_GPIO_IN), 0);
    drive(2, 1);
    EXPECT_EQ(gpio_->read(gpio_, 2, &value), 0);
    EXPECT_EQ(value, 1);
}

TEST_F(Gpio, WrongRequestsFailWithALine) {
    int value = 0;
    ASSERT_EQ(gpio_->set_direction(gpio_, 2, QEL_GPIO_IN), 0);
    EXPECT_EQ(gpio_->write(gpio_, 2, 1), -1);
    EXPECT_EQ(gpio_->read(gpio_, 9999, &value), -1);
    EXPECT_EQ(gpio_->set_direction(gpio_, 1, 7), -1);
    EXPECT_EQ(gpio_->read(gpio_, 1, nullptr), -1);
    EXPECT_EQ(gpio_->wait_edge(gpio_, nullptr, 0), -1);
    EXPECT_EQ(log_.count("[libqel] ERROR  (gpio_"), 5);
}

TEST_F(Gpio, EdgesAreWaitedForOnAllArmedLines) {
    GpioEvent event{};
    EXPECT_EQ(gpio_->wait_edge(gpio_, &event, 0), QEL_ETIMEOUT);
    for (const unsigned line : {2u, 3u}) {
        ASSERT_EQ(gpio_->set_direction(gpio_, line, QEL_GPIO_IN), 0);
        drive(line, 0);
    }
    ASSERT_EQ(gpio_->set_edge(gpio_, 2, QEL_GPIO_EDGE_RISING), 0);
    ASSERT_EQ(gpio_->set_edge(gpio_, 3, QEL_GPIO_EDGE_BOTH), 0);
    drive(3, 1);
    drive(2, 1);
    drive(2, 0);  // not asked for
    drive(3, 0);
    const unsigned expected[][2] = {
        {3, QEL_GPIO_EDGE_RISING}, {2, QEL_GPIO_EDGE_RISING}, {3, QEL_GPIO_EDGE_FALLING}};
    for (const auto &[line, edge] : expected) {
        ASSERT_EQ(gpio_->wait_edge(gpio_, &event, 1000), 0);
        EXPECT_EQ(event.line, line);
        EXPECT_EQ(event.edge, edge);
    }
    EXPECT_EQ(gpio_->wait_edge(gpio_, &event, 1), QEL_ETIMEOUT);
}

TEST_F(Gpio, AnEdgeWakesOneWaiterAndTheOthersTimeOut) {
    ASSERT_EQ(gpio_->set_direction(gpio_, 2, QEL_GPIO_IN), 0);
    drive(2, 0);
    ASSERT_EQ(gpio_->set_edge(gpio_, 2, QEL_GPIO_EDGE_RISING), 0);
    std::atomic<int> got{0};
    std::atomic<int> over{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 3; ++i) {
        waiters.emplace_back([&] {
            GpioEvent event{};
            (gpio_->wait_edge(gpio_, &event, 300) == 0 ? got : over)++;
        });
    }
    drive(2, 1);
    for (std::thread &waiter : waiters) waiter.join();
    EXPECT_EQ(got, 1);
    EXPECT_EQ(over, 2);
}

}  // namespace
}  // namespace qel::test
