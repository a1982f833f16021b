#include "board/core/fault.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <sstream>

#include "board/core/errors.h"

namespace qel::board {

namespace {

constexpr std::string_view kLine = "line";
constexpr std::array<const char *, 9> kOperations = {"open",  "close", "read", "write", "seek",
                                                     "ioctl", "map",   "term", "path"};
constexpr std::array<const char *, 8> kPathOperations = {"stat",   "list",   "mkdir", "remove",
                                                         "rename", "umount", "run",   "reboot"};

constexpr std::array<const char *, 6> kTerminalCalls = {"tcgetattr", "tcsetattr", "tcflush",  // as TermOp
                                                        "tcdrain",   "tcflow",    "TIOCSERGETLSR"};

bool is_operation(std::string_view name) {
    const auto named = [&](const char *known) { return name == known; };
    return name == "*" || name == kLine || std::any_of(kOperations.begin(), kOperations.end() - 1, named) ||
           std::any_of(kPathOperations.begin(), kPathOperations.end(), named);
}

// Takes the words of a fault one by one and says what was expected when one does not fit.
class Words {
public:
    explicit Words(std::string_view text) : text_(text) {
        std::istringstream stream{std::string(text)};
        for (std::string word; stream >> word;) words_.push_back(word);
    }
    bool more() const { return next_ < words_.size(); }
    bool take(std::string_view word) {
        if (!more() || words_[next_] != word) return false;
        ++next_;
        return true;
    }
    std::string any(const char *expected) {
        if (!more()) fail(std::string("ends where ") + expected + " should stand");
        return words_[next_++];
    }
    uint64_t number(const char *expected, uint64_t least = 0, uint64_t most = UINT32_MAX) {
        return number_of(any(expected), expected, least, most);
    }
    uint64_t number_of(const std::string &word, const char *expected, uint64_t least, uint64_t most) const {
        uint64_t value = 0;
        const bool hex = word.rfind("0x", 0) == 0;
        const char *begin = word.data() + (hex ? 2 : 0);
        const char *end = word.data() + word.size();
        const auto [rest, error] = std::from_chars(begin, end, value, hex ? 16 : 10);
        if (error != std::errc() || rest != end || value < least || value > most)
            fail("\"" + word + "\" is not " + expected);
        return value;
    }
    [[noreturn]] void fail(const std::string &what) const {
        throw FaultError("fault \"" + std::string(text_) + "\": " + what);
    }

private:
    std::string_view text_;
    std::vector<std::string> words_;
    size_t next_ = 0;
};

void parse_operation(Words &words, Fault &fault) {
    const std::string word = words.any("an operation");
    const size_t colon = word.find(':');
    fault.operation = word.substr(0, colon);
    if (!is_operation(fault.operation)) words.fail("\"" + fault.operation + "\" is not an operation");
    if (colon == std::string::npos) return;
    fault.request = word.substr(colon + 1);
    if (fault.operation == kLine && fault.request != "in" && fault.request != "out")
        words.fail("the direction of a line is \"in\" or \"out\"");
    if (fault.request.empty()) words.fail("names no request behind the colon");
    if (fault.operation == "ioctl" || fault.operation == kLine) return;
    if (fault.operation != "term") words.fail("only an ioctl, a terminal call and a line have a request");
    if (std::ranges::find(kTerminalCalls, std::string_view(fault.request)) == kTerminalCalls.end())
        words.fail("\"" + fault.request + "\" is not a terminal call");
}

void parse_flips(Words &words, Fault &fault) {
    std::istringstream list{words.any("a bit number")};
    for (std::string bit; std::getline(list, bit, ',');)
        fault.flips.push_back(static_cast<uint32_t>(words.number_of(bit, "a bit number", 0, UINT32_MAX)));
}

void parse_line_action(Words &words, Fault &fault) {
    const std::string action = words.any("what becomes of the byte (lose, double, flip, delay, hang-up)");
    if (action == "lose") {
        fault.action = FaultAction::kLose;
    } else if (action == "double") {
        fault.action = FaultAction::kDouble;
    } else if (action == "hang-up") {
        fault.action = FaultAction::kHangUp;
    } else if (action == "delay") {
        fault.action = FaultAction::kDelay;
        fault.argument = static_cast<int64_t>(words.number("a number of milliseconds"));
    } else if (action == "flip") {
        fault.action = FaultAction::kFlip;
        parse_flips(words, fault);
        for (const uint32_t bit : fault.flips) {
            if (bit > 7) words.fail("a byte has bits 0 to 7");
        }
    } else {
        words.fail("\"" + action + "\" is none of lose, double, flip, delay, hang-up");
    }
}

void parse_action(Words &words, Fault &fault) {
    if (fault.operation == kLine) {
        parse_line_action(words, fault);
        return;
    }
    const std::string action = words.any("what to do (fail, short, flip, delay)");
    if (action == "fail") {
        const std::string name = words.any("the name of an error");
        fault.action = FaultAction::kFail;
        fault.argument = error_by_name(name);
        if (fault.argument <= 0) words.fail("\"" + name + "\" is not the name of an error");
    } else if (action == "short") {
        fault.action = FaultAction::kShort;
        fault.argument = static_cast<int64_t>(words.number("a number of bytes"));
    } else if (action == "flip") {
        fault.action = FaultAction::kFlip;
        parse_flips(words, fault);
    } else if (action == "delay") {
        fault.action = FaultAction::kDelay;
        fault.argument = static_cast<int64_t>(words.number("a number of milliseconds"));
    } else {
        words.fail("\"" + action + "\" is none of fail, short, flip, delay");
    }
}

void parse_at(Words &words, Fault &fault) {
    const char *expected = "a request's number, counted from 1, or a range N..M of them";
    const std::string word = words.any(expected);
    const size_t dots = word.find("..");
    fault.first = words.number_of(word.substr(0, dots), expected, 1, UINT32_MAX);
    fault.last = fault.first;
    if (dots != std::string::npos)
        fault.last = words.number_of(word.substr(dots + 2), expected, fault.first, UINT32_MAX);
}

void parse_when(Words &words, Fault &fault) {
    if (words.take("at")) {
        parse_at(words, fault);
    } else if (words.take("from")) {
        fault.first = words.number("a request's number, counted from 1", 1);
    } else if (words.take("every")) {
        fault.first = fault.step = words.number("a number of requests, 1 or more", 1);
    }
}

void parse_power_cut(Words &words, Fault &fault) {
    fault.action = FaultAction::kPowerCut;
    if (!words.take("at")) words.fail("power-cut wants \"at N\", the number of a device write");
    fault.first = fault.last = words.number("a write's number, counted from 1", 1);
    fault.argument = words.take("torn") ? static_cast<int64_t>(words.number("a number of bytes")) : -1;
}

}  // namespace

bool Fault::strikes() {
    ++seen;
    return seen >= first && seen <= last && (seen - first) % step == 0;
}

Fault parse_fault(std::string_view text) {
    Words words(text);
    Fault fault;
    fault.text = text;
    if (words.take("chip")) fault.chip = static_cast<uint32_t>(words.number("a chip's number"));
    if (words.take("power-cut")) {
        parse_power_cut(words, fault);
    } else {
        fault.node = words.any("a node");
        if (words.take("power-cut")) {
            parse_power_cut(words, fault);
        } else {
            parse_operation(words, fault);
            parse_action(words, fault);
            parse_when(words, fault);
        }
    }
    if (words.more()) words.fail("\"" + words.any("") + "\" is one word too many");
    return fault;
}

bool matches(const Fault &fault, const RequestView &request) {
    if (fault.action == FaultAction::kPowerCut) return false;  // struck by writes to a medium
    if (fault.chip && *fault.chip != request.chip) return false;
    if (fault.operation != "*" && fault.operation != request.operation) return false;
    if (!glob_match(fault.node, request.node)) return false;
    if (fault.request.empty()) return true;
    if (fault.request == request.request_name) return true;
    uint32_t code = 0;
    const std::string &text = fault.request;
    if (text.rfind("0x", 0) != 0) return false;
    const auto [rest, error] = std::from_chars(text.data() + 2, text.data() + text.size(), code, 16);
    return error == std::errc() && rest == text.data() + text.size() && code == request.code;
}

void strike_byte(Fault &fault, uint32_t chip, std::string_view node, bool to_host, LineFault &out) {
    if (fault.operation != kLine || !glob_match(fault.node, node)) return;
    if (fault.chip && *fault.chip != chip) return;
    if (!fault.request.empty() && (fault.request == "in") != to_host) return;
    if (!fault.strikes()) return;
    out.lost = out.lost || fault.action == FaultAction::kLose;
    out.twice = out.twice || fault.action == FaultAction::kDouble;
    out.hangs_up = out.hangs_up || fault.action == FaultAction::kHangUp;
    if (fault.action == FaultAction::kDelay) out.delay_ms += fault.argument;
    for (const uint32_t bit : fault.flips) out.flips ^= static_cast<uint8_t>(1u << bit);
}

const char *terminal_call_name(uint32_t code) {
    return code < kTerminalCalls.size() ? kTerminalCalls[code] : "";
}

const char *operation_name(Op op, uint32_t code) {
    if (op == Op::kPath) return code < kPathOperations.size() ? kPathOperations[code] : "path";
    const auto index = static_cast<size_t>(op);
    return index < kOperations.size() ? kOperations[index] : "?";
}

bool glob_match(std::string_view pattern, std::string_view text) {
    size_t p = 0;
    size_t t = 0;
    size_t star = std::string_view::npos;  // the last `*`, and how much of the text it swallowed
    size_t swallowed = 0;
    while (t < text.size()) {
        if (p < pattern.size() && pattern[p] == '*') {
            star = p++;
            swallowed = t;
        } else if (p < pattern.size() && (pattern[p] == '?' || pattern[p] == text[t])) {
            ++p;
            ++t;
        } else if (star != std::string_view::npos) {
            p = star + 1;
            t = ++swallowed;
        } else {
            return false;
        }
    }
    while (p < pattern.size() && pattern[p] == '*') ++p;
    return p == pattern.size();
}

}  // namespace qel::board
