// flash_switch.h - whether the partition table lets the boot loader run from the backup copies. Pure.
#pragma once

#include <cstring>
#include <span>

#include "qel/storage.h"

namespace qel::flash {

struct BackupCount {
    int with_backup = 0;  // partitions that have a backup copy, the boot loader's own left out
    int of_its_own = 0;   // of those: in a place that no other partition uses
};

inline bool can_switch_to_backup(const FlashPartition &entry) {
    return entry.backupOffset != 0 && static_cast<uint32_t>(entry.backupOffset) != UINT32_MAX &&
           strcmp(entry.name, "U-Boot") != 0;
}

inline BackupCount count_backups(std::span<const FlashPartition> entries) {
    BackupCount found;
    for (const FlashPartition &entry : entries) {
        if (!can_switch_to_backup(entry)) continue;
        ++found.with_backup;
        bool shared = false;
        for (const FlashPartition &other : entries) {
            if (&other == &entry) continue;
            shared |= other.offset == entry.backupOffset || other.backupOffset == entry.backupOffset;
        }
        if (!shared) ++found.of_its_own;
    }
    return found;
}

}  // namespace qel::flash
