// The length-framed link over a line whose far end is this test: frames and their numbers, replies that
// find their reader, and replies that must not.
#include <algorithm>
#include <atomic>
#include <functional>
#include <thread>
#include <utility>

#include "comm/commlen_frame.h"
#include "tests/comm/port_bench.h"

namespace qel::test {
namespace {

using commlen::Frame;
using commlen::Parser;

constexpr const char *kNode = "/dev/ttyS3";
constexpr unsigned kScale = 2;  // of the 2 s that a read takes to fail

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
    Commlen() : Commlen("") {}
    explicit Commlen(const std::string &port_keys)
        : bench_(tty("3", "", "usage = 26" + port_keys), {.dir = "", .time_scale = kScale}) {
        EXPECT_EQ(CALL(bench_, QEL_commlenCreate)(&link_), 0) << bench_.log.all();
    }
    // Answers with `answer` to every frame heard.
    void answer(std::function<std::string(const Heard &)> answer) {
        controller_.emplace(bench_.board, std::move(answer));
    }
    std::string exchange(const CommLenMsg &request) {
        CommLenMsg reply = message(request.command);
        const int status = CALL(bench_, QEL_commlenExchange)(link_, &request, &reply);
        return status == 0 ? payload_of(reply) : "no reply";
    }

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

TEST_F(Commlen, NumbersItsFramesFromZeroAndSkipsZeroUntilItStartsAnew) {
    const FarEnd far(bench_.board, kNode);
    const CommLenMsg request = message(0x21);
    for (int turn = 0; turn < 2; ++turn) {
        ASSERT_EQ(CALL(bench_, QEL_commlenCreate)(&link_), 0);
        for (int i = 0; i < 600; ++i) {
            ASSERT_EQ(CALL(bench_, QEL_commlenWrite)(link_, &request), 0);
            const int number = i == 0 ? 0 : (i - 1) % 255 + 1;
            ASSERT_EQ(far.read(6), frame(0x21, "", static_cast<uint8_t>(number))) << i;
        }
        ASSERT_EQ(CALL(bench_, QEL_commlenDeinit)(), 0);
        ASSERT_EQ(CALL(bench_, QEL_commlenInit)(), 0);
    }
}

TEST_F(Commlen, EndsItsReadWithoutAnErrorWhenTheLibraryGoes) {
    answer(echo);
    EXPECT_EQ(exchange(message(0x61, "before")), "before");  // so its thread is in the port
    bench_.log.clear();
    bench_.library.reset();
    for (const LogLine &line : bench_.log.lines()) EXPECT_NE(line.level, 0) << line.text;
}

// A flipped bit in a length byte costs a moment, not the replies that follow.
TEST_F(Commlen, FindsTheReplyAmongNoiseAndOtherReplies) {
    answer([](const Heard &heard) {
        if (heard.payload == "behind a promise") return std::string("\xAA\x10\x01\xFF", 4) + echo(heard);
        std::string wrong = frame(heard.command, "wrong");
        wrong.back() = static_cast<char>(wrong.back() + 1);
        return "\xAA\xAA" + frame(0x77, "for nobody") + wrong + "\x10\xAA" + echo(heard);
    });
    for (const char *payload : {"right", "behind a promise"})
        EXPECT_EQ(exchange(message(0x30, payload)), payload);
}

// Says nothing to what is "lost", and that reply before the next one.
std::function<std::string(const Heard &)> answer_late() {
    return [late = std::string()](const Heard &heard) mutable {
        const std::string reply = echo(heard);
        return heard.payload == "lost" ? (late += reply, std::string()) : std::exchange(late, "") + reply;
    };
}

// The late reply comes while the next reader waits already, when the request's number tells them apart, or
// while nobody does.
TEST_F(Commlen, DoesNotTakeALateReplyForTheNextOne) {
    answer(answer_late());
    EXPECT_EQ(exchange(message(0x42, "lost")), "no reply");
    bench_.expect_logged({"Fail to OSA_semPend -1, wait comandCode:0x42!\n"});
    const CommLenMsg second = message(0x42, "lost");
    CommLenMsg reply = message(0x42);
    EXPECT_EQ(CALL(bench_, QEL_commlenWrite)(link_, &second), 0);
    EXPECT_EQ(CALL(bench_, QEL_commlenRead)(link_, &reply), -1);
    EXPECT_EQ(exchange(message(0x42, "third")), "third");
    controller_->say(frame(0x42, "lost"));
    EXPECT_EQ(exchange(message(0xFE, "settled")), "settled");  // its thread has worked that off
    EXPECT_EQ(exchange(message(0x42, "fourth")), "fourth");
}

class CommlenOnRs485 : public Commlen {
protected:
    CommlenOnRs485() : Commlen("\ndirection_line = 6") {}
};

// The frame went out whole, only its end was not told.
TEST_F(CommlenOnRs485, DoesNotTakeTheReplyToAWriteThatFailed) {
    answer(answer_late());
    bench_.board.add_fault("/dev/ttyS3 term fail EIO");
    EXPECT_EQ(exchange(message(0x42, "lost")), "no reply");
    bench_.board.clear_faults();
    bench_.expect_logged({"(QEL_commlenExchange|", "): wrote -1 of 10 bytes\n"});
    EXPECT_EQ(exchange(message(0x42, "second")), "second");
}

// Frames that nobody asked for have numbers of their own, which teach nothing about those of replies.
TEST_F(Commlen, AsksNothingOfACodeWhoseReplyHasAnotherOne) {
    answer([later = answer_late()](const Heard &heard) {
        return heard.command == 0x10 ? frame(0x90, "done", heard.sequence) : later(heard);
    });
    const CommLenMsg request = message(0x10);
    CommLenMsg reply = message(0x90);
    EXPECT_EQ(CALL(bench_, QEL_commlenExchange)(link_, &request, &reply), 0);
    std::atomic<bool> heard{false};
    std::thread listener([&] {
        CommLenMsg unasked = message(0x10);
        EXPECT_EQ(CALL(bench_, QEL_commlenRead)(link_, &unasked), 0);
        heard = true;
    });
    for (; !heard; std::this_thread::sleep_for(std::chrono::milliseconds(5)))
        controller_->say(frame(0x10, "unasked", 0x77));
    listener.join();
    EXPECT_EQ(exchange(message(0x42, "lost")), "no reply");
    EXPECT_EQ(exchange(message(0x42, "second")), "second");
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

// What nobody asked for comes with numbers that come again. Of two readers one is there nearly always.
TEST_F(Commlen, HearsAControllerThatSpeaksUnasked) {
    answer(echo);
    std::atomic<bool> over{false};
    std::atomic<int> heard{0};
    const auto listen = [&] {
        while (!over) {
            CommLenMsg frame = message(0x44);
            if (CALL(bench_, QEL_commlenRead)(link_, &frame) == 0) ++heard;
        }
    };
    std::thread first(listen);
    std::thread second(listen);
    constexpr int kFrames = 600;
    constexpr int kFewLost = 10;
    int said = 0;
    int lost = 0;
    while (said < kFrames && lost <= kFewLost) {
        controller_->say(frame(0x44, "unasked", static_cast<uint8_t>(said++)));
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(200);
        while (heard + lost < said && std::chrono::steady_clock::now() < end) std::this_thread::yield();
        if (heard + lost < said) ++lost;
    }
    over = true;
    first.join();
    second.join();
    EXPECT_EQ(said, kFrames) << heard << " heard";
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
    at_once(kReaders,
            [&](int i) { replies[static_cast<size_t>(i)] = exchange(message(0x50, std::to_string(i))); });
    std::sort(replies.begin(), replies.end());
    for (int i = 0; i < kReaders; ++i) EXPECT_EQ(replies[static_cast<size_t>(i)], std::to_string(i));
}

TEST_F(Commlen, KeepsCodesApartHoweverManyAreInUse) {
    constexpr int kThreads = 32;
    constexpr int kRounds = 25;
    answer(echo);
    std::atomic<int> wrong{0};
    at_once(kThreads, [&](int i) {
        const auto code = static_cast<uint8_t>(i % QEL_COMMLEN_CODES_MAX);
        const std::string payload(static_cast<size_t>(code) + 1, static_cast<char>(code));
        for (int round = 0; round < kRounds; ++round) wrong += exchange(message(code, payload)) != payload;
    });
    EXPECT_EQ(wrong, 0) << bench_.log.all();
}

TEST_F(Commlen, RefusesMoreCodesThanItHasSlotsFor) {
    answer([](const Heard &) { return std::string(); });
    at_once(QEL_COMMLEN_CODES_MAX + 1,
            [&](int i) { EXPECT_EQ(exchange(message(static_cast<uint8_t>(i))), "no reply"); });
    EXPECT_EQ(bench_.log.count("more than 16 command codes are waited for"), 1);
    EXPECT_EQ(bench_.log.count("Fail to OSA_semPend"), QEL_COMMLEN_CODES_MAX);
}

TEST_F(Commlen, LeavesThePortToWhoHasTheGate) {
    answer(echo);
    EXPECT_EQ(exchange(message(0x60, "before")), "before");
    ASSERT_EQ(CALL(bench_, QEL_commlenSemLock)(link_), 0);
    Port port(bench_, 3);
    ASSERT_EQ(port->open(port.get()), 0);
    // Byte by byte, so that a thread that still reads would not miss them all.
    const std::string said = pattern(200);
    std::string got;
    for (const char byte : said) {
        controller_->say(std::string(1, byte));
        char read = 0;
        for (int tries = 0; tries < 50 && port->read(port.get(), &read, 1) == 0; ++tries) continue;
        got += read;
    }
    EXPECT_EQ(got, said);
    port.release();
    EXPECT_EQ(CALL(bench_, QEL_commlenSemUnlock)(link_), 0);
    EXPECT_EQ(exchange(message(0x60, "after")), "after");
    EXPECT_NE(CALL(bench_, QEL_commlenSemUnlock)(link_), 0);
    bench_.expect_logged({"lock fail"});
}

TEST_F(Commlen, ForgetsTheFrameInWhoseMiddleThePortWasTaken) {
    const std::string start("\xAA\x10\x01\xFF", 4);  // it says that 255 bytes more will come
    answer([&](const Heard &heard) { return echo(heard) + (heard.payload == "before" ? start : ""); });
    EXPECT_EQ(exchange(message(0x62, "before")), "before");
    ASSERT_EQ(CALL(bench_, QEL_commlenSemLock)(link_), 0);
    EXPECT_EQ(CALL(bench_, QEL_commlenSemUnlock)(link_), 0);
    EXPECT_EQ(exchange(message(0x62, "after")), "after");
}

TEST_F(Commlen, ChecksTheLinkItIsGiven) {
    CommLenMsg any = message(1);
    uint32_t stranger[4] = {0x15975326};
    auto *wrong = reinterpret_cast<CommLen *>(stranger);
    EXPECT_EQ(CALL(bench_, QEL_commlenWrite)(nullptr, &any), -1);
    EXPECT_EQ(CALL(bench_, QEL_commlenRead)(link_, nullptr), -1);
    EXPECT_EQ(bench_.log.count("comLenHandle="), 2);
    EXPECT_EQ(CALL(bench_, QEL_commlenWrite)(wrong, &any), -1);
    EXPECT_EQ(CALL(bench_, QEL_commlenRead)(wrong, &any), -1);
    EXPECT_EQ(CALL(bench_, QEL_commlenSemLock)(wrong), -1);
    EXPECT_EQ(bench_.log.count("magicNum is error\n"), 3);
    CommLen *second = nullptr;
    EXPECT_EQ(CALL(bench_, QEL_commlenCreate)(&second), 0);
    EXPECT_EQ(second, link_);
}

TEST(CommlenPort, IsTheFirstOfTheMapThatIsThereAndMeantForIt) {
    CommBench bench(tty("6", "", "usage = 26\nonly_with_status = true\nstatus_line = 9\nrs485 = true") +
                    tty("5", "", "usage = 26") + tty("3", "", "usage = 26"));
    CommLen *link = nullptr;
    Tracing tracing(bench.board);
    ASSERT_EQ(CALL(bench, QEL_commlenCreate)(&link), 0);
    EXPECT_EQ(shown(bench.board, "/dev/ttyS6", "settings"), "9600 8N1");
    EXPECT_EQ(std::ranges::count(tracing.requests(), "GET_RS485_STATUS"), 2) << "to find it and to open it";
}

TEST(CommlenWithoutPort, LoadsAndSaysThatThereIsNone) {
    CommBench bench(tty("3"));
    CommLen *link = nullptr;
    EXPECT_EQ(CALL(bench, QEL_commlenCreate)(&link), -1);
    EXPECT_EQ(link, nullptr);
    bench.expect_logged({"WARN  (QEL_commlenCreate|", "can not find commlen cfg\n"});
}

}  // namespace
}  // namespace qel::test
