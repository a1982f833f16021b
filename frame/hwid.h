// hwid.h - the product driver's interface: its node, its requests and the hardware-id record.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qel::hwid {

constexpr const char *kDevice = "/dev/qecHwid";
constexpr uint32_t kGetRecord = 0xC0044800;   // HwidRecord out
constexpr uint32_t kGetSensors = 0xC0044806;  // SensorDrvInfo: entries NULL asks for the count alone

// One chip's record. The reserved parts belong to the driver and are carried unchanged.
struct HwidRecord {
    uint16_t properties_26_27[2];
    uint8_t reserved_4[32];
    uint8_t master_slave_mark;
    uint8_t dsp_sums;  // chips in the unit, 0 = not set
    uint8_t chip_idx;  // this chip, 0 = master
    uint8_t reserved_39[29];
    uint8_t info[44];
    char name[32];
    uint16_t properties[30];  // by offset, see product/properties.h
    uint8_t reserved_204[124];
    uint8_t base_cfg[32];
    uint8_t reserved_360[96];
};
static_assert(sizeof(HwidRecord) == 456);
static_assert(offsetof(HwidRecord, master_slave_mark) == 36);
static_assert(offsetof(HwidRecord, info) == 68);
static_assert(offsetof(HwidRecord, name) == 112);
static_assert(offsetof(HwidRecord, properties) == 144);
static_assert(offsetof(HwidRecord, base_cfg) == 328);

struct ChipInfo {
    uint8_t dsp_sums;
    uint8_t chip_idx;
};

// What the record says of the unit: where the number of chips is not set, this is the only one.
inline ChipInfo chip_info(const HwidRecord &record) {
    if (record.dsp_sums == 0) return {1, 0};
    return {record.dsp_sums, record.chip_idx};
}

}  // namespace qel::hwid
