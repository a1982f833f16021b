// step_fault.h - faults of the library itself: a step of its chains that fails in one run.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qel::tool {

// "[chip N] step NAME fail"
struct StepFault {
    std::optional<uint32_t> chip;  // missing: every chip
    std::string name;
};

// Nothing when the text is about a device. Throws Failure when it is about a step and not well formed.
std::optional<StepFault> parse_step_fault(const std::string &text);

// The faults of steps out of `texts`, which keeps the others.
std::vector<StepFault> take_step_faults(std::vector<std::string> &texts);

// Throws Failure when the text is about a step: only processes that are about to start can have such.
void refuse_step_fault(const std::string &text);

// What libqelsteps.so wants to be told for the processes of a chip; empty when no step fails there.
std::string failing_steps(const std::vector<StepFault> &faults, uint32_t chip);

}  // namespace qel::tool
