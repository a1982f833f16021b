#include "board/peer/session.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>

#include "board/core/errors.h"
#include "board/peer/text.h"

namespace qel::board {

namespace {

constexpr int64_t kLongestSession_ms = int64_t{365} * 24 * 3'600'000;

std::string spaced_hex(const Buffer &bytes) {
    std::string text;
    for (const uint8_t &byte : bytes) text += " " + to_hex(&byte, 1);
    return text;
}

}  // namespace

bool parse_said(const std::string &line, Said &said) {
    std::istringstream words(line);
    std::string who;
    std::string rest;
    if (!(words >> said.at_ms >> who) || said.at_ms < 0 || said.at_ms > kLongestSession_ms) return false;
    if (who != ">" && who != "<") return false;
    std::getline(words, rest);
    said.by_host = who == ">";
    std::vector<std::optional<uint8_t>> bytes;
    if (!parse_pattern(rest, bytes) || bytes.empty()) return false;
    for (const auto &byte : bytes) {
        if (!byte) return false;
        said.bytes.push_back(*byte);
    }
    return true;
}

void SessionReader::open(int64_t time_us) {
    if (opens_++ > 0) return;
    ++opening_;
    begun_us_ = time_us;
}

void SessionReader::say(int64_t time_us, bool by_host, const std::string &hex) {
    if (opens_ == 0) open(time_us);  // it was open when the trace began
    const int64_t at_ms = std::max<int64_t>(time_us - begun_us_, 0) / 1000;
    Buffer bytes;
    if (opening_ != wanted_ || !parse_hex(hex, bytes) || bytes.empty()) return;
    if (said_.empty() || said_.back().by_host != by_host || at_ms - said_.back().at_ms > 1)
        said_.push_back({.at_ms = at_ms, .by_host = by_host, .bytes = {}});
    said_.back().bytes.insert(said_.back().bytes.end(), bytes.begin(), bytes.end());
}

void SessionReader::read(const std::string &json_line) {
    const auto entry = nlohmann::json::parse(json_line, nullptr, false);
    const auto text = [&](const char *name) {
        const auto found = entry.find(name);
        return found != entry.end() && found->is_string() ? found->get<std::string>() : std::string();
    };
    const auto number = [&](const char *name) {
        const auto found = entry.find(name);
        return found != entry.end() && found->is_number_integer() ? found->get<int64_t>() : -1;
    };
    if (!entry.is_object() || number("chip") != int64_t{chip_}) return;
    const std::string node = text("node");
    const std::string operation = text("op");
    if (operation == "line") {
        if (node == line_) say(number("t_us"), text("direction") == "out", text("data"));
        return;
    }
    // A device of several lines is opened for all of them.
    if (node.empty() || (line_ != node && line_.rfind(node + "/", 0) != 0)) return;
    if (operation == "open" && number("result") >= 0) open(number("t_us"));
    if (operation == "close" && opens_ > 0) --opens_;
}

std::string SessionReader::as_peer() const {
    std::string text = "peer = { kind = \"recording\", session = [\n";
    for (const Said &said : said_)
        text += "    \"" + std::to_string(said.at_ms) + (said.by_host ? " >" : " <") +
                spaced_hex(said.bytes) + "\",\n";
    return text + "] }\n";
}

}  // namespace qel::board
