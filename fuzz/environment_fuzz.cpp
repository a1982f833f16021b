// Boot environment blocks of any content: every walk stays inside, and after a change the block holds
// what was asked for. The first two bytes choose the length of a name and a value, which come next.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "product/env_block.h"

using namespace qel::environment;

namespace {

void expect(bool condition) {
    if (!condition) abort();
}

bool holds(const std::vector<uint8_t> &block, const std::string &name, const std::string &value) {
    const Value found = find(block, name.c_str());
    return found.text != nullptr && value == std::string(found.text, found.length);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 2) return 0;
    const size_t name_bytes = data[0] % 16;
    const size_t value_bytes = data[1];
    if (size < 2 + name_bytes + value_bytes + kMinBlockBytes || size > 0x20000) return 0;
    const char *const text = reinterpret_cast<const char *>(data) + 2;
    const std::string name = std::string(text, name_bytes).c_str();
    const std::string value = std::string(text + name_bytes, value_bytes).c_str();
    // Just as large as its content: a step outside is seen.
    std::vector<uint8_t> block(data + 2 + name_bytes + value_bytes, data + size);

    const size_t before = bytes_in_use(block);
    expect(before <= block.size() - kCrcBytes);
    const Value found = find(block, name.c_str());
    if (found.text != nullptr) expect(strlen(found.text) == found.length);

    remove(block, name.c_str());
    const size_t removed = bytes_in_use(block);
    expect(removed <= before && find(block, name.c_str()).text == nullptr);
    const bool fits = append(block, name.c_str(), value.c_str());
    expect(fits == (removed + name.size() + value.size() + 3 <= block.size() - kCrcBytes));
    if (fits && is_name(name.c_str())) expect(holds(block, name, value));
    expect(bytes_in_use(block) == removed + (fits ? name.size() + value.size() + 2 : 0));
    store_crc(block);
    uint8_t mac[kMacBytes];
    parse_mac(value.c_str(), mac);
    return 0;
}
