// misc.cpp - "/dev/qecMisc": the requests that have no device of their own.
//
// Answered here are the reboot, the place of the reserved memory, the number of EEPROM chips, and what
// concerns the serial ports of the chip. A board without ports does not know the requests that name one, a
// board without microcontroller those for its capabilities: ENOTTY.
#include "board/core/chip.h"
#include "board/core/description.h"
#include "board/core/report.h"
#include "board/model/mcu.h"
#include "board/model/port_map.h"
#include "board/model/records.h"
#include "qel/eeprom_driver.h"
#include "qel/misc_driver.h"

namespace qel::board {

namespace {

constexpr const char *kNode = "/dev/qecMisc";
constexpr uint32_t kReboot = 0xC0044D05;
constexpr uint32_t kSetRs485Direction = 0xC0044D04;
constexpr uint32_t kGetPortMap = 0xC0044D08;
constexpr uint32_t kSetLineMode = 0xC0044D20;
constexpr uint32_t kGetRs485Status = 0xC0044D29;
constexpr uint32_t kGetMcuCaps = 0xC0044D34;
constexpr uint32_t kMcuCapsRead = 0xC0044D44;
constexpr uint32_t kGetReservedMemory = 0xC0044D4B;

constexpr RequestSpec kRequests[] = {
    {kSetRs485Direction, "SET_RS485_DIRECTION", 8, 0},
    {kReboot, "REBOOT"},
    {kGetPortMap, "GET_PORT_MAP", 0, kPortMapBytes},
    {kSetLineMode, "SET_LINE_MODE", 8, 0},
    {kGetRs485Status, "GET_RS485_STATUS", 4, 4},
    {kGetMcuCaps, "GET_MCU_CAPS", 0, 4},
    {kMcuCapsRead, "MCU_CAPS_READ"},
    {kGetReservedMemory, "GET_RESERVED_MEMORY", 0, 8},
    {QEL_MISC_GET_EEPROM_COUNT, "GET_EEPROM_COUNT", 0, 4},
};

class Misc final : public Device {
public:
    Misc(Chip &chip, const Description &description)
        : Device(chip),
          memory_start_(static_cast<uint32_t>(description.number("reserved_memory_start", 0, UINT32_MAX, 0))),
          memory_bytes_(static_cast<uint32_t>(description.number("reserved_memory_bytes", 0, UINT32_MAX, 0))),
          counts_eeproms_(description.flag("counts_eeproms", true)),
          ports_(chip.description()) {}
    Answer ioctl(Handle &handle, uint32_t request, Bytes in) override;
    void power_on() override { ports_.wire_lines(chip()); }
    void show(Report &report) const override {
        report.value("reserved memory start", int64_t{memory_start_});
        report.value("reserved memory bytes", int64_t{memory_bytes_});
        ports_.show(report);
    }

private:
    Answer reboot();
    Answer ask_port(uint32_t request, Bytes in) const;
    Answer ask_mcu(uint32_t request) const;
    uint32_t eeprom_count() const;

    uint32_t memory_start_;  // both 0: the board has none
    uint32_t memory_bytes_;
    bool counts_eeproms_;  // false: a driver that does not know the request
    PortMap ports_;
};

Answer Misc::ioctl(Handle &, uint32_t request, Bytes in) {
    if (request == kReboot) return reboot();
    if (request == QEL_MISC_GET_EEPROM_COUNT && counts_eeproms_)
        return Answer::ok(0, u32_record(eeprom_count()));
    if (request == kGetPortMap) return Answer::ok(0, ports_.record());
    if (request == kGetMcuCaps || request == kMcuCapsRead) return ask_mcu(request);
    if (request != kGetReservedMemory) return ask_port(request, in);
    Buffer out(8);
    put_u32(out, 0, memory_start_);
    put_u32(out, 4, memory_bytes_);
    return Answer::ok(0, std::move(out));
}

Answer Misc::ask_port(uint32_t request, Bytes in) const {
    if (ports_.empty()) return Answer::fail(ENOTTY);
    switch (request) {
        case kSetRs485Direction:
            return Answer::ok(ports_.set_direction(chip(), get_u32(in, 0), get_u32(in, 4)));
        case kSetLineMode:
            return Answer::ok(ports_.set_mode(chip(), get_u32(in, 0), get_u32(in, 4)));
        case kGetRs485Status: {
            const int status = ports_.rs485_status(chip(), get_u32(in, 0));
            return status < 0 ? Answer::ok(status) : Answer::ok(0, u32_record(static_cast<uint32_t>(status)));
        }
        default:
            return Answer::fail(ENOTTY);
    }
}

Answer Misc::ask_mcu(uint32_t request) const {
    const std::optional<uint32_t> caps = mcu_caps_word(chip());
    if (!caps) return Answer::fail(ENOTTY);
    return request == kGetMcuCaps ? Answer::ok(0, u32_record(*caps)) : Answer::ok();
}

uint32_t Misc::eeprom_count() const {
    if (chip().find(QEL_EEPROM_DEVICE) == nullptr) return 0;
    uint32_t count = 1;
    while (chip().find(QEL_EEPROM_DEVICE + std::to_string(count)) != nullptr) ++count;
    return count;
}

Answer Misc::reboot() {
    chip().record_event("reboot by " + node());
    Answer answer = Answer::ok(-chip().machine().reboot_error);
    answer.ends = chip().machine().reboot_ends;
    return answer;
}

void build(Chip &chip, const Description &description) {
    chip.add(kNode, std::make_unique<Misc>(chip, description));
}

}  // namespace

extern const DeviceClass kMiscClass = {"misc", "miscellaneous requests", kRequests, build};

}  // namespace qel::board
