// Is a line good? Patterns go out at every rate and must come back as they were.
#include <algorithm>
#include <functional>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <vector>

#include "tools/qelctl/exit_code.h"
#include "tools/qelctl/interrupt.h"
#include "tools/qelctl/output.h"
#include "tools/qelctl/progress.h"
#include "tools/qelctl/serial_line.h"
#include "tools/qelctl/serial_verbs.h"
#include "tools/qelctl/table.h"

namespace qelctl {

namespace {

constexpr unsigned kMostTestBytes = 4096;  // a line keeps so many until they are read

struct TestPattern {
    const char *name;
    uint8_t (*byte)(size_t index);
};

// Without regularity, and the same every time.
uint8_t scattered_byte(size_t index) {
    uint32_t word = static_cast<uint32_t>(index) * 2654435761U + 12345U;
    word ^= word >> 15;
    return static_cast<uint8_t>(word * 2246822519U >> 24);
}

constexpr TestPattern kTestPatterns[] = {
    {"zeros", [](size_t) -> uint8_t { return 0x00; }},
    {"ones", [](size_t) -> uint8_t { return 0xFF; }},
    {"alternating", [](size_t i) -> uint8_t { return i % 2 == 0 ? 0x55 : 0xAA; }},
    {"counting", [](size_t i) { return static_cast<uint8_t>(i); }},
    {"walking bit", [](size_t i) { return static_cast<uint8_t>(1U << i % 8); }},
    {"scattered", scattered_byte},
};

struct TestChoice {
    LineChoice line;
    std::vector<uint32_t> rates;
    unsigned bytes = 64;
    bool json = false;
};

struct PatternResult {
    uint32_t baud = 0;
    const char *pattern = "";
    size_t wrong = 0;  // came back as another one
    size_t lost = 0;
    size_t extra = 0;  // nobody sent them
    bool good() const { return wrong + lost + extra == 0; }
};

PatternResult test_pattern(const SerialLine &line, uint32_t baud, const TestPattern &pattern, size_t count) {
    std::vector<uint8_t> sent(count);
    for (size_t i = 0; i < count; ++i) sent[i] = pattern.byte(i);
    line.discard_input();
    line.write_all(sent);
    std::vector<uint8_t> back;
    std::vector<uint8_t> piece;
    // Until all are back, or half a second brought none.
    do {
        line.read_or_fail(piece);
        back.insert(back.end(), piece.begin(), piece.end());
    } while (back.size() < count && !piece.empty());
    PatternResult result;
    result.baud = baud;
    result.pattern = pattern.name;
    const size_t common = std::min(back.size(), count);
    for (size_t i = 0; i < common; ++i) result.wrong += back[i] != sent[i] ? 1 : 0;
    result.lost = count - common;
    result.extra = back.size() - common;
    return result;
}

std::vector<uint32_t> rates_to_test(const TestChoice &choice) {
    if (!choice.rates.empty()) return choice.rates;
    if (!choice.line.settings.empty()) return {line_settings(choice.line.settings).baud};
    return {std::begin(kUsualRates), std::end(kUsualRates)};
}

// Adds to `results`, which holds what was found out also when it throws.
void test_line(SerialLine &line, const TestChoice &choice, std::vector<PatternResult> &results) {
    ComAttribute attribute = line_settings(choice.line.settings.empty() ? "9600-8N1" : choice.line.settings);
    const std::vector<uint32_t> rates = rates_to_test(choice);
    const size_t total_bytes = rates.size() * std::size(kTestPatterns) * choice.bytes;
    Progress progress({}, "port " + std::to_string(line.number()), total_bytes);
    for (const uint32_t rate : rates) {
        attribute.baud = rate;
        line.set(attribute);
        for (const TestPattern &pattern : kTestPatterns) {
            const PatternResult result = test_pattern(line, rate, pattern, choice.bytes);
            if (Interrupt::happened())
                throw Failure(ExitCode::kInterrupted, "a signal came before all of it was tried.");
            results.push_back(result);
            progress.at(results.size() * choice.bytes);
        }
    }
}

void show_results(const std::vector<PatternResult> &results, const TestChoice &choice) {
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    Table table({"baud", "pattern", "bytes", "wrong", "lost", "extra"});
    for (const PatternResult &result : results) {
        nlohmann::ordered_json entry;
        entry["baud"] = result.baud;
        entry["pattern"] = result.pattern;
        entry["bytes"] = choice.bytes;
        entry["wrong"] = result.wrong;
        entry["lost"] = result.lost;
        entry["extra"] = result.extra;
        list.push_back(entry);
        table.add({std::to_string(result.baud), result.pattern, std::to_string(choice.bytes),
                   std::to_string(result.wrong), std::to_string(result.lost), std::to_string(result.extra)});
    }
    if (!choice.json) {
        print(table.text(wants_colour()));
        return;
    }
    nlohmann::ordered_json document;
    document["port"] = choice.line.port;
    document["results"] = list;
    print_json(document);
}

void test_port(const Library &library, const TestChoice &choice) {
    const Interrupt interrupt;
    SerialLine line(library, choice.line);
    std::vector<PatternResult> results;
    try {
        test_line(line, choice, results);
    } catch (const Failure &) {
        if (!results.empty()) show_results(results, choice);
        throw;
    }
    show_results(results, choice);
    const auto bad = std::count_if(results.begin(), results.end(),
                                   [](const PatternResult &result) { return !result.good(); });
    if (bad == 0) return;
    throw Failure(ExitCode::kFailed, std::to_string(bad) + " of " + std::to_string(results.size()) +
                                         " patterns did not come back as they were.");
}

}  // namespace

void add_serial_loopback_test(CLI::App &serial, Session &session) {
    CLI::App *verb = serial.add_subcommand(
        "loopback-test", "Send patterns at every rate to a plug or device that sends all of it back");
    const auto choice = std::make_shared<TestChoice>();
    choice->line.add_to(*verb);
    verb->add_option("--rate", choice->rates, "Only these; that of --line, or 1200 to 115200 unless given")
        ->type_name("BAUD")
        ->check(CLI::IsMember(std::vector<uint32_t>(std::begin(kUsualRates), std::end(kUsualRates))));
    verb->add_option("--bytes", choice->bytes, "So many of each pattern; 64 unless given")
        ->type_name("N")
        ->check(CLI::Range(1U, kMostTestBytes).description(""));
    verb->add_flag("--json", choice->json, "Print JSON (described by qelctl.schema.json)");
    verb->footer(
        "Examples:\n"
        "  qelctl serial loopback-test 1\n"
        "  qelctl serial loopback-test 2 --mode rs232 --rate 9600 --rate 115200 --json");
    verb->callback([&session, choice] { test_port(session.library(), *choice); });
}

}  // namespace qelctl
