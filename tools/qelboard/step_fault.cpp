#include "tools/qelboard/step_fault.h"

#include <algorithm>
#include <charconv>
#include <sstream>
#include <string_view>

#include "board/steps/step_names.h"
#include "tools/qelboard/home.h"

namespace qel::tool {

namespace {

#define QEL_STEP_NAME(name) #name,
constexpr std::string_view kStepNames[] = {QEL_EACH_START_UP_STEP(QEL_STEP_NAME)
                                               QEL_EACH_SHUT_DOWN_STEP(QEL_STEP_NAME)};

}  // namespace

std::optional<StepFault> parse_step_fault(const std::string &text) {
    std::istringstream stream(text);
    std::vector<std::string> words;
    for (std::string word; stream >> word;) words.push_back(word);
    const size_t first = words.size() > 1 && words[0] == "chip" ? 2 : 0;
    if (words.size() <= first || words[first] != "step") return std::nullopt;
    StepFault fault;
    if (first > 0) {
        const std::string &chip = words[1];
        uint32_t number = 0;
        const auto [rest, error] = std::from_chars(chip.data(), chip.data() + chip.size(), number);
        if (error != std::errc() || rest != chip.data() + chip.size())
            throw Failure("fault \"" + text + "\": \"" + chip + "\" is not a chip's number");
        fault.chip = number;
    }
    if (words.size() != first + 3 || words[first + 2] != "fail")
        throw Failure("fault \"" + text + "\": a step's fault is: [chip N] step NAME fail");
    fault.name = words[first + 1];
    if (std::ranges::find(kStepNames, fault.name) == std::end(kStepNames)) {
        std::string known;
        for (const std::string_view name : kStepNames) known += " " + std::string(name);
        throw Failure("fault \"" + text + "\": no step of that name; there are:" + known);
    }
    return fault;
}

std::vector<StepFault> take_step_faults(std::vector<std::string> &texts) {
    std::vector<StepFault> faults;
    std::erase_if(texts, [&](const std::string &text) {
        const auto fault = parse_step_fault(text);
        if (fault) faults.push_back(*fault);
        return fault.has_value();
    });
    return faults;
}

void refuse_step_fault(const std::string &text) {
    if (parse_step_fault(text))
        throw Failure("a step can fail only in a process that starts: qelboard run BOARD --fault '" + text +
                      "' -- COMMAND");
}

std::string failing_steps(const std::vector<StepFault> &faults, uint32_t chip) {
    std::string names;
    for (const StepFault &fault : faults) {
        if (fault.chip && *fault.chip != chip) continue;
        names += (names.empty() ? "" : ",") + fault.name;
    }
    return names;
}

}  // namespace qel::tool
