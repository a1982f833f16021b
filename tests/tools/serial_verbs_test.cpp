// The verbs of qelctl that talk on serial lines, on virtual boards with somebody at the far end.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/tools/schema.h"

namespace qel::test {
namespace {

Outcome on_board(const std::string &board, const std::string &script) {
    const Scratch scratch;
    const std::string path = scratch.file("script", "cd " + scratch.path() + "\n" + script);
    return run("qelboard run " + board + " --as vesta -- sh " + path);
}

Outcome on_dome(const std::string &script) { return on_board("dome", script); }

// What a command prints with --json.
json document(const std::string &board, const std::string &command, const std::string &definition,
              int code = kOk) {
    SCOPED_TRACE(command);
    return document(on_board(board, command + " --json"), definition, code);
}

std::string repeated(const std::string &text, size_t times) {
    std::string all;
    for (size_t i = 0; i < times; ++i) all += text;
    return all;
}

// ---- ports ----

TEST(SerialList, TellsWhatIsBehindEachPort) {
    const std::tuple<const char *, size_t, const char *> cases[] = {
        {"dome", 2, R"(["tty","switchable","RS-485",12,13])"},
        {"dome", 3, R"(["driver UART","RS-485",null,14,null])"},
        {"dome", 8, R"(["USB adapter","RS-232",null,null,null])"},
        {"traffic", 1, R"(["secondary controller","RS-232",null,null,null])"},
    };
    for (const auto &[board, index, expected] : cases) {
        const json port = document(board, "qelctl serial list", "serial_ports")["ports"].at(index);
        EXPECT_EQ(port["port"], index);
        json told = json::array();
        for (const char *key : {"kind_name", "line", "mode", "direction_line", "status_line"})
            told.push_back(port[key]);
        EXPECT_EQ(told.dump(), expected);
    }
    EXPECT_EQ(on_board("nor", "qelctl serial list").out,
              "port  kind  usage  line    now  direction  status  given tty\n"
              "   0  tty       0  RS-232    -          -       -          -\n");
}

TEST(SerialSend, GetsAnEchoOnEveryKindOfPort) {
    const std::pair<std::string, std::vector<std::string>> boards[] = {
        {"dome", {"2", "2 --mode rs232", "3 --line 2400-8E1", "4", "5", "8"}}, {"traffic", {"1", "3"}}};
    for (const auto &[board, ports] : boards) {
        for (const std::string &port : ports) {
            const json sent =
                document(board, "qelctl serial send " + port + " 'ping\\r\\n' --hex 'ff 00' --wait 5000",
                         "serial_sent");
            EXPECT_EQ(sent["answer"], "70696e670d0aff00") << board << " " << port;
            EXPECT_EQ(sent["answer_text"], "ping\\r\\n\\xff\\0") << board << " " << port;
        }
    }
    const Outcome rows = on_dome("qelctl serial send 2 0123456789abcdefGH --wait 5000");
    EXPECT_EQ(rows.out,
              "30 31 32 33 34 35 36 37 38 39 61 62 63 64 65 66 |0123456789abcdef|\n"
              "47 48                                           |GH|\n");
}

TEST(SerialSend, EndsBetweenTwoFramesWhenTold) {
    const Outcome outcome = on_dome(
        "head -c 5000 /dev/zero >zeros; qelboard poke /dev/ttyS2 timed 1 >/dev/null\n"
        "qelctl serial send 2 --file zeros & s=$!\n"
        "until qelboard show | grep -q 'direction *transmit'; do sleep 0.05; done\n"
        "kill -INT $s; wait $s; code=$?; qelboard show; exit $code");
    expect_end(outcome, kInterrupted, "port 2 took 960 of 5000 bytes, then a signal came.");
    EXPECT_FALSE(holds(outcome.out, "transmit")) << "nobody else can talk on that line";
}

// ---- monitor ----

// Starts a monitor of the dome's port 1 as $m, and goes on when it listens.
std::string monitor_script(const std::string &options, const std::string &then) {
    return "qelctl serial monitor 1 --line 19200-8N1 " + options +
           " & m=$!\n"
           "until qelboard show | grep -q '19200 8N1'; do sleep 0.05; done\n" +
           then + "\nwait $m\n";
}

constexpr const char *kSay = "qelboard poke /dev/ttyS1 send ";

TEST(SerialMonitor, PutsBytesInRowsHoweverTheyCome) {
    const std::string say = std::string(kSay) + "30313233 >/dev/null; " + kSay +
                            "343536373839616263646566ff0a >/dev/null; " + kSay + "0a78 >/dev/null";
    const Outcome hex = on_dome(monitor_script("--gap 9000 --time none --count 20", say));
    expect_end(hex, kOk, "qelctl: 20 bytes\n");
    EXPECT_EQ(hex.out,
              "30 31 32 33 34 35 36 37 38 39 61 62 63 64 65 66 |0123456789abcdef|\n"
              "ff 0a 0a 78                                     |...x|\n");
    const Outcome text = on_dome(monitor_script("--gap 9000 --form text --time none --count 20", say));
    EXPECT_EQ(text.out, "0123456789abcdef\\xff\\n\n\\n\nx\n");
    const Outcome marked = on_dome(monitor_script("--gap 9000 --json --count 20", say));
    const std::vector<json> groups = documents(marked.out, "serial_bytes");
    ASSERT_EQ(groups.size(), 1U);
    EXPECT_EQ(groups[0]["bytes"], "30313233343536373839616263646566ff0a0a78");
    EXPECT_EQ(groups[0]["text"], "0123456789abcdef\\xff\\n\\nx");
}

TEST(SerialMonitor, LosesNothingWhileBytesPourIn) {
    const std::string block = repeated("000d0a1b7fff5aa5", 250);  // 2000 bytes
    const Outcome raw =
        on_dome(monitor_script("--form raw --count 60000",
                               "for i in $(seq 30); do " + std::string(kSay) + block + " >/dev/null; done"));
    EXPECT_EQ(raw.code, kOk) << raw.err;
    EXPECT_TRUE(raw.out == repeated(std::string("\0\r\n\x1b\x7f\xffZ\xa5", 8), 7500)) << raw.out.size();
}

TEST(SerialMonitor, EndsCleanlyWhenToldAndWhenTheLineEnds) {
    const Outcome interrupted =
        on_dome(monitor_script("--form raw", std::string(kSay) + "41 >/dev/null; sleep 0.3; kill -INT $m"));
    expect_end(interrupted, kOk, "qelctl: 1 bytes\n");
    EXPECT_EQ(interrupted.out, "A");
    expect_end(on_dome(monitor_script("", "qelboard poke /dev/ttyS1 hang-up >/dev/null")), kFailed,
               "qelctl: the line ended");
    EXPECT_EQ(on_dome("qelctl serial monitor 1 --for 0.1 --timeout 1").code, kOk);
}

// ---- bridge ----

TEST(SerialBridge, LendsAPortToOtherPrograms) {
    const Scratch scratch;
    const std::string sent = scratch.file("sent", noise(5000));
    const std::pair<std::string, std::string> cases[] = {
        {"2 --tcp 0", "/dev/tcp/${address/://}"}, {"8 --pty", "$address"}, {"2 --link port", "$address"}};
    for (const auto &[options, target] : cases) {
        SCOPED_TRACE(options);
        const std::string script =
            scratch.file("script", "qelctl serial bridge " + options +
                                       " --once --json >told & b=$!\n"
                                       "until [ -s told ]; do sleep 0.05; done\n"
                                       "address=$(sed 's/.*\"address\": *\"\\([^\"]*\\)\".*/\\1/' told)\n"
                                       "exec 3<>" +
                                       target + "; cat " + sent +
                                       " >&3 &\n"
                                       "head -c 5000 <&3 >heard; exec 3>&-; wait $b || exit\n"
                                       "cat told; cmp " +
                                       sent + " heard && ! [ -e port ]");
        const Outcome outcome = on_dome("bash " + script);
        expect_end(outcome, kOk, "qelctl: 5000 bytes to the port, 5000 bytes from it\n");
        EXPECT_EQ(documents(outcome.out, "serial_bridge").size(), 1U);
    }
}

TEST(SerialBridge, KeepsTheUsersOfAPseudoTerminalApart) {
    const Outcome quick = on_dome(
        "qelctl serial bridge 1 --link port --once >told & b=$!\n"
        "until [ -s told ]; do sleep 0.05; done\n"
        "head -c 3500 /dev/zero >port; wait $b");
    expect_end(quick, kOk, "qelctl: 3500 bytes to the port, 0 bytes from it\n");
    const Outcome unread = on_dome(
        "qelctl serial bridge 1 --link port 2>told & b=$!\n"
        "until [ -e port ]; do sleep 0.05; done\n"
        "exec 3<port; until grep -q come told; do sleep 0.05; done\n"
        "qelboard poke /dev/ttyS1 send 6f6c64 >/dev/null; sleep 0.3\n"
        "exec 3<&-; until grep -q gone told; do sleep 0.05; done\n"
        "timeout 0.5 cat port; kill $b; wait $b; cat told >&2");
    EXPECT_TRUE(holds(unread.err, "3 bytes from it\n")) << unread.err;
    EXPECT_FALSE(holds(unread.out, "old")) << unread.out;
}

// ---- loopback test ----

TEST(SerialLoopbackTest, CountsWhatTheWireDoes) {
    const json good = document("dome", "qelctl serial loopback-test 2 --bytes 40", "serial_test")["results"];
    EXPECT_EQ(good.size(), 48U);
    for (const json &result : good)
        EXPECT_EQ(result["wrong"].get<int>() + result["lost"].get<int>() + result["extra"].get<int>(), 0);
    const auto bad = [](const std::string &before, const std::string &port) {
        return document("dome", before + "qelctl serial loopback-test " + port + " --rate 9600 --bytes 40",
                        "serial_test", kFailed)["results"];
    };
    const std::string fault = "qelboard fault '/dev/ttyUSB0 line:in ";
    for (const json &result : bad(fault + "lose every 10' >/dev/null; ", "8")) EXPECT_EQ(result["lost"], 4);
    for (const json &result : bad(fault + "flip 0 every 20' >/dev/null; ", "8")) {
        EXPECT_EQ(result["wrong"], 2);
        EXPECT_EQ(result["lost"], 0);
    }
    EXPECT_EQ(bad("", "1")[0]["lost"], 40) << "nobody sends anything back";
}

// ---- microcontroller ----

TEST(McuVerbs, AskAndTellTheMicrocontroller) {
    EXPECT_EQ(document("dome", "qelctl mcu version", "mcu_version")["version"], "PTD-MCU 3.0.2");
    EXPECT_EQ(on_dome("qelctl mcu version --module 2").out, "RADIO 0.9\n");
    const std::string poke = "qelboard poke /dev/qecMcu ";
    const json state = document("dome", poke + "net 0 >/dev/null; qelctl mcu state", "mcu_state");
    EXPECT_EQ(state["caps_word"], 5);
    EXPECT_EQ(state["network_link"], false);
    const json power =
        document("dome", "qelctl mcu power 0 on >/dev/null; qelctl mcu power 7 on", "mcu_power");
    EXPECT_EQ(power["outputs_on"].dump(), "[0,7]");
    EXPECT_EQ(power["supply_mv"], 12050);
    expect_end(on_dome("qelctl mcu power 5 on >/dev/null; qelctl mcu power 5 off"), kOk,
               "outputs on            none\n");
    const json keys = document(
        "dome",
        "for k in 'press 3' 'press 9' 'release 9'; do " + poke + "$k >/dev/null; done; qelctl mcu key",
        "mcu_keys");
    EXPECT_EQ(keys["pressed"].dump(), "[3]");
    EXPECT_EQ(keys["last"], 9);
    EXPECT_EQ(document("dome", "qelctl mcu rfid --send '02 30 03'", "mcu_rfid")["received"], "06");
    EXPECT_EQ(on_dome("qelctl mcu rfid").out, "nothing waits\n");
    EXPECT_EQ(document("dome", "qelctl mcu lcd 'a\\tb'", "mcu_lcd")["lcd"], "a\\tb");
    const Outcome board =
        on_dome("qelctl mcu lcd 'door open' && qelctl mcu time '2026-03-01 12:30:59' && qelboard show");
    expect_end(board, kOk, "lcd                 door open\n");
    expect_end(board, kOk, "time                2026-03-01 12:30:59, day 0 of the week\n");
}

// Says it over and over until the verb has heard enough, as it may not listen yet.
std::string until_heard(const std::string &verb, const std::string &say) {
    return "qelctl " + verb + " & w=$!\nwhile kill -0 $w 2>/dev/null; do { " + say +
           "; } >/dev/null; sleep 0.05; done; wait $w";
}

TEST(McuVerbs, EventsComeAsTheyHappenUntilTold) {
    const std::pair<const char *, const char *> cases[] = {
        {"release 5", R"({"event":"key","number":5,"on":false})"},
        {"card 0012345678", R"({"card":"0012345678","event":"card"})"},
        {"alarm 70000", R"({"event":"alarm","number":70000})"},
    };
    for (const auto &[poke, expected] : cases) {
        const Outcome outcome = on_dome(
            until_heard("mcu events --json --count 2", std::string("qelboard poke /dev/qecMcu ") + poke));
        EXPECT_EQ(outcome.code, kOk) << poke << outcome.err;
        const std::vector<json> events = documents(outcome.out, "mcu_event");
        EXPECT_EQ(events.size(), 2U) << poke;
        for (json event : events) {
            EXPECT_EQ(event.erase("time_ms"), 1U);
            EXPECT_EQ(event.dump(), expected);
        }
    }
    const Outcome foreign =
        on_dome(until_heard("mcu events --json --count 1", "qelboard poke /dev/qecMcu card '\xff'"));
    EXPECT_EQ(documents(foreign.out, "mcu_event").size(), 1U) << foreign.err;
    const Outcome full = on_dome(until_heard("mcu events >/dev/full", "qelboard poke /dev/qecMcu press 4"));
    EXPECT_EQ(full.code, kNoOutput);
    EXPECT_FALSE(holds(full.err, "[libqel] ERROR")) << full.err;
    const Outcome told = on_dome(
        "qelctl mcu events >heard & w=$!\n"
        "until [ -s heard ]; do qelboard poke /dev/qecMcu press 4 >/dev/null; done\n"
        "kill -INT $w; wait $w; code=$?; head -n 1 heard; exit $code");
    expect_end(told, kOk, "  key 4 on\n");
}

// ---- length-framed link ----

TEST(LinkVerbs, SendAskAndWatch) {
    EXPECT_EQ(document("dome", "qelctl link send 1 --wait", "link_frame")["text"], "PTD IRIS 1.4");
    EXPECT_EQ(document("dome", "qelctl link send 3 c0; qelctl link send 3 --wait", "link_frame")["payload"],
              "c0");
    EXPECT_EQ(on_dome("qelctl link send 0x41 616200 --wait").out, "41: 61 62 00  |ab.|\n");
    expect_end(on_dome("qelboard poke /dev/ttyS7 answer wrong; qelctl link send 1 --wait"), kFailed,
               "no good reply came");
    EXPECT_EQ(on_dome(until_heard("link read 0x20", "qelboard poke /dev/ttyS7 tell 32 aabb")).out,
              "20: aa bb  |..|\n");
    const Outcome watch = on_dome(until_heard("link watch 0x20 33 --json --count 3",
                                              "qelboard poke /dev/ttyS7 tell 33 6162; "
                                              "qelboard poke /dev/ttyS7 tell 34 63"));
    const std::vector<json> frames = documents(watch.out, "link_heard");
    EXPECT_EQ(frames.size(), 3U) << watch.err;
    for (const json &frame : frames) {
        EXPECT_EQ(frame["command"], 33);
        EXPECT_EQ(frame["text"], "ab");
    }
    const Outcome burst = on_dome(until_heard("link watch 32 --count 4",
                                              "sleep 0.5; qelboard poke /dev/ttyS7 send "
                                              "aa1000032000ddaa1001032001dfaa1002032002e1aa1003032003e3"));
    for (const char *frame : {"20: 00", "20: 01", "20: 02", "20: 03"})
        EXPECT_TRUE(holds(burst.out, frame)) << burst.out;
}

// ---- what cannot be done ----

TEST(SerialVerbs, FailWithTheReason) {
    const std::tuple<const char *, int, const char *> cases[] = {
        {"serial send 1 x --line 9600-8N1x", kUsage, "as in 9600-8N1"},
        {"serial send 1 x --line 230400-8N1", kUsage, "does not have a rate of 230400; it has 1200"},
        {"serial send 1 x --file /dev/null", kUsage, "excludes"},
        {"serial send 1 'a\\q'", kUsage, "after \\ comes"},
        {"serial send 1", kUsage, "what shall be sent?"},
        {"serial send 1 x --mode rs485", kFailed, "port 1 cannot be switched over"},
        {"serial send 1 x --wait 1", kFailed, "no answer came"},
        {"serial loopback-test 6", kFailed, "took 0 of 64 bytes"},
        {"serial bridge 1 --tcp 65536", kUsage, "not in range 0 to 65535"},
        {"serial bridge 1 --link /no/such/folder/link", kFailed, "/no/such/folder/link"},
        {"mcu version --module 77", kFailed, "has no version of that module"},
        {"mcu time '2026-02-30 10:00:00'", kUsage, "a time is now, or as in"},
    };
    for (const auto &[command, code, message] : cases) {
        SCOPED_TRACE(command);
        expect_end(on_dome(std::string("qelctl ") + command), code, message);
    }
    expect_end(on_board("box", "qelctl serial send 2 x"), kFailed, "no port 2; there are: 0, 1.");
    expect_end(on_board("box", "qelctl mcu version"), kFailed, "the microcontroller cannot be opened");
    expect_end(on_board("box", "qelctl link send 1"), kFailed, "");
}

}  // namespace
}  // namespace qel::test
