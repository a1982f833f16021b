#include <string_view>

#include "board/core/device.h"
#include "board/net/client.h"

namespace qel::board {

namespace {

// FNV-1a: a mark for equality between two builds, nothing more.
struct Hash {
    uint64_t value = 0xCBF29CE484222325;

    void add(std::string_view text) {
        for (const char c : text) add_byte(static_cast<uint8_t>(c));
        add_byte(0);
    }
    void add(uint32_t number) {
        for (unsigned shift = 0; shift < 32; shift += 8) add_byte(static_cast<uint8_t>(number >> shift));
    }
    void add_byte(uint8_t byte) { value = (value ^ byte) * 0x100000001B3; }
};

}  // namespace

uint64_t class_fingerprint() {
    Hash hash;
    for (const DeviceClass *device_class : device_classes()) {
        hash.add(device_class->key);
        for (const RequestSpec &request : device_class->requests) {
            hash.add(request.code);
            // Records of native size cross packed: their own sizes differ between word sizes.
            hash.add(request.pack == nullptr ? request.in_bytes : 0);
            hash.add(request.unpack == nullptr ? request.out_bytes : 0);
        }
    }
    return hash.value;
}

}  // namespace qel::board
