// The contracts of the device models, through the gate, as the library's modules meet them.
#include <gtest/gtest.h>
#include <poll.h>
#include <array>
#include <thread>

#include "qel/gpio_driver.h"
#include "tests/board/probe.h"

using namespace qel::test;

namespace {

constexpr uint32_t kGetRecord = 0xC0044800;
constexpr uint32_t kGetSensors = 0xC0044806;
constexpr uint32_t kGetTotal = 0xC0044300;
constexpr uint32_t kGetTable = 0xC0044301;

struct SensorArgument {
    uint32_t count;
    uint32_t word;
    void *entries;
};

using Record = std::array<uint8_t, 456>;

Record record_of(const std::string &hwid) {
    OnBoard here("[chip.hwid]\nname = \"N\"\n" + hwid);
    Record record;
    record.fill(0xAA);
    EXPECT_EQ(ops().ioctl(ops().open("/dev/qecHwid", O_RDWR, 0), kGetRecord, record.data()), 0);
    return record;
}

unsigned u16_at(const Record &record, size_t at) { return record[at] | unsigned{record[at + 1]} << 8; }

}  // namespace

TEST(HwidModel, PutsEveryDescribedFieldInItsPlace) {
    const Record record = record_of(
        "info = \"0102\"\nbase_config = \"0a0b\"\nmaster_slave_mark = 9\n"
        "[chip.hwid.properties]\n26 = 0x1234\n5 = 18\n19 = 2\n29 = 0xFFFF\n"
        "[chip.hwid.bytes]\n4 = \"ee\"\n36 = \"07\"\n455 = \"77\"\n");
    EXPECT_EQ(u16_at(record, 0), 0x1234U);
    EXPECT_EQ(record[4], 0xEE);
    EXPECT_EQ(record[36], 9) << "the key wins over the byte";
    EXPECT_EQ(record[37], 1) << "number of chips";
    EXPECT_EQ(record[38], 0) << "number of this chip";
    EXPECT_EQ(record[68], 1);
    EXPECT_EQ(record[112], 'N');
    EXPECT_EQ(record[113], 0);
    EXPECT_EQ(u16_at(record, 152), 18U);
    EXPECT_EQ(u16_at(record, 146), 2U);
    EXPECT_EQ(u16_at(record, 202), 0xFFFFU);
    EXPECT_EQ(record[329], 0x0B);
    EXPECT_EQ(record[455], 0x77);
    EXPECT_EQ(record[454], 0) << "all of the record is written";
}

TEST(HwidModel, ClaimsWhatItIsTold) {
    const Record record = record_of("chips = 0\nchip_index = 3\n");
    EXPECT_EQ(record[37], 0);
    EXPECT_EQ(record[38], 3);
}

TEST(HwidModel, AnswersSensorsInTwoSteps) {
    OnBoard here("[chip.hwid]\nname = \"N\"\nsensor = [{ entry = \"01\" }, { entry = \"02\" }]\n");
    const int fd = ops().open("/dev/qecHwid", O_RDWR, 0);
    SensorArgument argument{77, 5, nullptr};
    EXPECT_EQ(ops().ioctl(fd, kGetSensors, &argument), 0);
    EXPECT_EQ(argument.count, 2U);
    EXPECT_EQ(argument.word, 5U);
    std::array<uint8_t, 129> entries;
    entries.fill(0xAA);
    argument.entries = entries.data();
    EXPECT_EQ(ops().ioctl(fd, kGetSensors, &argument), 0);
    EXPECT_EQ(entries[0], 1);
    EXPECT_EQ(entries[1], 0);
    EXPECT_EQ(entries[64], 2);
    EXPECT_EQ(entries[127], 0);
    EXPECT_EQ(entries[128], 0xAA);
    // Room for one entry only: no byte behind it is touched, the count says how many there are.
    entries.fill(0xAA);
    argument.count = 1;
    EXPECT_EQ(ops().ioctl(fd, kGetSensors, &argument), 0);
    EXPECT_EQ(argument.count, 2U);
    EXPECT_EQ(entries[63], 0);
    EXPECT_EQ(entries[64], 0xAA);
    EXPECT_EQ(ops().ioctl(fd, kGetSensors, nullptr), -EFAULT);
}

TEST(ChannelMapModel, FillsTypesAndCategoriesFromTheOwningChip) {
    Board board(find_board("twin"));
    board.enter();
    const int fd = ops().open("/dev/qecChnMap", O_RDWR, 0);
    uint32_t total = 0;
    EXPECT_EQ(ops().ioctl(fd, kGetTotal, &total), 0);
    ASSERT_EQ(total, 3U);
    std::array<uint8_t, 49> table;
    table.fill(0xAA);
    EXPECT_EQ(ops().ioctl(fd, kGetTable, table.data()), 0);
    const std::array<std::array<uint8_t, 5>, 3> expected = {
        {{0, 0, 31, 0, 3}, {1, 0, 31, 1, 3}, {2, 1, 32, 0, 4}}};
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_TRUE(std::equal(expected[i].begin(), expected[i].end(), &table[i * 16])) << i;
        EXPECT_EQ(table[i * 16 + 5], 0);
        EXPECT_EQ(table[i * 16 + 15], 0);
    }
    EXPECT_EQ(table[48], 0xAA);
    EXPECT_EQ(ops().ioctl(fd, kGetTable, nullptr), -EFAULT);
}

TEST(ChannelMapModel, MayClaimMoreOrFewerChannelsThanItHas) {
    for (const uint32_t claimed : {0U, 1U, 2000U}) {
        OnBoard here("[chip.channel_map]\ntotal = " + std::to_string(claimed) + "\nchannel = [{}, {}]\n");
        const int fd = ops().open("/dev/qecChnMap", O_RDWR, 0);
        uint32_t total = 77;
        std::array<uint8_t, 33> table;
        table.fill(0xAA);
        EXPECT_EQ(ops().ioctl(fd, kGetTotal, &total), 0);
        EXPECT_EQ(total, claimed);
        EXPECT_EQ(ops().ioctl(fd, kGetTable, table.data()), 0);
        EXPECT_EQ(table[std::min(claimed, 2U) * 16], 0xAA) << "no more than it has";
    }
}

TEST(MiscModel, AnswersTheReservedMemoryAndNoRequestOfOtherDevices) {
    OnBoard here("[chip.misc]\nreserved_memory_start = 0x8F000000\nreserved_memory_bytes = 0x100000\n");
    const int fd = ops().open("/dev/qecMisc", O_RDWR, 0);
    uint32_t memory[3] = {1, 2, 3};
    EXPECT_EQ(ops().ioctl(fd, 0xC0044D4B, memory), 0);
    EXPECT_EQ(memory[0], 0x8F000000U);
    EXPECT_EQ(memory[1], 0x100000U);
    EXPECT_EQ(memory[2], 3U);
    uint32_t line[2] = {1, 1};
    EXPECT_EQ(ops().ioctl(fd, 0xC0044D04, line), -ENOTTY);
    EXPECT_EQ(ops().ioctl(fd, kGetRecord, line), -ENOTTY);
}

class GpioModel : public testing::Test {
protected:
    OnBoard here_{"[chip.gpio]\nlines = 4\nhigh = [3]\nwire = [{ from = 0, to = 1 }]\n",
                  {.dir = "", .time_scale = 100}};
    int fd_ = ops().open(QEL_GPIO_DEVICE, O_RDWR, 0);

    int ask(uint32_t request, uint32_t line, uint32_t value) {
        qel_gpio_line record{line, value};
        return ops().ioctl(fd_, request, &record);
    }
    uint32_t get(uint32_t request, uint32_t line) {
        qel_gpio_line record{line, 77};
        EXPECT_EQ(ops().ioctl(fd_, request, &record), 0);
        return record.value;
    }
    int wait_edge(uint32_t line, int32_t timeout_ms, qel_gpio_edge &edge) {
        edge = {line, timeout_ms, 77, 77, 0};
        return ops().ioctl(fd_, QEL_GPIO_WAIT_EDGE, &edge);
    }
    int64_t drive(uint32_t line, int level) {
        return here_.board.poke(0, QEL_GPIO_DEVICE, {"drive", std::to_string(line), std::to_string(level)})
            .value;
    }
};

TEST_F(GpioModel, StartsWithInputsAtTheirLevels) {
    uint32_t count = 0;
    EXPECT_EQ(ops().ioctl(fd_, QEL_GPIO_GET_COUNT, &count), 0);
    EXPECT_EQ(count, 4U);
    EXPECT_EQ(get(QEL_GPIO_GET_DIRECTION, 0), QEL_GPIO_IN);
    EXPECT_EQ(get(QEL_GPIO_READ, 0), 0U);
    EXPECT_EQ(get(QEL_GPIO_READ, 3), 1U);
}

TEST_F(GpioModel, RefusesWhatALineCannotDo) {
    EXPECT_EQ(ask(QEL_GPIO_SET_DIRECTION, 2, QEL_GPIO_OUT), 0);
    const struct {
        uint32_t request, line, value;
        int result;
    } kRequests[] = {
        {QEL_GPIO_READ, 4, 0, -EINVAL},
        {QEL_GPIO_READ, UINT32_MAX, 0, -EINVAL},
        {QEL_GPIO_SET_DIRECTION, 0, 2, -EINVAL},
        {QEL_GPIO_WRITE, 0, 1, -EPERM},
        {QEL_GPIO_WRITE, 2, 2, -EINVAL},
        {QEL_GPIO_SET_EDGE, 2, QEL_GPIO_EDGE_BOTH, -EPERM},
        {QEL_GPIO_SET_EDGE, 0, 4, -EINVAL},
        {QEL_GPIO_WRITE, 2, 1, 0},
        {QEL_GPIO_SET_EDGE, 0, QEL_GPIO_EDGE_NONE, 0},
    };
    for (const auto &one : kRequests)
        EXPECT_EQ(ask(one.request, one.line, one.value), one.result)
            << std::hex << one.request << " " << one.value;
    EXPECT_EQ(ops().ioctl(fd_, QEL_GPIO_READ, nullptr), -EFAULT);
    EXPECT_EQ(drive(2, 1), -EBUSY);
    EXPECT_EQ(drive(4, 1), -EINVAL);
    EXPECT_EQ(drive(0, 2), -EINVAL);
}

TEST_F(GpioModel, LeadsAnOutputToTheWiredInputAndKeepsItsLatch) {
    EXPECT_EQ(ask(QEL_GPIO_SET_DIRECTION, 0, QEL_GPIO_OUT), 0);
    EXPECT_EQ(ask(QEL_GPIO_WRITE, 0, 1), 0);
    EXPECT_EQ(get(QEL_GPIO_READ, 0), 1U);
    EXPECT_EQ(get(QEL_GPIO_READ, 1), 1U);
    EXPECT_EQ(ask(QEL_GPIO_SET_DIRECTION, 0, QEL_GPIO_IN), 0);
    EXPECT_EQ(drive(0, 0), 0);
    EXPECT_EQ(get(QEL_GPIO_READ, 1), 1U) << "an input drives no wire";
    EXPECT_EQ(ask(QEL_GPIO_SET_DIRECTION, 0, QEL_GPIO_OUT), 0);
    EXPECT_EQ(get(QEL_GPIO_READ, 0), 1U);
}

TEST_F(GpioModel, KeepsTheEdgesAskedForInTheirOrder) {
    qel_gpio_edge first{};
    qel_gpio_edge second{};
    EXPECT_EQ(wait_edge(0, 0, first), -EINVAL) << "none asked for";
    EXPECT_EQ(ask(QEL_GPIO_SET_EDGE, 0, QEL_GPIO_EDGE_BOTH), 0);
    EXPECT_EQ(ask(QEL_GPIO_SET_EDGE, 3, QEL_GPIO_EDGE_RISING), 0);
    EXPECT_EQ(wait_edge(0, 0, first), -ETIMEDOUT);
    EXPECT_EQ(drive(0, 1), 0);
    EXPECT_EQ(drive(0, 1), 0) << "no change, no edge";
    EXPECT_EQ(drive(3, 0), 0) << "not the direction asked for";
    EXPECT_EQ(drive(0, 0), 0);
    EXPECT_EQ(wait_edge(3, 1000, second), -ETIMEDOUT);
    EXPECT_EQ(wait_edge(0, -1, first), 0);
    EXPECT_EQ(wait_edge(0, -1, second), 0);
    EXPECT_EQ(first.edge, QEL_GPIO_EDGE_RISING);
    EXPECT_EQ(first.timeout_ms, -1);
    EXPECT_EQ(first.lost, 0U);
    EXPECT_EQ(second.edge, QEL_GPIO_EDGE_FALLING);
    EXPECT_GT(first.timestamp_us, 0U);
    EXPECT_LE(first.timestamp_us, second.timestamp_us);
    EXPECT_EQ(wait_edge(0, 0, first), -ETIMEDOUT);
}

TEST_F(GpioModel, CountsTheEdgesItLost) {
    EXPECT_EQ(ask(QEL_GPIO_SET_EDGE, 0, QEL_GPIO_EDGE_BOTH), 0);
    for (unsigned i = 0; i < QEL_GPIO_EDGE_QUEUE + 3; ++i) drive(0, i % 2 == 0 ? 1 : 0);
    qel_gpio_edge edge{};
    EXPECT_EQ(wait_edge(0, 0, edge), 0);
    EXPECT_EQ(edge.lost, 3U);
    EXPECT_EQ(edge.edge, QEL_GPIO_EDGE_FALLING) << "the fourth edge is the oldest left";
    for (unsigned i = 1; i < QEL_GPIO_EDGE_QUEUE; ++i) EXPECT_EQ(wait_edge(0, 0, edge), 0);
    EXPECT_EQ(edge.lost, 0U);
    EXPECT_EQ(wait_edge(0, 0, edge), -ETIMEDOUT);
    for (unsigned i = 0; i < QEL_GPIO_EDGE_QUEUE + 1; ++i) drive(0, get(QEL_GPIO_READ, 0) == 0 ? 1 : 0);
    EXPECT_EQ(wait_edge(0, 0, edge), 0);
    EXPECT_EQ(edge.lost, 1U) << "those told already are not told again";
}

TEST_F(GpioModel, WakesPollAndReadAndEveryDescriptorForItself) {
    const int other = ops().open(QEL_GPIO_DEVICE, O_RDWR | O_NONBLOCK, 0);
    EXPECT_EQ(ask(QEL_GPIO_SET_EDGE, 2, QEL_GPIO_EDGE_RISING), 0);
    pollfd both[2] = {{fd_, POLLIN, 0}, {other, POLLIN, 0}};
    EXPECT_EQ(ops().poll(both, 2, 0), 0);
    qel_gpio_edge edge{};
    EXPECT_EQ(ops().read(other, &edge, sizeof(edge)), -EAGAIN);
    std::thread hand([&] { drive(2, 1); });
    EXPECT_EQ(ops().poll(both, 2, -1), 1);
    hand.join();
    EXPECT_EQ(both[1].revents, 0) << "this one asked for nothing";
    EXPECT_EQ(ops().read(fd_, &edge, sizeof(edge) - 1), -EINVAL);
    EXPECT_EQ(ops().read(fd_, &edge, sizeof(edge)), static_cast<ssize_t>(sizeof(edge)));
    EXPECT_EQ(edge.line, 2U);
    EXPECT_EQ(edge.edge, QEL_GPIO_EDGE_RISING);
    EXPECT_EQ(ops().poll(both, 2, 0), 0);
}
