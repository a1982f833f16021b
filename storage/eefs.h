// eefs.h - the EEPROM file system's operations, over any chip's context. The exported families
// (eefs_families.cpp) and the raw EEPROM objects (eeprom.cpp) stand on these.
#pragma once

#include <array>
#include <cstdint>

#include "frame/log.h"
#include "storage/eefs_layout.h"

#define EEFS_ERROR_AS(function, format, ...)                                                               \
    OSA_logWrite(::qel::log::kError, ::qel::log::kErrorAttribute, "[libqel-EEFS] ERROR  (%s|%d): " format, \
                 function, __LINE__, ##__VA_ARGS__)
#define EEFS_WARN_AS(function, format, ...)                           \
    OSA_logWrite(::qel::log::kWarning, ::qel::log::kWarningAttribute, \
                 "[libqel-EEFS] WARN  (%s|%d): " format, function, __LINE__, ##__VA_ARGS__)
#define EEFS_INFO(format, ...)                                                                         \
    OSA_logWrite(::qel::log::kInformation, ::qel::log::kInformationAttribute, "[libqel-EEFS] " format, \
                 ##__VA_ARGS__)

namespace qel::eefs {

enum class Mode : uint8_t { kUnchanged, kWritten, kCreated };

// The one file that may be open.
struct OpenFile {
    bool open = false;
    Mode mode = Mode::kUnchanged;
    int32_t index = -1;
    uint32_t header_address = 0;
    uint32_t position = 0;
    uint32_t length_bytes = 0;
    uint32_t allocated_bytes = 0;
    char name[EEFS_NAME_BYTES] = {};

    uint32_t data_address() const { return header_address + kHeaderBytes + position; }
};

}  // namespace qel::eefs

struct EefsContext {
    bool initialised = false;
    int fd = -1;
    EefsChipAttr attributes{};
    qel::eefs::OpenFile open;
    qel::eefs::Table table{};
};

namespace qel::eefs {

// One call of an exported function: whose context it works on, under which name it logs, and what it
// has seen of head and headers so far. It reads none of their bytes twice.
class Operation {
public:
    Operation(EefsContext &context, const char *caller) : context(context), caller(caller) {}
    Operation(const Operation &) = delete;
    Operation &operator=(const Operation &) = delete;

    // False, with a line in the log, when the context is not initialised.
    bool ready() const;

    // Device transfers within the chip: 0 or -1, with a line in the log.
    int read(uint32_t address, void *buffer, uint32_t bytes);
    int write(uint32_t address, const void *buffer, uint32_t bytes);
    // The same for heads, entries and headers (kHeadBytes at most): what was seen is not read again.
    int read_record(uint32_t address, void *buffer, uint32_t bytes);
    int write_record(uint32_t address, const void *buffer, uint32_t bytes);

    EefsContext &context;
    const char *const caller;

private:
    struct Seen {
        uint32_t address;
        uint32_t bytes;
        std::array<uint8_t, kHeadBytes> data;
    };
    const uint8_t *seen_at(uint32_t address, uint32_t bytes) const;
    void note(uint32_t address, const void *buffer, uint32_t bytes);
    int transfer(uint32_t request, const char *name, uint32_t address, void *buffer, uint32_t bytes);

    uint32_t seen_count_ = 0;
    std::array<Seen, 3 * kTableFiles + 4> seen_;  // headers before and after a new lay-out, entries, heads
};

// The contexts: the single chip's, and those of the numbered chips. Chips beyond the last share one
// that is never initialised.
EefsContext &single_context();
EefsContext &chip_context(unsigned chip);

int open_device(unsigned chip, EefsChipAttr *attributes, int *fd, const char *caller);

// ---- operations; what they answer stands in qel/eeprom.h. All but init want a ready context. ----

constexpr int kLookUpFailed = -4;  // of open_file: the device failed before it was known what to open

int init(Operation &op, unsigned chip, bool log_descriptor, EefsChipAttr *out);
int exit(Operation &op);
int load_table(Operation &op, uint32_t address);
int clear_files(Operation &op);
int erase_chip(Operation &op);
int dump(Operation &op);

int find_file(Operation &op, const char *name, FileHeader *header);
// 0 with the header of the file at `index`, all zero (not in use) where the table knows no place for it.
int read_header(Operation &op, uint32_t index, FileHeader *header);
// The header of the nth file in use and its index; EEFS_NOT_FOUND beyond the last.
int find_nth(Operation &op, uint32_t n, FileHeader *header);
int count_files(Operation &op, uint32_t *count);

int open_file(Operation &op, const char *name);
int close_file(Operation &op, int index);
// Forgets the open file as a power cut would: a new one never existed, an old one keeps its header.
void abandon_file(EefsContext &context);
int read_file(Operation &op, int index, void *buffer, uint32_t bytes, uint32_t *done);
int write_file(Operation &op, int index, const void *buffer, uint32_t bytes, uint32_t *done);
int seek_file(Operation &op, int index, int32_t offset, int whence);

}  // namespace qel::eefs
