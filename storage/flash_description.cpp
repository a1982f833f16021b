// flash_description.cpp - finds the description in an upgrade image, keeps it, and brings the image
// that carries it to its place in flash.
#include "storage/flash_description.h"

#include <algorithm>
#include <cstring>

#include "frame/log.h"
#include "storage/cramfs.h"
#include "storage/flash.h"
#include "storage/partition_description.h"

namespace qel::flash {

namespace {

constexpr const char *kFlusher = "Flash_flushPart";
constexpr const char *kCarrier = "partition";  // the partition that holds the description itself

struct Version {
    uint32_t number;
    const char *file;
};
constexpr Version kVersions[] = {{3, "partitionV3.txt"}, {2, "partitionV2.txt"}, {1, "partition.txt"}};

// Empty where the boot loader does not switch between copies.
struct State {
    PartitionDescription *records = nullptr;
    uint32_t room = 0;
    uint32_t count = 0;
    bool flushed = false;
};
constinit State state;

int find_description(cramfs::Bytes bytes, char *buffer, uint32_t *version) {
    constexpr const char *kFinder = "Flash_getPartFile";
    cramfs::Image image;
    cramfs::Result result = cramfs::open(bytes, &image);
    for (const Version &candidate : kVersions) {
        cramfs::File file;
        if (result != cramfs::Result::kOk) break;
        result = cramfs::find(image, candidate.file, &file);
        if (result == cramfs::Result::kNotFound) {
            result = cramfs::Result::kOk;
            continue;
        }
        memset(buffer, 0, QEL_DESCRIPTION_BYTES);
        // The last byte stays zero: the text is a string.
        const std::span<uint8_t> room(reinterpret_cast<uint8_t *>(buffer), QEL_DESCRIPTION_BYTES - 1);
        if (result == cramfs::Result::kOk) result = cramfs::read(image, file, room);
        if (result == cramfs::Result::kOk) {
            *version = candidate.number;
            return 0;
        }
        QEL_ERROR_AS(kFinder, "%s: %s\n", candidate.file, cramfs::describe(result));
        return OSA_EFAIL;
    }
    if (result == cramfs::Result::kOk) result = cramfs::Result::kNotFound;
    QEL_ERROR_AS(kFinder, "no partition description: %s\n", cramfs::describe(result));
    return OSA_EFAIL;
}

struct Parsed {
    char text[QEL_DESCRIPTION_BYTES];
    PartitionDescription records[QEL_MAX_DESCRIPTIONS];
};

// Parses the image's description and keeps it as the device's. *carrier: the record of the partition
// that holds the description.
int take_over(cramfs::Bytes image, Parsed &parsed, const PartitionDescription **carrier) {
    uint32_t version = 0;
    uint32_t count = QEL_MAX_DESCRIPTIONS;
    if (find_description(image, parsed.text, &version) != 0 ||
        description::parse(parsed.text, version, parsed.records, &count) != 0) {
        return OSA_EFAIL;
    }
    state.count = std::min(count, state.room);
    std::copy_n(parsed.records, state.count, state.records);
    const PartitionDescription *const end = parsed.records + count;
    *carrier = std::find_if(static_cast<const PartitionDescription *>(parsed.records), end,
                            [](const auto &record) { return strcmp(record.name, kCarrier) == 0; });
    if (*carrier != end) return 0;
    QEL_ERROR_AS(kFlusher, "can not find partition part\n");
    return OSA_EFAIL;
}

// Writes the image to the copy of the carrier that the device does not run from.
int write_image(RawFlash *flash, const PartitionDescription &carrier, cramfs::Bytes image) {
    const BackupSigns signs = backup_signs();
    const uint64_t address = signs.boot_from_backup != 0 ? carrier.offset : carrier.backupOffset;
    set_switch_target(static_cast<uint32_t>(address));
    if (signs.can_switch != 0) return 0;
    if (address != 0 && address != QEL_NO_BACKUP) {
        if (write_through(flash, address, image.data(), static_cast<uint32_t>(image.size())) < 0) {
            QEL_ERROR_AS(kFlusher, "fail to write partiton\n");
            return OSA_EFAIL;
        }
    }
    QEL_INFO("flush device partition\n");
    state.flushed = true;
    return 0;
}

}  // namespace

int allocate_description(uint32_t partitions) {
    free_description();
    state.records = static_cast<PartitionDescription *>(OSA_memCalloc(partitions * sizeof *state.records));
    if (state.records == nullptr) return OSA_EFAIL;
    state.room = partitions;
    return 0;
}

void free_description() {
    if (state.records != nullptr) OSA_memFree(state.records);
    state = {};
}

}  // namespace qel::flash

using namespace qel;
using namespace qel::flash;

extern "C" {

int Flash_getPartFile(const void *image, uint32_t length, char *buffer, uint32_t *version) {
    if (image == nullptr || buffer == nullptr || version == nullptr) {
        QEL_ERROR("bad argument\n");
        return OSA_EFAIL;
    }
    return find_description({static_cast<const uint8_t *>(image), length}, buffer, version);
}

int Flash_flushPart(struct RawFlash *flash, const void *image, uint32_t length) {
    auto *const parsed = static_cast<Parsed *>(OSA_memCalloc(sizeof(Parsed)));
    if (image == nullptr || parsed == nullptr) {
        QEL_ERROR("%s\n", image == nullptr ? "bad argument" : "OSA_memCalloc failed !");
        if (parsed != nullptr) OSA_memFree(parsed);
        return OSA_EFAIL;
    }
    const cramfs::Bytes bytes(static_cast<const uint8_t *>(image), length);
    const PartitionDescription *carrier = nullptr;
    int status = take_over(bytes, *parsed, &carrier);
    if (status == 0) status = write_image(flash, *carrier, bytes);
    OSA_memFree(parsed);
    return status;
}

}  // extern "C"
