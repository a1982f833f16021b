#include "board/net/commands.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <exception>

namespace qel::board {

namespace {

std::string lines(const std::vector<std::string> &texts) {
    std::string all;
    for (const std::string &text : texts) all += text + "\n";
    return all;
}

bool parse_chip(const Board &board, const std::string &word, uint32_t &chip) {
    const char *end = word.data() + word.size();
    const auto [stopped, error] = std::from_chars(word.data(), end, chip);
    return error == std::errc{} && stopped == end && chip < board.chip_count();
}

}  // namespace

struct Commands::Command {
    const char *name;
    size_t least_words;  // after the name
    size_t most_words;
    bool (Commands::*run)(const Words &, std::string &);
};

constexpr size_t kAny = 0xFFFF;

const Commands::Command Commands::kCommands[] = {
    {"fault", 1, kAny, &Commands::fault},    {"clear-faults", 0, 0, &Commands::clear_faults},
    {"trace", 0, 1, &Commands::trace},       {"poke", 3, kAny, &Commands::poke},
    {"show", 0, 1, &Commands::show},         {"info", 0, 0, &Commands::info},
    {"events", 0, 0, &Commands::events},     {"misuses", 0, 0, &Commands::misuses},
    {"power-on", 0, 0, &Commands::power_on}, {"save", 0, 0, &Commands::save},
};

Commands::~Commands() {
    if (trace_ != nullptr) board_.trace_to(nullptr);
}

std::string Commands::known() {
    std::string names;
    for (const Command &command : kCommands) names += std::string(names.empty() ? "" : ", ") + command.name;
    return names;
}

bool Commands::run(const Words &words, std::string &text) {
    const std::string name = words.empty() ? "" : words[0];
    const auto *command = std::ranges::find_if(kCommands, [&](const Command &c) { return name == c.name; });
    if (command == std::end(kCommands)) {
        text = "\"" + name + "\" is no command; known are: " + known() + ", hold, stop";
        return false;
    }
    const Words rest(words.begin() + 1, words.end());
    if (rest.size() < command->least_words || rest.size() > command->most_words) {
        text = name + " was given " + std::to_string(rest.size()) + " words";
        return false;
    }
    try {
        return (this->*command->run)(rest, text);
    } catch (const std::exception &error) {
        text = error.what();
        return false;
    }
}

bool Commands::fault(const Words &words, std::string &) {
    for (const std::string &word : words) board_.add_fault(word);
    return true;
}

bool Commands::clear_faults(const Words &, std::string &) {
    board_.clear_faults();
    return true;
}

bool Commands::trace(const Words &words, std::string &text) {
    std::unique_ptr<std::FILE, Closer> file;
    if (!words.empty()) {
        file.reset(std::fopen(words[0].c_str(), "ae"));
        if (file == nullptr) {
            text = "cannot write to " + words[0] + ": " + strerror(errno);
            return false;
        }
        // A line at a time, so that a reader beside it sees whole requests.
        std::setvbuf(file.get(), nullptr, _IOLBF, 0);
    }
    board_.trace_to(file.get());
    trace_ = std::move(file);
    return true;
}

bool Commands::poke(const Words &words, std::string &text) {
    uint32_t chip = 0;
    if (!parse_chip(board_, words[0], chip)) {
        text = "there is no chip " + words[0] + ": the board has " + std::to_string(board_.chip_count());
        return false;
    }
    const Answer answer = board_.poke(chip, words[1], {words.begin() + 2, words.end()});
    text.assign(answer.data.begin(), answer.data.end());
    if (answer.value >= 0 && text.empty()) text = std::to_string(answer.value);
    if (answer.value >= 0) return true;
    if (text.empty()) text = words[1] + " answers: " + strerror(static_cast<int>(-answer.value));
    return false;
}

bool Commands::show(const Words &words, std::string &text) {
    const std::string form = words.empty() ? "text" : words[0];
    if (form != "text" && form != "json" && form != "svg") {
        text = "show knows \"text\", \"json\" and \"svg\"";
        return false;
    }
    text = form == "svg" ? board_.show_svg() : board_.show(form == "json");
    return true;
}

bool Commands::info(const Words &, std::string &text) {
    const Welcome welcome = board_.welcome(0);
    text = lines({board_.name(), std::to_string(board_.chip_count()), std::to_string(welcome.time_scale),
                  welcome.run_dir});
    return true;
}

bool Commands::events(const Words &, std::string &text) {
    text = lines(board_.take_events());
    return true;
}

bool Commands::misuses(const Words &, std::string &text) {
    text = lines(board_.take_misuses());
    return true;
}

bool Commands::power_on(const Words &, std::string &text) {
    if (board_.has_power()) return true;
    board_.power_on();
    text = "the power is on again\n";
    return true;
}

bool Commands::save(const Words &, std::string &) {
    board_.save();
    return true;
}

}  // namespace qel::board
