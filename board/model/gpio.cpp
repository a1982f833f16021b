// gpio.cpp - "/dev/gpio": lines with a direction, a level and edges, as qel/gpio_driver.h states it.
//
// The test's face: "drive LINE LEVEL" puts a level on an input from outside, "level LINE" answers the
// level at the pin. Wires of the board lead the level of an output to an input.
#include "qel/gpio_driver.h"

#include <algorithm>
#include <charconv>
#include <deque>
#include <map>

#include "board/core/chip.h"
#include "board/core/description.h"
#include "board/core/report.h"
#include "board/model/records.h"

namespace qel::board {

namespace {

constexpr int64_t kMostLines = 1024;
constexpr size_t kLineBytes = sizeof(qel_gpio_line);
constexpr size_t kEdgeBytes = sizeof(qel_gpio_edge);
static_assert(kLineBytes == 8 && kEdgeBytes == 24);

constexpr RequestSpec kRequests[] = {
    {QEL_GPIO_SET_DIRECTION, "SET_DIRECTION", kLineBytes, 0},
    {QEL_GPIO_GET_DIRECTION, "GET_DIRECTION", kLineBytes, kLineBytes},
    {QEL_GPIO_WRITE, "WRITE", kLineBytes, 0},
    {QEL_GPIO_READ, "READ", kLineBytes, kLineBytes},
    {QEL_GPIO_SET_EDGE, "SET_EDGE", kLineBytes, 0},
    {QEL_GPIO_WAIT_EDGE, "WAIT_EDGE", kEdgeBytes, kEdgeBytes},
    {QEL_GPIO_GET_COUNT, "GET_COUNT", 0, 4},
};

struct Line {
    std::string name;
    bool output = false;
    bool level = false;  // at the pin
    bool latch = false;  // what an output drives, kept while it is an input
};

struct Edge {
    uint32_t line;
    uint32_t edge;
    uint32_t lost;
    uint64_t timestamp_us;
};

// The edges that one descriptor asked for.
struct Watch final : HandleState {
    struct Wanted {
        uint32_t edges = QEL_GPIO_EDGE_NONE;
        uint32_t kept = 0;
    };
    std::map<uint32_t, Wanted> lines;
    std::deque<Edge> kept;  // of all lines, the oldest first

    void forget(uint32_t line) {
        kept.erase(std::remove_if(kept.begin(), kept.end(), [=](const Edge &e) { return e.line == line; }),
                   kept.end());
        lines.erase(line);
    }
    void keep(uint32_t line, uint32_t edge, uint64_t timestamp_us);
    std::deque<Edge>::iterator oldest(uint32_t line) {
        return std::find_if(kept.begin(), kept.end(), [=](const Edge &e) { return e.line == line; });
    }
    Edge take(std::deque<Edge>::iterator at) {
        const Edge edge = *at;
        kept.erase(at);
        --lines[edge.line].kept;
        return edge;
    }
};

void Watch::keep(uint32_t line, uint32_t edge, uint64_t timestamp_us) {
    const auto wanted = lines.find(line);
    if (wanted == lines.end() || (wanted->second.edges & edge) == 0) return;
    if (wanted->second.kept == QEL_GPIO_EDGE_QUEUE) {
        // The loss is told by the edge that is now the oldest.
        const Edge dropped = take(oldest(line));
        oldest(line)->lost = dropped.lost + 1;
    }
    ++wanted->second.kept;
    kept.push_back({line, edge, 0, timestamp_us});
}

Buffer edge_record(const Edge &edge, uint32_t timeout_ms) {
    Buffer out(kEdgeBytes);
    put_u32(out, 0, edge.line);
    put_u32(out, 4, timeout_ms);
    put_u32(out, 8, edge.edge);
    put_u32(out, 12, edge.lost);
    put_u64(out, 16, edge.timestamp_us);
    return out;
}

class Gpio final : public Device {
public:
    Gpio(Chip &chip, const Description &description);
    int open(Handle &handle) override {
        auto watch = std::make_unique<Watch>();
        watches_[handle.id] = watch.get();
        handle.state = std::move(watch);
        return 0;
    }
    void close(Handle &handle) override { watches_.erase(handle.id); }
    Answer read(Handle &handle, uint32_t bytes) override;
    Answer ioctl(Handle &handle, uint32_t request, Bytes in) override;
    bool readable(const Handle &handle) const override { return !watches_.at(handle.id)->kept.empty(); }
    void show(Report &report) const override;
    void power_on() override;
    Answer poke(const std::vector<std::string> &words) override;

private:
    Answer set_direction(uint32_t number, uint32_t value);
    Answer write_level(uint32_t number, uint32_t value);
    Answer set_edge(Handle &handle, uint32_t number, uint32_t value);
    Answer wait_edge(Handle &handle, Bytes in);
    static Answer answer_line(uint32_t number, bool value);
    void put_level(uint32_t number, bool level);

    std::vector<Line> lines_;
    std::vector<bool> start_levels_;
    std::map<uint32_t, uint32_t> wires_;   // from an output to an input
    std::map<uint32_t, Watch *> watches_;  // by handle
};

Gpio::Gpio(Chip &chip, const Description &description) : Device(chip) {
    const int64_t count = description.number("lines", 1, kMostLines, 32);
    lines_.resize(static_cast<size_t>(count));
    start_levels_.resize(lines_.size());
    const std::vector<std::string> names = description.texts("names");
    if (names.size() > lines_.size()) description.fail("names", "there are more names than lines");
    for (size_t i = 0; i < names.size(); ++i) lines_[i].name = names[i];
    for (const int64_t line : description.numbers("high", 0, count - 1))
        start_levels_[static_cast<size_t>(line)] = true;
    for (const Description &wire : description.tables("wire")) {
        const int64_t from = wire.number("from", 0, count - 1, -1);
        const int64_t to = wire.number("to", 0, count - 1, -1);
        if (from < 0 || to < 0 || from == to) wire.fail("", "a wire wants two different lines, from and to");
        wires_[static_cast<uint32_t>(from)] = static_cast<uint32_t>(to);
    }
}

// All lines are inputs until the software says otherwise.
void Gpio::power_on() {
    for (size_t i = 0; i < lines_.size(); ++i) {
        lines_[i].output = lines_[i].latch = false;
        lines_[i].level = start_levels_[i];
    }
}

void Gpio::put_level(uint32_t number, bool level) {
    Line &line = lines_[number];
    if (line.level == level) return;
    line.level = level;
    const uint32_t edge = level ? QEL_GPIO_EDGE_RISING : QEL_GPIO_EDGE_FALLING;
    for (const auto &[handle, watch] : watches_)
        watch->keep(number, edge, static_cast<uint64_t>(chip().now_us()));
    chip().changed();
    const auto wire = wires_.find(number);
    if (line.output && wire != wires_.end() && !lines_[wire->second].output) put_level(wire->second, level);
}

Answer Gpio::answer_line(uint32_t number, bool value) {
    Buffer out(kLineBytes);
    put_u32(out, 0, number);
    put_u32(out, 4, value ? 1 : 0);
    return Answer::ok(0, std::move(out));
}

Answer Gpio::set_direction(uint32_t number, uint32_t value) {
    if (value > QEL_GPIO_OUT) return Answer::fail(EINVAL);
    Line &line = lines_[number];
    line.output = value == QEL_GPIO_OUT;
    if (!line.output) return Answer::ok();
    for (const auto &[handle, watch] : watches_) watch->forget(number);
    put_level(number, line.latch);
    return Answer::ok();
}

Answer Gpio::write_level(uint32_t number, uint32_t value) {
    if (value > 1) return Answer::fail(EINVAL);
    Line &line = lines_[number];
    if (!line.output) return Answer::fail(EPERM);
    line.latch = value == 1;
    put_level(number, line.latch);
    return Answer::ok();
}

Answer Gpio::set_edge(Handle &handle, uint32_t number, uint32_t value) {
    if (value > QEL_GPIO_EDGE_BOTH) return Answer::fail(EINVAL);
    if (lines_[number].output) return Answer::fail(EPERM);
    Watch &watch = *watches_.at(handle.id);
    watch.forget(number);
    if (value != QEL_GPIO_EDGE_NONE) watch.lines[number].edges = value;
    return Answer::ok();
}

Answer Gpio::wait_edge(Handle &handle, Bytes in) {
    const uint32_t number = get_u32(in, 0);
    const uint32_t timeout_ms = get_u32(in, 4);
    Watch &watch = *watches_.at(handle.id);
    if (number >= lines_.size() || watch.lines.count(number) == 0) return Answer::fail(EINVAL);
    const auto oldest = watch.oldest(number);
    if (oldest != watch.kept.end()) return Answer::ok(0, edge_record(watch.take(oldest), timeout_ms));
    if (handle.expired || timeout_ms == 0) return Answer::fail(handle.nonblocking ? EAGAIN : ETIMEDOUT);
    const bool for_ever = static_cast<int32_t>(timeout_ms) < 0;
    return Answer::ask_again(for_ever ? -1 : handle.started_ms + timeout_ms);
}

Answer Gpio::ioctl(Handle &handle, uint32_t request, Bytes in) {
    if (request == QEL_GPIO_GET_COUNT) return Answer::ok(0, u32_record(static_cast<uint32_t>(lines_.size())));
    if (request == QEL_GPIO_WAIT_EDGE) return wait_edge(handle, in);
    const auto known = [=](const RequestSpec &spec) { return spec.code == request; };
    if (std::none_of(std::begin(kRequests), std::end(kRequests), known)) return Answer::fail(ENOTTY);
    const uint32_t number = get_u32(in, 0);
    const uint32_t value = get_u32(in, 4);
    if (number >= lines_.size()) return Answer::fail(EINVAL);
    switch (request) {
        case QEL_GPIO_SET_DIRECTION:
            return set_direction(number, value);
        case QEL_GPIO_GET_DIRECTION:
            return answer_line(number, lines_[number].output);
        case QEL_GPIO_WRITE:
            return write_level(number, value);
        case QEL_GPIO_READ:
            return answer_line(number, lines_[number].level);
        default:
            return set_edge(handle, number, value);
    }
}

Answer Gpio::read(Handle &handle, uint32_t bytes) {
    if (bytes < kEdgeBytes) return Answer::fail(EINVAL);
    Watch &watch = *watches_.at(handle.id);
    if (watch.kept.empty()) return Answer::ask_again();
    return Answer::ok(kEdgeBytes, edge_record(watch.take(watch.kept.begin()), 0));
}

void Gpio::show(Report &report) const {
    report.value("lines", static_cast<int64_t>(lines_.size()));
    report.table("in use", {"line", "name", "direction", "level"});
    for (size_t i = 0; i < lines_.size(); ++i) {
        const Line &line = lines_[i];
        if (line.name.empty() && !line.output && !line.level) continue;
        report.row({static_cast<int64_t>(i), line.name, std::string(line.output ? "out" : "in"),
                    int64_t{line.level}});
    }
}

bool parse_line(const std::string &word, size_t below, uint32_t &number) {
    const auto [rest, error] = std::from_chars(word.data(), word.data() + word.size(), number);
    return error == std::errc() && *rest == '\0' && number < below;
}

Answer Gpio::poke(const std::vector<std::string> &words) {
    uint32_t number = 0;
    if (words.size() < 2 || !parse_line(words[1], lines_.size(), number)) return Answer::fail(EINVAL);
    if (words[0] == "level" && words.size() == 2) return Answer::ok(lines_[number].level);
    uint32_t level = 0;
    if (words[0] != "drive" || words.size() != 3 || !parse_line(words[2], 2, level))
        return Answer::fail(EINVAL);
    if (lines_[number].output) return Answer::fail(EBUSY);  // two drivers on one line
    put_level(number, level == 1);
    return Answer::ok();
}

void build(Chip &chip, const Description &description) {
    chip.add(QEL_GPIO_DEVICE, std::make_unique<Gpio>(chip, description));
}

}  // namespace

extern const DeviceClass kGpioClass = {"gpio", "general-purpose lines", kRequests, build};

}  // namespace qel::board
