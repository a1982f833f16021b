// hwid_ex.h - the extended hardware id as the boot environment writes it: "1:0:3".
#pragma once

#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "qel/product.h"

namespace qel::product {

struct HwidEx {
    std::array<uint8_t, QEL_HWID_EX_BYTES> bytes{};
    bool has_more = false;  // numbers that found no place
};

// Hexadecimal numbers with colons between them; of each the low 8 bits. What is no number counts as 0
// and keeps its place.
inline HwidEx parse_hwid_ex(const char *text) {
    HwidEx id;
    for (size_t at = 0; *text != '\0'; ++at) {
        if (at == id.bytes.size()) {
            id.has_more = true;
            break;
        }
        id.bytes[at] = static_cast<uint8_t>(strtoul(text, nullptr, 16));
        text += strcspn(text, ":");
        if (*text == ':') ++text;
    }
    return id;
}

}  // namespace qel::product
