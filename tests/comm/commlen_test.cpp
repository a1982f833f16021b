// The length-framed link over a line whose far end is this test: frames and their numbers, replies that
// find their reader, and replies that must not.
#include <algorithm>
#include <atomic>
#include <functional>
#include <thread>

#include "comm/commlen_frame.h"
#include "tests/board/serial_bench.h"
#include "tests/comm/comm_bench.h"

namespace qel::test {
namespace {

using commlen::Frame;
using commlen::Parser;

constexpr const char *kNode = "/dev/ttyS3";
constexpr unsigned kScale = 2;  // of the 2 s that a read takes to fail

std::string board_with_link() { return tty("3", "", "usage = 26"); }

struct Heard {
    uint8_t sequence;
    uint8_t command;
    std::string payload;
};

std::string frame(uint8_t command, const std::string &payload, uint8_t sequence = 1) {
    std::array<uint8_t, commlen::kMaxFrameBytes> out;
    const auto *bytes = reinterpret_cast<const uint8_t *>(payload.data());
    const size_t count = commlen::build({sequence, command, {bytes, payload.size()}}, out);
    return {out.begin(), out.begin() + static_cast<ptrdiff_t>(count)};
}

CommLenMsg message(uint8_t command, const std::string &payload = "") {
    CommLenMsg out{};
    out.command = command;
    out.length = static_cast<uint8_t>(payload.size());
    std::copy(payload.begin(), payload.end(), out.payload);
    return out;
}

std::string payload_of(const CommLenMsg &message) {
    return {message.payload, message.payload + message.length};
}

// The controller: what this test makes of it. `answer` gets every frame heard and says what goes back.
class Controller {
public:
    Controller(const Board &board, std::function<std::string(const Heard &)> answer)
        : end_(board, kNode), answer_(std::move(answer)), thread_([this] { run(); }) {}
    ~Controller() {
        stop_ = true;
        thread_.join();
    }
    void say(const std::string &bytes) const { EXPECT_TRUE(end_.write(bytes)); }

private:
    void run() {
        Parser parser;
        while (!stop_) {
            if (!end_.wait_readable(10)) continue;
            uint8_t bytes[256];
            const ssize_t got = ::read(end_.fd, bytes, sizeof(bytes));
            if (got <= 0) return;
            parser.feed({bytes, static_cast<size_t>(got)}, [&](const Frame &f) {
                say(answer_({f.sequence, f.command, {f.payload.begin(), f.payload.end()}}));
            });
        }
    }

    FarEnd end_;
    std::function<std::string(const Heard &)> answer_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

class Commlen : public testing::Test {
protected:
    Commlen() : bench_(board_with_link(), {.dir = "", .time_scale = kScale}) {
        EXPECT_EQ(CALL(*bench_.library, QEL_commlenCreate)(&link_), 0) << bench_.log.all();
    }
    // Answers with `answer` to every frame heard.
    void answer(std::function<std::string(const Heard &)> answer) {
        controller_.emplace(bench_.board, std::move(answer));
    }
    std::string exchange(const CommLenMsg &request) {
        CommLenMsg reply = message(request.command);
        const int status = CALL(*bench_.library, QEL_commlenExchange)(link_, &request, &reply);
        return status == 0 ? payload_of(reply) : "no reply";
    }
    // Until the receive thread has worked off all that was said so far.
    void settle() { EXPECT_EQ(exchange(message(0xFE, "settled")), "settled"); }

    CommBench bench_;
    CommLen *link_ = nullptr;
    std::optional<Controller> controller_;
};

std::string echo(const Heard &heard) { return frame(heard.command, heard.payload, heard.sequence); }

TEST_F(Commlen, CarriesRequestsAndRepliesOfEveryLength) {
    answer(echo);
    for (const size_t bytes : {size_t{0}, size_t{1}, size_t{127}, size_t{128}, size_t{253}}) {
        const std::string payload = pattern(bytes);
        EXPECT_EQ(exchange(message(0x21, payload)), payload) << bytes;
    }
    CommLenMsg too_long = message(0x21);
    too_long.length = 254;
    EXPECT_EQ(exchange(too_long), "no reply");
}

TEST_F(Commlen, NumbersItsFramesFromZeroAndSkipsZeroAfterwards) {
    const FarEnd far(bench_.board, kNode);
    constexpr size_t kFrames = 600;
    std::vector<uint8_t> numbers;
    const CommLenMsg request = message(0x21);
    for (size_t i = 0; i < kFrames; ++i)
        ASSERT_EQ(CALL(*bench_.library, QEL_commlenWrite)(link_, &request), 0);
    const std::string heard = far.read(kFrames * 6);
    Parser parser;
    parser.feed({reinterpret_cast<const uint8_t *>(heard.data()), heard.size()},
                [&](const Frame &f) { numbers.push_back(f.sequence); });
    ASSERT_EQ(numbers.size(), kFrames);
    for (size_t i = 0; i < kFrames; ++i) ASSERT_EQ(numbers[i], i == 0 ? 0 : (i - 1) % 255 + 1) << i;
}

TEST_F(Commlen, FindsTheReplyAmongNoiseAndOtherReplies) {
    answer([](const Heard &heard) {
        std::string wrong = frame(heard.command, "wrong");
        wrong.back() = static_cast<char>(wrong.back() + 1);
        return "\xAA\xAA" + frame(0x77, "for nobody") + wrong + "\x10\xAA" + echo(heard);
    });
    EXPECT_EQ(exchange(message(0x30, "right")), "right");
}

TEST_F(Commlen, GivesUpAfterItsTimeAndForgetsWhatComesLate) {
    std::atomic<int> silent{1};
    answer([&](const Heard &heard) { return silent-- > 0 ? std::string() : echo(heard); });
    EXPECT_EQ(exchange(message(0x40, "first")), "no reply");
    EXPECT_TRUE(bench_.log.contains("Fail to OSA_semPend -1, wait comandCode:0x40!\n")) << bench_.log.all();
    controller_->say(frame(0x40, "first, late"));
    settle();
    EXPECT_EQ(exchange(message(0x40, "second")), "second");
}

// The late reply comes while the next reader waits already: the request's number tells them apart.
TEST_F(Commlen, DoesNotTakeALateReplyForTheNextOne) {
    std::string late;
    answer([&](const Heard &heard) {
        const std::string reply = echo(heard);
        return heard.payload == "lost" ? (late += reply, std::string()) : late + reply;
    });
    EXPECT_EQ(exchange(message(0x42, "lost")), "no reply");
    const CommLenMsg second = message(0x42, "lost");
    CommLenMsg reply = message(0x42);
    EXPECT_EQ(CALL(*bench_.library, QEL_commlenWrite)(link_, &second), 0);
    EXPECT_EQ(CALL(*bench_.library, QEL_commlenRead)(link_, &reply), -1);
    EXPECT_EQ(exchange(message(0x42, "third")), "third");
}

// Numbers of its own, ahead of ours, behind them or always the same: no reply but the first may get lost.
TEST_F(Commlen, HearsControllersThatCountOnTheirOwn) {
    std::atomic<int> step{1};
    std::atomic<int> number{250};
    answer([&](const Heard &heard) {
        number += step;
        return frame(heard.command, heard.payload, static_cast<uint8_t>(number));
    });
    for (const int one : {1, 0, -1}) {
        step = one;
        int lost = 0;
        for (int i = 0; i < 300; ++i) lost += exchange(message(0x43, std::to_string(i))) != std::to_string(i);
        EXPECT_LE(lost, 2) << "step " << one;
    }
}

TEST_F(Commlen, KeepsNoSecondReplyForTheNextReader) {
    answer([](const Heard &heard) { return echo(heard) + frame(heard.command, "again"); });
    for (int i = 0; i < 20; ++i) {
        const std::string payload = std::to_string(i);
        EXPECT_EQ(exchange(message(0x41, payload)), payload);
        EXPECT_EQ(exchange(message(0xFE, payload)), payload);  // behind the second reply
        EXPECT_EQ(exchange(message(0xFD)), "");                // and behind this one's
    }
}

TEST_F(Commlen, GivesEachOfSeveralReadersAReplyOfItsOwn) {
    constexpr int kReaders = 8;
    std::atomic<int> heard_count{0};
    std::string held;
    answer([&](const Heard &heard) {
        held += echo(heard);
        return ++heard_count == kReaders ? held : std::string();  // nobody is answered before all have asked
    });
    std::vector<std::string> replies(kReaders);
    std::vector<std::thread> readers;
    for (int i = 0; i < kReaders; ++i)
        readers.emplace_back(
            [&, i] { replies[static_cast<size_t>(i)] = exchange(message(0x50, std::to_string(i))); });
    for (std::thread &reader : readers) reader.join();
    std::sort(replies.begin(), replies.end());
    for (int i = 0; i < kReaders; ++i) EXPECT_EQ(replies[static_cast<size_t>(i)], std::to_string(i));
}

TEST_F(Commlen, KeepsCodesApartHoweverManyAreInUse) {
    constexpr int kThreads = 32;
    constexpr int kRounds = 25;
    answer(echo);
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&, i] {
            const auto code = static_cast<uint8_t>(i % QEL_COMMLEN_CODES_MAX);
            const std::string payload(static_cast<size_t>(code) + 1, static_cast<char>(code));
            for (int round = 0; round < kRounds; ++round)
                wrong += exchange(message(code, payload)) != payload;
        });
    }
    for (std::thread &thread : threads) thread.join();
    EXPECT_EQ(wrong, 0) << bench_.log.all();
}

TEST_F(Commlen, RefusesMoreCodesThanItHasSlotsFor) {
    answer([](const Heard &) { return std::string(); });
    std::vector<std::thread> readers;
    for (int i = 0; i <= QEL_COMMLEN_CODES_MAX; ++i)
        readers.emplace_back([&, i] { EXPECT_EQ(exchange(message(static_cast<uint8_t>(i))), "no reply"); });
    for (std::thread &reader : readers) reader.join();
    EXPECT_EQ(bench_.log.count("more than 16 command codes are waited for"), 1);
    EXPECT_EQ(bench_.log.count("Fail to OSA_semPend"), QEL_COMMLEN_CODES_MAX);
}

TEST_F(Commlen, LeavesThePortToWhoHasTheGate) {
    answer(echo);
    EXPECT_EQ(exchange(message(0x60, "before")), "before");
    ASSERT_EQ(CALL(*bench_.library, QEL_commlenSemLock)(link_), 0);
    CommPort *port = nullptr;
    const CommPortDesc description{3};
    CALL(*bench_.library, createCommPort)(&description, &port);
    ASSERT_NE(port, nullptr) << bench_.log.all();
    ASSERT_EQ(port->open(port), 0);
    // Byte by byte, so that a thread that still reads would not miss them all.
    const std::string said = pattern(200);
    std::string got;
    for (const char byte : said) {
        controller_->say(std::string(1, byte));
        char read = 0;
        for (int tries = 0; tries < 50 && port->read(port, &read, 1) == 0; ++tries) continue;
        got += read;
    }
    EXPECT_EQ(got, said);
    port->release(port);
    EXPECT_EQ(CALL(*bench_.library, QEL_commlenSemUnlock)(link_), 0);
    EXPECT_EQ(exchange(message(0x60, "after")), "after");
    EXPECT_NE(CALL(*bench_.library, QEL_commlenSemUnlock)(link_), 0);
    EXPECT_TRUE(bench_.log.contains("lock fail"));
}

TEST_F(Commlen, ChecksTheLinkItIsGiven) {
    const Library &library = *bench_.library;
    CommLenMsg any = message(1);
    uint32_t stranger[4] = {0x15975326};
    auto *wrong = reinterpret_cast<CommLen *>(stranger);
    EXPECT_EQ(CALL(library, QEL_commlenWrite)(nullptr, &any), -1);
    EXPECT_EQ(CALL(library, QEL_commlenRead)(link_, nullptr), -1);
    EXPECT_EQ(bench_.log.count("comLenHandle="), 2);
    EXPECT_EQ(CALL(library, QEL_commlenWrite)(wrong, &any), -1);
    EXPECT_EQ(CALL(library, QEL_commlenRead)(wrong, &any), -1);
    EXPECT_EQ(CALL(library, QEL_commlenSemLock)(wrong), -1);
    EXPECT_EQ(bench_.log.count("magicNum is error\n"), 3);
    CommLen *second = nullptr;
    EXPECT_EQ(CALL(library, QEL_commlenCreate)(&second), 0);
    EXPECT_EQ(second, link_);
}

// The controller that shipped boards have on their link.
TEST(CommlenWithController, TellsGoodRepliesFromAllOthers) {
    CommBench bench(tty("3", "peer = { kind = \"controller\", version = \"IRIS 9\" }", "usage = 26"),
                    {.dir = "", .time_scale = kScale});
    CommLen *link = nullptr;
    ASSERT_EQ(CALL(*bench.library, QEL_commlenCreate)(&link), 0) << bench.log.all();
    const auto ask = [&](uint8_t command, const std::string &payload) {
        CommLenMsg record = message(command, payload);
        const int status = CALL(*bench.library, QEL_commlenExchange)(link, &record, &record);
        return status == 0 ? payload_of(record) : "no reply";
    };
    const auto answers = [&](const char *way) {
        EXPECT_EQ(bench.board.poke(0, kNode, {"answer", way}).value, 0);
    };
    EXPECT_EQ(ask(1, ""), "IRIS 9");
    EXPECT_EQ(ask(3, "\x80"), "\x80");
    answers("twice");
    EXPECT_EQ(ask(3, "\x10"), "\x10");
    answers("once");
    EXPECT_EQ(ask(3, "\x20"), "\x20");
    answers("wrong");
    EXPECT_EQ(ask(3, "\x30"), "no reply");
    answers("late");  // 2.5 s after the request: while the next reader waits
    EXPECT_EQ(ask(3, "\x40"), "no reply");
    EXPECT_EQ(ask(3, "\x50"), "no reply");
    answers("once");
    EXPECT_EQ(ask(3, ""), "\x50");
}

TEST(CommlenWithoutPort, LoadsAndSaysThatThereIsNone) {
    CommBench bench(tty("3"));
    CommLen *link = nullptr;
    EXPECT_EQ(CALL(*bench.library, QEL_commlenCreate)(&link), -1);
    EXPECT_EQ(link, nullptr);
    EXPECT_TRUE(bench.log.contains("WARN  (QEL_commlenCreate|")) << bench.log.all();
    EXPECT_TRUE(bench.log.contains("can not find commlen cfg\n"));
}

}  // namespace
}  // namespace qel::test
