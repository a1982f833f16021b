// launch.h - what a program needs around it to live on a board.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qel::tool {

struct Place {
    std::string socket;  // of the server
    uint32_t chip = 0;
    std::string as;             // process name to take, empty = its own
    std::string failing_steps;  // of the library's chains, with commas between them
    // A program for another processor: the emulator with its options, and the libqelboard.so built
    // for that processor.
    std::string emulator;
    std::string preload;
};

struct Launch {
    std::vector<std::string> arguments;    // the program first, looked up in PATH
    std::vector<std::string> environment;  // "NAME=value"
};

// Throws Failure when something it needs is not there.
Launch launch_on(const Place &place, const std::vector<std::string> &command);

// The program that stands in for another chip's software: this one, or its like for the emulator.
std::vector<std::string> resident_command(const Place &place);

// The folder libqelboard.so was loaded from: libqel.so and the others lie beside it.
std::string library_dir();

}  // namespace qel::tool
