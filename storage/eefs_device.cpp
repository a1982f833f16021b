// eefs_device.cpp - the EEPROM file system's way to the chip, and the contexts it keeps per chip.
#include <fcntl.h>
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "os/os.h"
#include "storage/eefs.h"

namespace qel::eefs {

namespace {

static_assert(sizeof(void *) != 4 || sizeof(qec_eeprom_transfer) == 24);
static_assert(sizeof(EefsChipAttr) == 28 && offsetof(EefsChipAttr, capacity_bytes) == 12);

constexpr size_t kPathBytes = 20;

struct State {
    EefsContext single;
    EefsContext chips[QEL_EEPROM_CHIPS_MAX];
    EefsContext no_chip;
};
State g_state;

bool device_path(unsigned chip, char (&path)[kPathBytes]) {
    const int length = chip == 0 ? snprintf(path, sizeof(path), QEL_EEPROM_DEVICE)
                                 : snprintf(path, sizeof(path), QEL_EEPROM_DEVICE "%u", chip);
    return length > 0 && static_cast<size_t>(length) < sizeof(path);
}

}  // namespace

EefsContext &single_context() { return g_state.single; }

EefsContext &chip_context(unsigned chip) {
    return chip < QEL_EEPROM_CHIPS_MAX ? g_state.chips[chip] : g_state.no_chip;
}

int open_device(unsigned chip, EefsChipAttr *attributes, int *fd, const char *caller) {
    if (fd != nullptr) *fd = -1;
    if (attributes == nullptr || fd == nullptr) {
        EEFS_ERROR_AS(caller, "Null eeprom attribute!\n");
        return OSA_EFAIL;
    }
    char path[kPathBytes];
    if (!device_path(chip, path)) {
        EEFS_ERROR_AS(caller, "no device for chip %u\n", chip);
        return OSA_EFAIL;
    }
    os::Fd device(os::open(path, O_RDWR));
    if (!device.is_open()) {
        EEFS_ERROR_AS(caller, "open %s failed\n", path);
        return OSA_EFAIL;
    }
    if (os::ioctl(device.get(), QEC_EEPROM_IOSGET, attributes) < 0) {
        EEFS_ERROR_AS(caller, "QEC_EEPROM_IOSGET of %s failed\n", path);
        return OSA_EFAIL;
    }
    *fd = device.release();
    return 0;
}

bool Operation::ready() const {
    if (!context.initialised) EEFS_ERROR_AS(caller, "EEFS didnot init\n");
    return context.initialised;
}

int Operation::transfer(uint32_t request, const char *name, uint32_t address, void *buffer, uint32_t bytes) {
    const uint32_t capacity = context.attributes.capacity_bytes;
    if (address > capacity || bytes > capacity - address) {
        EEFS_ERROR_AS(name, "%u bytes at 0x%x are not on the chip\n", bytes, address);
        return OSA_EFAIL;
    }
    qec_eeprom_transfer record = {.address = address, .buffer = buffer, .bytes = bytes, .unused = {}};
    if (os::ioctl(context.fd, request, &record) < 0) {
        EEFS_ERROR_AS(name, "QEC_EEPROM_IOCWR error\n");
        return OSA_EFAIL;
    }
    return 0;
}

int Operation::read(uint32_t address, void *buffer, uint32_t bytes) {
    return transfer(QEC_EEPROM_IOCRD, "E2_read", address, buffer, bytes);
}

int Operation::write(uint32_t address, const void *buffer, uint32_t bytes) {
    if (transfer(QEC_EEPROM_IOCWR, "E2_write", address, const_cast<void *>(buffer), bytes) != 0) {
        seen_count_ = 0;  // who knows how much of it got there
        return OSA_EFAIL;
    }
    const auto *from = static_cast<const uint8_t *>(buffer);
    for (uint32_t i = 0; i < seen_count_; ++i) {
        Seen &seen = seen_[i];
        const uint32_t begin = std::max(address, seen.address);
        const uint32_t end = std::min(address + bytes, seen.address + seen.bytes);
        if (begin < end)
            memcpy(seen.data.data() + (begin - seen.address), from + (begin - address), end - begin);
    }
    return 0;
}

const uint8_t *Operation::seen_at(uint32_t address, uint32_t bytes) const {
    for (uint32_t i = 0; i < seen_count_; ++i) {
        const Seen &seen = seen_[i];
        if (address >= seen.address && uint64_t{address} + bytes <= uint64_t{seen.address} + seen.bytes)
            return seen.data.data() + (address - seen.address);
    }
    return nullptr;
}

void Operation::note(uint32_t address, const void *buffer, uint32_t bytes) {
    if (seen_count_ == seen_.size() || seen_at(address, bytes) != nullptr) return;
    Seen &seen = seen_[seen_count_++];
    seen.address = address;
    seen.bytes = bytes;
    memcpy(seen.data.data(), buffer, bytes);
}

int Operation::read_record(uint32_t address, void *buffer, uint32_t bytes) {
    if (const uint8_t *seen = seen_at(address, bytes)) {
        memcpy(buffer, seen, bytes);
        return 0;
    }
    if (read(address, buffer, bytes) != 0) return OSA_EFAIL;
    note(address, buffer, bytes);
    return 0;
}

int Operation::write_record(uint32_t address, const void *buffer, uint32_t bytes) {
    if (write(address, buffer, bytes) != 0) return OSA_EFAIL;
    note(address, buffer, bytes);
    return 0;
}

}  // namespace qel::eefs
