// The driver's UARTs: moved by requests alone.
#include <gtest/gtest.h>
#include <array>
#include <atomic>
#include <functional>
#include <string>
#include <thread>

#include "tests/board/serial_bench.h"

using namespace qel::test;

namespace {

constexpr uint32_t kGetAttributes = 0xC0044D01;
constexpr uint32_t kSetAttributes = 0xC0044D02;
constexpr uint32_t kUartDrain = 0xC0044D05;
constexpr uint32_t kUartRead = 0xC0044D70;
constexpr uint32_t kUartWrite = 0xC0044D71;
constexpr uint32_t kUartStart = 0xC0044D72;
constexpr uint32_t kSuspendOutput = 0xC0044D76;
constexpr uint32_t kWaitReadable = 0xC0044D80;

struct Transfer {
    void *buffer;
    uint32_t length;
    int32_t timeout_ms;
};

class SerialUart : public testing::Test {
protected:
    int ask(uint32_t request) const { return ops().ioctl(fd_, request, nullptr); }
    int write(std::string text, int32_t timeout_ms = 1000) const {
        Transfer transfer{text.data(), static_cast<uint32_t>(text.size()), timeout_ms};
        return ops().ioctl(fd_, kUartWrite, &transfer);
    }
    int wait(int32_t timeout_ms) const {
        char byte = 0;
        Transfer transfer{&byte, 1, timeout_ms};
        return ops().ioctl(fd_, kWaitReadable, &transfer);
    }
    std::string read(uint32_t most) const {
        std::string text(most, '\0');
        Transfer transfer{text.data(), most, 0};
        const int got = ops().ioctl(fd_, kUartRead, &transfer);
        EXPECT_GE(got, 0);
        EXPECT_EQ(transfer.length, static_cast<uint32_t>(got));
        text.resize(static_cast<size_t>(got));
        return text;
    }
    std::string read_exactly(size_t bytes) const {
        std::string text;
        while (text.size() < bytes && wait(kDeadlineMs) > 0)
            text += read(static_cast<uint32_t>(bytes - text.size()));
        return text;
    }

    OnBoard here_{
        "[[chip.uart]]\nnumber = 3\npeer = { kind = \"echo\" }\n"
        "[[chip.uart]]\nnumber = 4\n"};
    int fd_ = ops().open("/dev/qecUart3", O_RDWR, 0);
};

}  // namespace

TEST_F(SerialUart, WaitsForBytesAndReadsWhatIsThereOnceItIsStarted) {
    EXPECT_EQ(write("x"), -EIO);
    EXPECT_EQ(wait(0), -EIO);
    EXPECT_EQ(ask(kUartStart), 0);
    EXPECT_EQ(wait(0), 0);
    EXPECT_EQ(wait(20), 0) << "the time is over";
    EXPECT_EQ(read(10), "");
    const std::string sent = pattern(300000);
    std::thread writer([&] {
        for (size_t at = 0; at < sent.size(); at += 1000) EXPECT_EQ(write(sent.substr(at, 1000), -1), 1000);
    });
    EXPECT_TRUE(read_exactly(sent.size()) == sent);
    writer.join();
    EXPECT_EQ(ask(kUartDrain), 0);
    Transfer none{nullptr, 1, 0};
    EXPECT_EQ(ops().ioctl(fd_, kUartRead, &none), -EFAULT);
    ops().close(fd_);
    fd_ = ops().open("/dev/qecUart3", O_RDWR, 0);
    EXPECT_EQ(write("x"), -EIO) << "the last close stops it";
}

TEST_F(SerialUart, KeepsItsAttributesAndRefusesWrongOnes) {
    using Attributes = std::array<uint8_t, 8>;
    Attributes record = {0x00, 0x4B, 0, 0, 7, 2, 2, 1};  // 19200 7E2, flow control 1
    const Attributes set = record;
    EXPECT_EQ(ops().ioctl(fd_, kSetAttributes, record.data()), 0);
    for (Attributes wrong : {Attributes{0, 0, 0, 0, 8}, Attributes{0x80, 0x25, 0, 0, 9},
                             Attributes{0x80, 0x25, 0, 0, 8, 3}, Attributes{0x80, 0x25, 0, 0, 8, 0, 1}})
        EXPECT_EQ(ops().ioctl(fd_, kSetAttributes, wrong.data()), -EINVAL);
    record.fill(0);
    EXPECT_EQ(ops().ioctl(fd_, kGetAttributes, record.data()), 0);
    EXPECT_EQ(record, set);
    EXPECT_EQ(shown(here_.board, "/dev/qecUart3", "settings"), "19200 7E2");
}

TEST_F(SerialUart, AWriteThatWaitsGoesOnWhenTheLineDoes) {
    const int fd = ops().open("/dev/qecUart4", O_RDWR, 0);
    ops().close(std::exchange(fd_, fd));
    EXPECT_EQ(ask(kUartStart), 0);
    const FarEnd far(here_.board, "/dev/qecUart4");
    const auto writes_when = [&](const std::function<void()> &resume) {
        std::atomic<int> written = 0;
        std::thread writer([&] { written = write("x", -1); });
        usleep(50000);
        resume();
        for (int i = 0; i < kDeadlineMs && written == 0; ++i) usleep(1000);
        EXPECT_EQ(written, 1);
        here_.board.poke(0, "/dev/qecUart4", {"plug"});  // makes the board ask it again in any case
        writer.join();
    };
    std::array<uint8_t, 8> odd_rate = {0x12, 0x7A, 0, 0, 8, 0, 0, 0};  // 31250: no pseudo-terminal knows it
    EXPECT_EQ(ops().ioctl(fd_, kSetAttributes, odd_rate.data()), 0);
    EXPECT_TRUE(far.write("in"));
    EXPECT_EQ(read_exactly(2), "in");
    EXPECT_EQ(ask(kSuspendOutput), 0);
    writes_when([&] { EXPECT_EQ(ask(kUartStart), 0); });
    EXPECT_EQ(far.read(1), "x");
    size_t sent = 0;
    while (write(std::string(1024, 'y'), 0) == 1024) sent += 1024;  // until nobody takes any more
    writes_when([&] { EXPECT_EQ(far.read(sent).size(), sent); });
}

// Whoever waits is woken also when the line had fallen silent before the board came round to look at it.
TEST_F(SerialUart, ADrainEndsHoweverLittleIsOnTheLine) {
    EXPECT_EQ(ask(kUartStart), 0);
    EXPECT_EQ(here_.board.poke(0, "/dev/qecUart3", {"timed", "1"}).value, 0);
    std::array<uint8_t, 8> fast = {0x00, 0x09, 0x3D, 0, 8, 0, 0, 0};  // 4 Mbaud: 2.5 us a byte
    EXPECT_EQ(ops().ioctl(fd_, kSetAttributes, fast.data()), 0);
    for (int i = 0; i < 2000; ++i) {
        ASSERT_GT(write(std::string(1 + i % 80, 'x')), 0);
        ASSERT_EQ(ask(kUartDrain), 0);
    }
}

TEST_F(SerialUart, CarriesNothingWhileItsPlugIsPulled) {
    EXPECT_EQ(ask(kUartStart), 0);
    here_.board.add_fault("/dev/qecUart3 line:in hang-up at 2");
    EXPECT_EQ(write("one"), 3);
    EXPECT_EQ(read_exactly(1), "o");
    EXPECT_EQ(shown(here_.board, "/dev/qecUart3", "plug"), "pulled");
    here_.board.clear_faults();
    EXPECT_EQ(write("two"), 3);
    EXPECT_EQ(here_.board.poke(0, "/dev/qecUart3", {"plug"}).value, 0);
    EXPECT_EQ(write("three"), 5);
    EXPECT_EQ(read_exactly(5), "three");
}
