// adapter.cpp - forwarding: who this process is, which side of the channels it stands on, and what
// both sides share.
#include "frame/adapter.h"

#include <fcntl.h>
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "frame/hwid.h"
#include "frame/log.h"
#include "os/os.h"

namespace qel::adapter {

namespace {

constexpr const char *kOwnName = "/proc/self/comm";
constexpr size_t kOwnNameBytes = 31;
constexpr unsigned kDumpBytes = 1024;  // of a message; a whole one has up to 1 MiB

struct Identity {
    std::string_view name;
    int id;
};
// Each hit overrides the earlier ones.
constexpr Identity kIdentities[] = {{"vesta", 2}, {"VideoDaemon", 1}, {"systools", 4}};
constexpr int kUnknownProcess = -1;

std::atomic<unsigned> chip_count{1};

int identity_of(std::string_view name) {
    int id = kUnknownProcess;
    for (const Identity &known : kIdentities) {
        if (name.find(known.name) != std::string_view::npos) id = known.id;
    }
    return id;
}

int find_process_id() {
    char name[kOwnNameBytes + 1] = {};
    const ssize_t got = os::read_file(kOwnName, name, kOwnNameBytes);
    if (got < 0) {
        QEL_ERROR_AS("QEL_adapterGetProcessID", "Can't open %s\n", kOwnName);
        return kUnknownProcess;
    }
    name[strcspn(name, "\n")] = '\0';
    QEL_INFO("QEL run in %s\r\n", name);
    return identity_of(name);
}

int read_own_record(hwid::HwidRecord *record) {
    const os::Fd fd(os::open(hwid::kDevice, O_RDWR));
    if (!fd.is_open()) {
        QEL_ERROR_AS("QEL_adapterPreInit", "Can't open %s\n", hwid::kDevice);
        return OSA_EFAIL;
    }
    if (os::ioctl(fd.get(), hwid::kGetRecord, record) != 0) {
        QEL_ERROR_AS("QEL_adapterPreInit", "Ioctl execute error\n");
        return OSA_EFAIL;
    }
    return 0;
}

int take_side(const hwid::ChipInfo &chip) {
    if (chip.chip_idx != 0) {
        QEL_INFO("QEL Adapter Slave Init !\n");
        return QEL_adapterSlaveInit(chip.chip_idx, chip.dsp_sums);
    }
    QEL_INFO("QEL Adapter Master Init !\n");
    set_chip_count(chip.dsp_sums);
    return QEL_adapterMasterInit(chip.chip_idx, chip.dsp_sums);
}

template <size_t kBytes>
void set_channel_name(char (&out)[kBytes], const char *format, unsigned slave) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    snprintf(out, kBytes, format, kChannelPrefix, static_cast<int>(slave));
#pragma GCC diagnostic pop
}

}  // namespace

void set_chip_count(unsigned count) { chip_count = count; }

int open_channel(const Peer &peer, uintptr_t *handle) {
    const int process_id = QEL_adapterGetProcessID();
    const unsigned slave = std::max(peer.own_chip, peer.peer_chip);

    const XCC_InitParams init{peer.own_chip, process_id, peer.chip_count};
    if (XCC_init(&init) != 0) {
        QEL_ERROR_AS(peer.function, "Xcc init fail !\n");
        return OSA_EFAIL;
    }
    XCC_CreateParams create{};
    set_channel_name(create.name, peer.own_format, slave);
    create.size = QEL_ADAPTER_CHANNEL_BYTES;
    if (XCC_create(&create, handle) != 0) {
        QEL_ERROR_AS(peer.function, "XCC_create %s failed !\n", create.name);
        XCC_deInit();
        return OSA_EFAIL;
    }
    XCC_BindParams bind{};
    bind.peerChip = peer.peer_chip;
    bind.processId = process_id;
    set_channel_name(bind.peerName, peer.peer_format, slave);
    while (XCC_bind(*handle, &bind, kForever) != 0) {
    }
    return 0;
}

void close_channel(uintptr_t handle) {
    if (XCC_delete(handle) != 0) QEL_WARN_AS("QEL_adapterPreDeinit", "XCC_delete failed !\n");
    XCC_deInit();
}

}  // namespace qel::adapter

using namespace qel;
using namespace qel::adapter;

extern "C" {

int QEL_adapterGetProcessID(void) {
    static const int id = find_process_id();
    return id;
}

unsigned QEL_adapterGetChipNum(void) { return chip_count; }

int QEL_adapterPreInit(void) {
    hwid::HwidRecord record{};
    if (read_own_record(&record) != 0) return OSA_EFAIL;
    const hwid::ChipInfo chip = hwid::chip_info(record);
    if (chip.dsp_sums < 2) return 0;
    if (QEL_adapterGetProcessID() < 0) {
        QEL_INFO("QEL Adapter needn't Init!\n");
        return 0;
    }
    if (chip.chip_idx >= chip.dsp_sums) {
        QEL_ERROR("id err :[%x] [%x] !\n", chip.chip_idx, chip.dsp_sums);
        return OSA_EFAIL;
    }
    const int status = take_side(chip);
    if (status == 0) {
        QEL_INFO("QEL Adapter Init OK !\n");
    } else {
        QEL_INFO("QEL Adapter Init err !\n");
    }
    return status;
}

int QEL_adapterInit(void) {
    for (const Module &module : modules()) module.init();
    return 0;
}

int QEL_adapterDeinit(void) {
    for (const Module &module : modules()) module.deinit();
    return 0;
}

int QEL_adapterPreDeinit(void) {
    QEL_adapterMasterDeInit();
    QEL_adapterSlaveDeInit();
    return 0;
}

void QEL_adapterPrintBuffer(const char *tag, const AdapterMsg *msg, unsigned bytes) {
    if (tag == nullptr || msg == nullptr) return;
    const unsigned shown = std::min(bytes, kDumpBytes);
    const auto *data = reinterpret_cast<const uint8_t *>(msg);
    QEL_VERBOSE("%s %u bytes\n", tag, bytes);
    for (unsigned at = 0; at < shown; at += 16) {
        uint32_t words[4] = {};
        memcpy(words, data + at, std::min(shown - at, 16u));
        QEL_VERBOSE("%s %04x: %08x %08x %08x %08x\n", tag, at, words[0], words[1], words[2], words[3]);
    }
    if (shown < bytes) QEL_VERBOSE("%s ... %u bytes more\n", tag, bytes - shown);
}

}  // extern "C"
