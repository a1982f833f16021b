// controller.cpp - the controller of IR-cut filter and iris behind the length-framed link.
//
//     AA 10 sequence L+2 command payload[L] checksum
//
// It answers each good frame with one of the same sequence number and command code; all others it counts and
// drops. What it knows:
//
//     command              payload of the request      of the answer
//     01 version           -                           the `version` text
//     02 IR-cut filter     0 day, 1 night; - asks      the state
//     03 iris              0 to 255 open; - asks       the state
//     others               any                         the same, as an echo
//
// The test's face: "answer once|late|twice|wrong|never" says how it answers from now on (late: `late_ms`
// later, wrong: with a checksum that is not right), "tell COMMAND HEX" sends a frame that nobody asked for.
#include <algorithm>
#include <array>
#include <deque>

#include "board/core/description.h"
#include "board/core/errors.h"
#include "board/core/report.h"
#include "board/model/words.h"
#include "board/peer/peer.h"

namespace qel::board {

namespace {

constexpr uint8_t kFirst = 0xAA, kSecond = 0x10;
constexpr size_t kHeadBytes = 5;
constexpr size_t kMostPayload = 253;
constexpr uint8_t kVersion = 1, kIrCut = 2, kIris = 3;
constexpr std::array<const char *, 5> kWays = {"once", "late", "twice", "wrong", "never"};

uint8_t sum(Bytes bytes) {
    uint8_t total = 0;
    for (const uint8_t byte : bytes) total = static_cast<uint8_t>(total + byte);
    return total;
}

Buffer make_frame(uint8_t sequence, uint8_t command, Bytes payload) {
    Buffer frame(kHeadBytes + payload.size() + 1);
    frame[0] = kFirst;
    frame[1] = kSecond;
    frame[2] = sequence;
    frame[3] = static_cast<uint8_t>(payload.size() + 2);
    frame[4] = command;
    std::copy(payload.begin(), payload.end(), frame.begin() + kHeadBytes);
    frame.back() = sum(frame);  // its own place is still 0
    return frame;
}

class Controller final : public Peer {
public:
    Controller(PeerPort &port, const Description &table);

    void receive(Bytes bytes) override;
    void line_opened() override { input_.clear(); }
    void power_on() override {
        input_.clear();
        ir_cut_ = 0;
        iris_ = 0;
        way_ = first_way_;
    }
    void show(Report &report) const override;
    Answer poke(const std::vector<std::string> &words) override;

private:
    bool take_frame();
    void obey(uint8_t sequence, uint8_t command, Bytes payload);
    void answer(Buffer frame);
    static size_t find_way(const Description &table);

    std::string version_;
    int64_t delay_us_;
    int64_t late_us_;
    size_t first_way_;
    size_t way_;
    std::deque<uint8_t> input_;
    uint8_t ir_cut_ = 0;
    uint8_t iris_ = 0;
    int64_t frames_ = 0;
    int64_t bad_ = 0;
    uint8_t next_sequence_ = 0;
};

size_t Controller::find_way(const Description &table) {
    const std::string name = table.text("answers", kWays[0]);
    const auto found = std::find(kWays.begin(), kWays.end(), name);
    if (found == kWays.end()) table.fail("answers", "is none of once, late, twice, wrong, never");
    return static_cast<size_t>(found - kWays.begin());
}

Controller::Controller(PeerPort &port, const Description &table)
    : Peer(port),
      version_(table.text("version", "IRIS 1.0")),
      delay_us_(table.number("delay_ms", 0, kLongestPause_ms, 0) * 1000),
      late_us_(table.number("late_ms", 0, kLongestPause_ms, 2500) * 1000),
      first_way_(find_way(table)),
      way_(first_way_) {
    if (version_.size() > kMostPayload) table.fail("version", "is longer than 253 bytes");
}

void Controller::receive(Bytes bytes) {
    input_.insert(input_.end(), bytes.begin(), bytes.end());
    while (take_frame()) continue;
}

// Takes one frame, or what cannot begin one, off the input. False: it wants more bytes.
bool Controller::take_frame() {
    const auto drop = [&](size_t count) {
        input_.erase(input_.begin(), input_.begin() + static_cast<ptrdiff_t>(count));
    };
    if (input_.size() < 2) return false;
    if (input_[0] != kFirst || input_[1] != kSecond) {
        ++bad_;
        drop(1);
        return true;
    }
    if (input_.size() < kHeadBytes) return false;
    if (input_[3] < 2) {
        ++bad_;
        drop(2);
        return true;
    }
    const size_t payload_bytes = input_[3] - 2u;
    const size_t frame_bytes = kHeadBytes + payload_bytes + 1;
    if (input_.size() < frame_bytes) return false;
    const Buffer frame(input_.begin(), input_.begin() + static_cast<ptrdiff_t>(frame_bytes));
    drop(frame_bytes);
    if (sum(Bytes(frame).first(frame_bytes - 1)) != frame.back()) {
        ++bad_;
        return true;
    }
    ++frames_;
    obey(frame[2], frame[4], Bytes(frame).subspan(kHeadBytes, payload_bytes));
    return true;
}

void Controller::obey(uint8_t sequence, uint8_t command, Bytes payload) {
    Buffer told(payload.begin(), payload.end());
    if (command == kVersion) told.assign(version_.begin(), version_.end());
    if (command == kIrCut || command == kIris) {
        uint8_t &state = command == kIrCut ? ir_cut_ : iris_;
        if (!payload.empty() && (command == kIris || payload[0] <= 1)) state = payload[0];
        told = {state};
    }
    next_sequence_ = static_cast<uint8_t>(sequence + 1);
    answer(make_frame(sequence, command, told));
}

void Controller::answer(Buffer frame) {
    const std::string way = kWays[way_];
    if (way == "never") return;
    if (way == "wrong") frame.back() = static_cast<uint8_t>(frame.back() + 1);
    port().send(frame, delay_us_ + (way == "late" ? late_us_ : 0));
    if (way == "twice") port().send(frame, delay_us_);
}

Answer Controller::poke(const std::vector<std::string> &words) {
    if (words.size() == 2 && words[0] == "answer") {
        const auto found = std::find(kWays.begin(), kWays.end(), words[1]);
        if (found == kWays.end()) return Answer::fail(EINVAL);
        way_ = static_cast<size_t>(found - kWays.begin());
        return Answer::ok();
    }
    uint8_t command = 0;
    std::vector<uint8_t> payload;
    const bool tells = (words.size() == 2 || words.size() == 3) && words[0] == "tell" &&
                       parse_number(words[1], command) &&
                       (words.size() == 2 || parse_hex(words[2], payload)) && payload.size() <= kMostPayload;
    if (!tells) return Answer::fail(EINVAL);
    port().send(make_frame(next_sequence_++, command, payload));
    return Answer::ok();
}

void Controller::show(Report &report) const {
    report.value("answers", std::string(kWays[way_]));
    report.value("IR-cut filter", std::string(ir_cut_ == 0 ? "day" : "night"));
    report.value("iris", int64_t{iris_});
    report.value("good frames", frames_);
    if (bad_ > 0) report.value("bad frames or bytes between", bad_);
}

std::unique_ptr<Peer> make(PeerPort &port, const Description &table) {
    return std::make_unique<Controller>(port, table);
}

}  // namespace

extern const PeerKind kControllerPeer = {"controller", make};

}  // namespace qel::board
