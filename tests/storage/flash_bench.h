// flash_bench.h - boards for the tests of the flash modules.
#pragma once

#include "tests/support/unit.h"

namespace qel::test {

struct Part {
    const char *name;
    std::string keys = {};  // further lines of its table; 64 KiB long unless they say so
};

constexpr const char *kSmallNand = "kind = 'nand'\nerase_bytes = 0x4000\npage_bytes = 0x200\n";

inline std::string flash_board(const std::string &flash, const std::vector<Part> &parts,
                               const std::string &properties = "5 = 3\n") {
    const std::string medium = flash.find("kind = ") == std::string::npos ? kSmallNand : "";
    std::string text =
        "name = \"bench\"\n[[chip]]\n[chip.hwid]\nname = \"BX-200\"\n[chip.hwid.properties]\n" + properties +
        "[chip.channel_map]\nchannel = [{ logical = 0 }]\n[chip.flash]\n" + medium + flash;
    for (const Part &part : parts) {
        const bool has_size = part.keys.find("size = ") != std::string::npos;
        text += "\n[[chip.flash.partition]]\nname = \"" + std::string(part.name) + "\"\n" +
                (has_size ? "" : "size = 0x10000\n") + part.keys;
    }
    return text + "\n";
}

}  // namespace qel::test
