// script.cpp - a peer that follows lines: what it expects, what it says, how long it waits.
//
//     script = ["expect AA 10 .. 02", "reply 55", "wait 20", "reply \"OK\\r\""]
//
// Bytes are hexadecimal, ".." any one of them, or text in quotation marks with \r \n \t \\ \" and \xHH.
// After the last line it begins again unless repeat = false. Bytes that are not the expected ones are counted
// and stop the script until the line is opened again: `qelboard show` tells where.
#include <algorithm>
#include <optional>
#include <sstream>

#include "board/core/description.h"
#include "board/core/errors.h"
#include "board/core/report.h"
#include "board/peer/peer.h"
#include "board/peer/text.h"

namespace qel::board {

namespace {

struct Step {
    enum class Kind : uint8_t { kExpect, kReply, kWait };
    Kind kind = Kind::kExpect;
    std::string text;                           // as written
    std::vector<std::optional<uint8_t>> bytes;  // no value: any
    int64_t wait_ms = 0;
};

bool parse_step(const std::string &line, Step &step) {
    const size_t blank = line.find(' ');
    if (blank == std::string::npos) return false;
    const std::string verb = line.substr(0, blank);
    const std::string rest = line.substr(blank + 1);
    step.text = line;
    if (verb == "wait") {
        step.kind = Step::Kind::kWait;
        std::istringstream number(rest);
        return static_cast<bool>(number >> step.wait_ms) && number.eof() && step.wait_ms >= 0 &&
               step.wait_ms <= kLongestPause_ms;
    }
    if (verb != "expect" && verb != "reply") return false;
    step.kind = verb == "expect" ? Step::Kind::kExpect : Step::Kind::kReply;
    if (!parse_pattern(rest, step.bytes) || step.bytes.empty()) return false;
    const auto any = [](const auto &byte) { return !byte.has_value(); };
    return step.kind == Step::Kind::kExpect || std::none_of(step.bytes.begin(), step.bytes.end(), any);
}

class Script final : public Peer {
public:
    Script(PeerPort &port, std::vector<Step> steps, bool repeats)
        : Peer(port), steps_(std::move(steps)), repeats_(repeats) {}

    void receive(Bytes bytes) override;
    void line_opened() override {
        next_ = matched_ = 0;
        stopped_ = false;
        speak();
    }
    void power_on() override { rounds_ = unexpected_ = 0; }
    void show(Report &report) const override;

private:
    void speak();
    void end_round();
    bool is_over() const { return next_ == steps_.size(); }

    std::vector<Step> steps_;
    bool repeats_;
    size_t next_ = 0;     // step
    size_t matched_ = 0;  // bytes of an expectation
    bool stopped_ = false;
    std::string stopped_at_;
    int64_t rounds_ = 0;
    int64_t unexpected_ = 0;
};

// Says what stands before the next expectation.
void Script::speak() {
    int64_t pause_us = 0;
    while (!is_over() && steps_[next_].kind != Step::Kind::kExpect) {
        const Step &step = steps_[next_++];
        if (step.kind == Step::Kind::kWait) {
            pause_us += step.wait_ms * 1000;
        } else {
            Buffer bytes;
            for (const auto &byte : step.bytes) bytes.push_back(*byte);
            port().send(bytes, pause_us);
        }
        if (is_over()) end_round();
    }
}

void Script::end_round() {
    ++rounds_;
    const auto expects = [](const Step &step) { return step.kind == Step::Kind::kExpect; };
    // One that expects nothing speaks once.
    if (repeats_ && std::any_of(steps_.begin(), steps_.end(), expects)) next_ = 0;
}

void Script::receive(Bytes bytes) {
    for (const uint8_t byte : bytes) {
        if (stopped_ || is_over()) {
            ++unexpected_;
            continue;
        }
        const Step &step = steps_[next_];
        const auto &wanted = step.bytes[matched_];
        if (wanted && *wanted != byte) {
            stopped_ = true;
            ++unexpected_;
            stopped_at_ = step.text + ": byte " + std::to_string(matched_ + 1) + " was " + to_hex(&byte, 1);
            continue;
        }
        if (++matched_ < step.bytes.size()) continue;
        matched_ = 0;
        if (++next_ == steps_.size()) end_round();
        speak();
    }
}

void Script::show(Report &report) const {
    report.value("script", stopped_    ? "stopped at " + stopped_at_
                           : is_over() ? std::string("over")
                                       : "at " + steps_[next_].text);
    report.value("script rounds", rounds_);
    if (unexpected_ > 0) report.value("unexpected bytes", unexpected_);
}

std::unique_ptr<Peer> make(PeerPort &port, const Description &table) {
    std::vector<Step> steps;
    for (const std::string &line : table.texts("script")) {
        Step step;
        if (!parse_step(line, step))
            table.fail("script", "\"" + line + "\" is none of expect BYTES, reply BYTES, wait MS");
        steps.push_back(std::move(step));
    }
    if (steps.empty()) table.fail("script", "is missing or empty");
    return std::make_unique<Script>(port, std::move(steps), table.flag("repeat", true));
}

}  // namespace

extern const PeerKind kScriptPeer = {"script", make};

}  // namespace qel::board
