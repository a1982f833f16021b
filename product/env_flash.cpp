#include "product/env_flash.h"

#include <unistd.h>
#include <algorithm>
#include <cstring>

#include "os/mtd.h"
#include "os/os.h"
#include "platform/include/osa.h"
#include "product/hwid_store.h"
#include "qel/product.h"

namespace qel::environment {

namespace {

constexpr const char *kPartition = "hwid";

bool has_good_blocks(const Medium &medium) {
    return medium.flash.type == QEL_FLASH_NAND || medium.flash.type == QEL_FLASH_MLC_NAND;
}

// The size of the partition, 0 where there is none of that name.
uint64_t partition_bytes() {
    FlashPartitionTable *table = nullptr;
    if (QEL_getPartionInfo64(&table) != 0) return 0;
    for (uint32_t i = 0; i < table->count; ++i) {
        if (strcmp(table->entries[i].name, kPartition) == 0) return table->entries[i].size;
    }
    return 0;
}

int measure(Medium *medium) {
    const Place place = {medium->flash.type, medium->partition_bytes,
                         product::property(0, QEL_PROPERTY_CATEGORY),
                         product::property(0, QEL_PROPERTY_BOARD_TYPE)};
    const uint64_t bytes = block_bytes(place);
    if (bytes == 0) {
        os::print_out("unknown Flash Type: %d !\n", static_cast<int>(place.flash_type));
        return OSA_EFAIL;
    }
    if (bytes < kMinBlockBytes || bytes > kMaxBlockBytes) {
        os::print_out("get hwid pation flash info error!\n");
        return OSA_EFAIL;
    }
    medium->block_bytes = static_cast<size_t>(bytes);
    medium->section_bytes = std::min<size_t>(medium->block_bytes, medium->flash.eraseBytes);
    medium->reversed = has_reversed_words(place);
    return 0;
}

bool erase(const Medium &medium, uint64_t start, uint64_t length) {
    if (start > UINT32_MAX || length > UINT32_MAX) return false;
    os::MtdErase area = {static_cast<uint32_t>(start), static_cast<uint32_t>(length)};
    return os::ioctl(medium.fd, os::kMtdErase, &area) >= 0;
}

struct Section {
    unsigned number;
    size_t at;
    size_t bytes;
};

// Stops at the first section that `visit` refuses.
template <typename Visit>
int for_each_section(const Medium &medium, Visit visit) {
    Section section = {0, 0, 0};
    for (; section.at < medium.block_bytes; ++section.number, section.at += section.bytes) {
        section.bytes = std::min(medium.section_bytes, medium.block_bytes - section.at);
        if (!visit(section)) return OSA_EFAIL;
    }
    return 0;
}

bool read_good_section(const Medium &medium, const Section &section, uint8_t *to) {
    uint64_t place = 0;
    if (Flash_LookupTab(section.at, &place, medium.index) != 0) return false;
    if (os::seek(medium.fd, static_cast<int64_t>(place), SEEK_SET) < 0) {
        os::print_out("Fail to lseek env section");
        return false;
    }
    const ssize_t got = os::read_full(medium.fd, to, section.bytes);
    if (got == static_cast<ssize_t>(section.bytes)) return true;
    os::print_out("Fail to read env section %u,%llx,%llx,%d,%x\n", section.number,
                  static_cast<unsigned long long>(section.at), static_cast<unsigned long long>(place),
                  medium.fd, static_cast<unsigned>(got));
    return false;
}

bool read_next_section(const Medium &medium, const Section &section, uint8_t *to) {
    const ssize_t got = os::read_full(medium.fd, to, section.bytes);
    if (got == static_cast<ssize_t>(section.bytes)) return true;
    os::print_out("Fail to read env section: %u, fd = %d, ret = %x\n", section.number, medium.fd,
                  static_cast<unsigned>(got));
    return false;
}

int seek_to_start(const Medium &medium) {
    if (os::seek(medium.fd, 0, SEEK_SET) >= 0) return 0;
    os::print_out("Fail to lseek env section");
    return OSA_EFAIL;
}

// `place_for` tells where a section goes, just before it is read.
template <typename Place>
int read_sections(const Medium &medium, Place place_for) {
    const bool good_blocks = has_good_blocks(medium);
    if (!good_blocks && seek_to_start(medium) != 0) return OSA_EFAIL;
    return for_each_section(medium, [&](const Section &section) {
        uint8_t *const to = place_for(section);
        if (!(good_blocks ? read_good_section : read_next_section)(medium, section, to)) return false;
        if (medium.reversed) reverse_words({to, section.bytes});
        return true;
    });
}

bool write_good_section(const Medium &medium, const Section &section, ConstBlock block) {
    uint64_t place = 0;
    if (Flash_LookupTab(section.at, &place, medium.index) != 0 ||
        !erase(medium, place, medium.flash.eraseBytes)) {
        os::print_out("erase hwid pation error!");
        return false;
    }
    if (os::seek(medium.fd, static_cast<int64_t>(place), SEEK_SET) >= 0 &&
        os::write_full(medium.fd, block.data() + section.at, section.bytes) >= 0) {
        return true;
    }
    os::print_out("Fail to write env section");
    return false;
}

int compare_with_medium(const Medium &medium, ConstBlock block) {
    const Scratch scratch(block.size());
    if (!scratch) {
        os::print_out("Cannot malloc memory for buff");
        return OSA_EFAIL;
    }
    if (read_block(medium, scratch.block()) != 0) {
        os::print_out("Fail to read env");
        return OSA_EFAIL;
    }
    if (memcmp(scratch.block().data(), block.data(), block.size()) == 0) return 0;
    os::print_out("Fail to check env");
    return OSA_EFAIL;
}

int write_good_blocks(const Medium &medium, ConstBlock block) {
    const auto write = [&](const Section &section) { return write_good_section(medium, section, block); };
    if (for_each_section(medium, write) != 0) return OSA_EFAIL;
    return compare_with_medium(medium, block);
}

int write_contiguous(const Medium &medium, ConstBlock block) {
    if (medium.flash.type == QEL_FLASH_NOR && !erase(medium, 0, medium.partition_bytes)) {
        os::print_out("Fail to erase env section");
        return OSA_EFAIL;
    }
    if (seek_to_start(medium) != 0) return OSA_EFAIL;
    return for_each_section(medium, [&](const Section &section) {
        if (os::write_full(medium.fd, block.data() + section.at, section.bytes) >= 0) return true;
        os::print_out("Fail to write env section");
        return false;
    });
}

int write_reversed(const Medium &medium, ConstBlock block) {
    const Scratch scratch(block.size());
    if (!scratch) return OSA_EFAIL;
    memcpy(scratch.block().data(), block.data(), block.size());
    reverse_words(scratch.block());
    return write_contiguous(medium, scratch.block());
}

}  // namespace

Scratch::Scratch(size_t bytes) : memory_(static_cast<uint8_t *>(OSA_memAlloc(bytes))), bytes_(bytes) {}

Scratch::~Scratch() {
    if (memory_ != nullptr) OSA_memFree(memory_);
}

int open_medium(Medium *medium) {
    medium->partition_bytes = partition_bytes();
    if (medium->partition_bytes == 0 || QEL_getFlashInfo(&medium->flash) != 0 ||
        medium->flash.eraseBytes == 0) {
        os::print_out("get hwid pation flash info error!\n");
        return OSA_EFAIL;
    }
    if (QEL_flashOpenPartion(kPartition, &medium->fd, &medium->index) != 0) {
        os::print_out("Open Hwid Partition Failed !!\n");
        return OSA_EFAIL;
    }
    if (has_good_blocks(*medium) && Flash_createPartionTab(medium->fd, medium->index) != 0) {
        os::print_out("Create hwid pation flash info error!");
        close_medium(medium);
        return OSA_EFAIL;
    }
    if (measure(medium) == 0) return 0;
    close_medium(medium);
    return OSA_EFAIL;
}

void close_medium(Medium *medium) {
    if (medium->fd >= 0) os::close(medium->fd);
    *medium = {};
}

int read_block(const Medium &medium, Block block) {
    return read_sections(medium, [&](const Section &section) { return block.data() + section.at; });
}

int read_list(const Medium &medium, Block block, size_t *end) {
    ListEnd list = {0, false};
    size_t kept = 0;
    const auto place_for = [&](const Section &section) {
        if (!list.is_marked && section.at > 0) list = find_end(block.first(section.at));
        if (list.is_marked) return block.data() + list.at + 1;  // is not kept
        kept = section.at + section.bytes;
        return block.data() + section.at;
    };
    if (read_sections(medium, place_for) != 0) return OSA_EFAIL;
    *end = list.is_marked ? list.at : find_end(block.first(kept)).at;
    return 0;
}

int write_block(const Medium &medium, ConstBlock block) {
    switch (medium.flash.type) {
        case QEL_FLASH_NAND:
        case QEL_FLASH_MLC_NAND:
            return write_good_blocks(medium, block);
        case QEL_FLASH_NOR:
        case QEL_FLASH_EMMC:
            if ((medium.reversed ? write_reversed(medium, block) : write_contiguous(medium, block)) == 0)
                return 0;
            os::print_out("Fail to write env");
            return OSA_EFAIL;
        default:
            os::print_out("unknown Flash Type !\n");
            return OSA_EFAIL;
    }
}

}  // namespace qel::environment
