// EEPROM chips of any content: the first byte chooses page size and capacity, the rest stands on the chip.
// Whatever head and headers say, nothing outside the chip is asked for, and storing a new file leaves
// every file that the table knows as it was.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <vector>

#include "os/os.h"
#include "storage/eefs.h"

using namespace qel;
using namespace qel::eefs;

namespace {

constexpr uint32_t kMostBytes = 4096;
constexpr int kDescriptor = 3;
constexpr uint32_t kPages[] = {0, 1, 16, 32, 128, 5000};

struct Chip {
    uint32_t page_bytes;
    std::vector<uint8_t> content;
};
Chip g_chip;

int transfer(bool writes, qec_eeprom_transfer &record) {
    if (record.address > g_chip.content.size() || record.bytes > g_chip.content.size() - record.address)
        abort();
    uint8_t *const at = g_chip.content.data() + record.address;
    if (writes) {
        memcpy(at, record.buffer, record.bytes);
    } else {
        memcpy(record.buffer, at, record.bytes);
    }
    return 0;
}

struct Region {
    uint32_t address;
    std::vector<uint8_t> content;
};

std::vector<Region> files_of(const Table &table) {
    std::vector<Region> all;
    for (uint32_t i = 0; i < table.count; ++i) {
        const Table::File &file = table.files[i];
        if (file.header_address == kNoAddress) continue;
        const uint64_t end = uint64_t{file.header_address} + kHeaderBytes + file.allocated_bytes;
        if (end > g_chip.content.size()) abort();
        all.push_back({file.header_address,
                       {g_chip.content.begin() + file.header_address,
                        g_chip.content.begin() + static_cast<ptrdiff_t>(end)}});
    }
    return all;
}

void read_all(EefsContext &context) {
    uint32_t count = 0;
    Operation counting(context, "fuzz");
    count_files(counting, &count);
    for (uint32_t n = 0; n < count; ++n) {
        FileHeader header;
        Operation finding(context, "fuzz");
        const int index = find_nth(finding, n, &header);
        if (index < 0) break;
        char name[EEFS_NAME_BYTES];
        copy_name(header, name);
        Operation opening(context, "fuzz");
        const int open = open_file(opening, name);
        if (open < 0 || !context.open.open) continue;
        uint8_t buffer[64];
        uint32_t done = 0;
        do {
            Operation reading(context, "fuzz");
            if (read_file(reading, open, buffer, sizeof buffer, &done) != 0) break;
            if (done > sizeof buffer) abort();
        } while (done > 0);
        abandon_file(context);
    }
}

void store_new(EefsContext &context) {
    static constexpr char kName[] = "new";
    static constexpr char kText[] = "a new file's content";
    FileHeader header;
    Operation looking(context, "fuzz");
    if (find_file(looking, kName, &header) != EEFS_NOT_FOUND) return;  // the chip has one
    Operation opening(context, "fuzz");
    const int open = open_file(opening, kName);
    if (open < 0 || !context.open.open) return;
    uint32_t done = 0;
    Operation writing(context, "fuzz");
    write_file(writing, open, kText, sizeof kText, &done);
    Operation closing(context, "fuzz");
    close_file(closing, open);
}

}  // namespace

// The chip behind the gate, and a quiet log.
extern "C" int OSA_logWrite(int, int, const char *, ...) { return 0; }
extern "C" void *OSA_memCalloc(size_t bytes) { return calloc(1, bytes); }
extern "C" void OSA_memFree(void *memory) { free(memory); }

namespace qel::os {
int open(const char *, int, unsigned) { return kDescriptor; }
int close(int) { return 0; }
int64_t wall_clock_s() { return 1; }
void print_out(const char *, ...) {}
int ioctl(int, uint32_t request, void *argument) {
    if (request != QEC_EEPROM_IOSGET)
        return transfer(request == QEC_EEPROM_IOCWR, *static_cast<qec_eeprom_transfer *>(argument));
    auto &attributes = *static_cast<EefsChipAttr *>(argument);
    attributes = {};
    attributes.page_bytes = g_chip.page_bytes;
    attributes.capacity_bytes = static_cast<uint32_t>(g_chip.content.size());
    return 0;
}
}  // namespace qel::os

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0 || size > kMostBytes) return 0;
    g_chip.page_bytes = kPages[data[0] % std::size(kPages)];
    g_chip.content.assign(data + 1, data + size);
    // A chip that ends with the input, or goes on with what an erased one holds.
    if (data[0] >= 128) g_chip.content.resize(g_chip.content.size() + 512, 0xFF);

    EefsContext context;
    EefsChipAttr attributes;
    Operation starting(context, "fuzz");
    if (init(starting, 0, false, &attributes) != 0) return 0;
    read_all(context);
    if (context.table.count < kFiles) {
        const std::vector<Region> before = files_of(context.table);
        store_new(context);
        for (const Region &file : before) {
            if (!std::equal(file.content.begin(), file.content.end(), g_chip.content.begin() + file.address))
                abort();
        }
    }
    Operation ending(context, "fuzz");
    eefs::exit(ending);
    return 0;
}
