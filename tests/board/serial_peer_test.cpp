// The peers that answer: scripts, recorded sessions, the controller, the card reader.
#include <gtest/gtest.h>

#include "board/peer/session.h"
#include "tests/board/serial_bench.h"

using namespace qel::test;

namespace {

class Bench : public OneLine {
public:
    explicit Bench(const std::string &peer)
        : OneLine(tty("1", "peer = { " + peer + " }").substr(tty("1").find("[[chip.tty]]")),
                  {.dir = "", .time_scale = 20}) {}
    std::string exchange(const std::string &text, size_t bytes) const {
        EXPECT_TRUE(host.write(text));
        return host.read(bytes);
    }
};

std::string frame(int sequence, int command, const std::string &payload) {
    std::string text = {static_cast<char>(0xAA), 0x10, static_cast<char>(sequence),
                        static_cast<char>(payload.size() + 2), static_cast<char>(command)};
    text += payload;
    char sum = 0;
    for (const char c : text) sum = static_cast<char>(sum + c);
    return text + sum;
}

const std::string kController = "kind = \"controller\", version = \"V7\"";

}  // namespace

TEST(SerialPeer, AScriptAnswersWhatItExpectsAndStopsAtAnythingElse) {
    const Bench bench(
        "kind = \"script\", script = [\"expect AA .. 02\", \"wait 30\", \"reply 55 66\", \"expect "
        "\\\"bye\\\"\", "
        "\"reply \\\"hi\\\\r\\\"\"]");
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(bench.exchange("\xAA\x77\x02", 2), "\x55\x66");
        EXPECT_EQ(bench.exchange("bye", 3), "hi\r");
    }
    EXPECT_TRUE(bench.comes_to_show("script rounds", "2"));
    EXPECT_TRUE(bench.host.write("\xAA\x77\x03more"));
    EXPECT_TRUE(bench.comes_to_show("unexpected bytes", "5"));
    EXPECT_EQ(bench.shows("script"), "stopped at expect AA .. 02: byte 3 was 03");
}

TEST(SerialPeer, ASessionIsReplayedAsItWasRecorded) {
    const Bench bench(
        "kind = \"recording\", session = [\"100 > \\\"ab\\\"\", \"130 < 02 03\", \"150 < 04\", \"900 > 07\", "
        "\"901 < 08\"]");
    const int64_t before_ms = bench.here.board.now_ms();
    EXPECT_EQ(bench.exchange("ab", 3), "\x02\x03\x04");
    EXPECT_GE(bench.here.board.now_ms() - before_ms, 50);
    EXPECT_EQ(bench.exchange("\x09", 1), "\x08") << "another byte than then goes on all the same";
    EXPECT_EQ(bench.shows("bytes that differ"), "1");
    EXPECT_EQ(bench.shows("session"), "5 of 5");
}

TEST(SerialPeer, ASessionOfATraceIsReplayedAsItWas) {
    std::FILE *trace = std::tmpfile();
    ASSERT_NE(trace, nullptr);
    const std::string questions[] = {frame(0, 1, ""), frame(1, 3, "\x40")};
    std::vector<std::string> answers;
    {
        Bench live(kController + ", delay_ms = 30");
        live.here.board.trace_to(trace);
        for (const std::string &question : questions)
            answers.push_back(live.exchange(question, question == questions[0] ? 8 : 7));
        live.here.board.trace_to(nullptr);
    }
    std::rewind(trace);
    SessionReader session(0, "/dev/ttyS1", 1);
    char entry[4096];
    while (std::fgets(entry, sizeof entry, trace) != nullptr) session.read(entry);
    std::fclose(trace);
    for (const char *nonsense : {"", "no JSON", "[]", "{\"chip\":0,\"op\":\"line\",\"node\":7}"})
        session.read(nonsense);
    std::string peer = session.as_peer();
    peer = peer.substr(peer.find('{') + 1);
    const Bench replay(peer.substr(0, peer.rfind('}')));
    for (size_t i = 0; i < answers.size(); ++i) {
        const int64_t before_ms = replay.here.board.now_ms();
        EXPECT_EQ(replay.exchange(questions[i], answers[i].size()), answers[i]);
        EXPECT_GE(replay.here.board.now_ms() - before_ms, 30 - 1);
    }
    EXPECT_EQ(replay.shows("bytes that differ"), "");
}

TEST(SerialPeer, ASessionIsWhatWasSaidFromOneOpeningToTheNext) {
    const auto entry = [](int time_ms, const std::string &node, const std::string &rest) {
        return "{\"t_us\":" + std::to_string(time_ms * 1000) + ",\"chip\":1,\"node\":\"" + node + "\"," +
               rest + "}";
    };
    const std::string opened = "\"op\":\"open\",\"result\":0";
    const std::string closed = "\"op\":\"close\",\"result\":0";
    const std::string trace[] = {
        entry(5, "/dev/x/24", R"("op":"line","direction":"out","data":"01")"),  // open before the trace began
        entry(6, "/dev/x", opened),
        entry(7, "/dev/x", closed),
        entry(8, "/dev/x", closed),
        entry(9, "/dev/x", R"("op":"open","result":-5)"),
        entry(10, "/dev/x", opened),
        entry(40, "/dev/x/24", R"("op":"line","direction":"in","data":"02")"),
        entry(41, "/dev/x/24", R"("op":"line","direction":"in","data":"03")"),
        entry(41, "/dev/x/2", R"("op":"line","direction":"in","data":"04")"),
        entry(50, "/dev/x/24", R"("op":"line","direction":"out","data":"0506")"),
        entry(51, "/dev/x/24", R"("op":"line","direction":"out","data":"no hex")"),
    };
    const std::string expected[] = {"    \"0 > 01\",\n", "    \"30 < 02 03\",\n    \"40 > 05 06\",\n", ""};
    for (uint32_t opening = 1; opening <= 3; ++opening) {
        SessionReader session(1, "/dev/x/24", opening);
        for (const std::string &line : trace) session.read(line);
        EXPECT_EQ(session.as_peer(),
                  "peer = { kind = \"recording\", session = [\n" + expected[opening - 1] + "] }\n");
    }
}

TEST(SerialPeer, ADescriptionOfAPeerThatIsWrongNamesTheKey) {
    const std::pair<const char *, const char *> cases[] = {
        {"kind = \"parrot\"", "kind: is none of pty, echo"},
        {"kind = \"script\"", "script: is missing"},
        {"kind = \"script\", script = [\"expect 1\"]", "script: \"expect 1\""},
        {"kind = \"script\", script = [\"reply ..\"]", "script: \"reply ..\""},
        {"kind = \"script\", script = [\"wait -1\"]", "script: \"wait -1\""},
        {"kind = \"recording\", session = [\"5 > 01\", \"4 < 02\"]", "stands behind a later one"},
        {"kind = \"controller\", answers = \"loudly\"", "answers: is none of once"},
        {"kind = \"echo\", volume = 3", "peer.volume: is not a known key"},
    };
    for (const auto &[peer, message] : cases) {
        std::string told;
        try {
            const Bench bench(peer);
        } catch (const DescriptionError &error) {
            told = error.what();
        }
        EXPECT_NE(told.find(message), std::string::npos) << peer << ": " << told;
    }
}

TEST(SerialPeer, TheControllerObeysGoodFramesOnly) {
    Bench bench(kController);
    EXPECT_EQ(bench.exchange(frame(1, 2, "\x01"), 7), frame(1, 2, "\x01"));
    EXPECT_EQ(bench.shows("IR-cut filter"), "night");
    EXPECT_EQ(bench.exchange(frame(2, 3, "\x40"), 7), frame(2, 3, "\x40"));
    std::string bad = frame(4, 3, "\x41");
    bad.back() ^= 1;
    // Garbage, a frame of a wrong sum, one of a length below 2, then a good one.
    const std::string garbage = "x\xAA" + bad + std::string("\xAA\x10\x05\x01", 4);
    EXPECT_EQ(bench.exchange(garbage + frame(6, 9, "same"), 10), frame(6, 9, "same"));
    EXPECT_EQ(bench.shows("iris"), "64");
    EXPECT_EQ(bench.shows("good frames"), "3");
}

TEST(SerialPeer, TheControllerAnswersLateTwiceWrongOrNever) {
    Bench bench(kController + ", late_ms = 400");
    const std::string asked = frame(9, 3, "");
    std::string reply = frame(9, 3, std::string(1, '\0'));
    EXPECT_EQ(bench.poke({"answer", "twice"}), 0);
    EXPECT_EQ(bench.exchange(asked, 14), reply + reply);
    EXPECT_EQ(bench.poke({"answer", "late"}), 0);
    const int64_t before_ms = bench.here.board.now_ms();
    EXPECT_EQ(bench.exchange(asked, 7), reply);
    EXPECT_GE(bench.here.board.now_ms() - before_ms, 400);
    EXPECT_EQ(bench.poke({"answer", "wrong"}), 0);
    reply.back() = static_cast<char>(reply.back() + 1);
    EXPECT_EQ(bench.exchange(asked, 7), reply);
    EXPECT_EQ(bench.poke({"answer", "never"}), 0);
    EXPECT_TRUE(bench.host.write(asked));
    EXPECT_TRUE(bench.comes_to_show("good frames", "4"));
    EXPECT_EQ(bench.poke({"tell", "0x20", "0102"}), 0);
    EXPECT_EQ(bench.host.read(8), frame(10, 0x20, "\x01\x02")) << "and nothing before it";
    EXPECT_EQ(bench.poke({"answer", "loudly"}), -EINVAL);
    EXPECT_EQ(bench.poke({"tell", "256"}), -EINVAL);
}

TEST(SerialPeer, TheCardReaderReadsAfterItsTwoFrames) {
    Bench bench("kind = \"card-reader\"");
    EXPECT_EQ(bench.poke({"card", "12345678"}), -EBUSY);
    const std::string open("\xAA\xAA\x00\x0A\x00\xFF\xFF\xFF\xFE\xFF\x00\x0A\xF6\xFE\x00", 15);
    const std::string read("\xAA\xAA\x00\x0F\x00\xFF\xFF\xFF\xFE\xFF\x00\x15\x01\x3C\x01\x7F\x02\x50\x18",
                           19);
    EXPECT_TRUE(bench.host.write("\xAA" + open));
    EXPECT_TRUE(bench.comes_to_show("card reader", "open"));
    EXPECT_TRUE(bench.host.write(read));
    EXPECT_TRUE(bench.comes_to_show("card reader", "reading"));
    EXPECT_EQ(bench.poke({"card", "12345678"}), 0);
    EXPECT_EQ(bench.host.read(8), "12345678");
    EXPECT_EQ(bench.exchange("command", 7), "command");
}
