// registry.cpp - every kind of device that a board description can ask for.
#include <vector>

#include "board/core/device.h"

namespace qel::board {

extern const DeviceClass kHwidClass;
extern const DeviceClass kChannelMapClass;
extern const DeviceClass kMiscClass;
extern const DeviceClass kGpioClass;
extern const DeviceClass kEepromClass;
extern const DeviceClass kFlashClass;
extern const DeviceClass kTtyClass;
extern const DeviceClass kUartClass;
extern const DeviceClass kMcuClass;

namespace {

std::vector<const DeviceClass *> &registry() {
    static std::vector<const DeviceClass *> all = {
        &kHwidClass,  &kChannelMapClass, &kMiscClass, &kGpioClass, &kEepromClass,
        &kFlashClass, &kTtyClass,        &kUartClass, &kMcuClass,
    };
    return all;
}

}  // namespace

std::span<const DeviceClass *const> device_classes() { return registry(); }

void add_device_class(const DeviceClass &added) {
    for (const DeviceClass *known : registry()) {
        if (known == &added) return;
    }
    registry().push_back(&added);
}

}  // namespace qel::board
