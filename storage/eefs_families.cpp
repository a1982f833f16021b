// eefs_families.cpp - the exported families of the EEPROM file system: one line per operation.
//
// The ..._new names copy a new file's name with its terminator, the others without: into a header that
// is zero before, so both write the same bytes and share one implementation.
#include "storage/eefs.h"

namespace {

using qel::eefs::FileHeader;
using qel::eefs::Operation;

int open_by_name(Operation &op, const char *name) {
    const int index = qel::eefs::open_file(op, name);
    return index == qel::eefs::kLookUpFailed ? 0 : index;  // what callers have always been told
}

int index_of(Operation &op, const char *name) {
    FileHeader header;
    return qel::eefs::find_file(op, name, &header);
}

// The file of that name, or -1 with a line in the log.
int find_existing(Operation &op, const char *name, FileHeader *header) {
    const int index = qel::eefs::find_file(op, name, header);
    if (index == EEFS_NOT_FOUND) EEFS_INFO("no file %s\n", name != nullptr ? name : "(null)");
    return index < 0 ? OSA_EFAIL : index;
}

int stat_file(Operation &op, const char *name, unsigned *bytes, unsigned *changed) {
    FileHeader header;
    if (find_existing(op, name, &header) < 0) return OSA_EFAIL;
    if (bytes != nullptr) *bytes = header.bytes;
    if (changed != nullptr) *changed = header.changed_s;
    return 0;
}

int file_space(Operation &op, const char *name, unsigned *bytes) {
    if (bytes == nullptr) return OSA_EFAIL;
    *bytes = 0;
    FileHeader header;
    const int index = find_existing(op, name, &header);
    if (index < 0) return OSA_EFAIL;
    *bytes = op.context.table.files[index].allocated_bytes;
    return 0;
}

int file_count(Operation &op, unsigned *count) {
    return count != nullptr ? qel::eefs::count_files(op, count) : OSA_EFAIL;
}

int file_info(Operation &op, unsigned n, char *name, unsigned *bytes) {
    FileHeader header;
    if (name == nullptr || qel::eefs::find_nth(op, n, &header) < 0) return OSA_EFAIL;
    copy_name(header, name);
    if (bytes != nullptr) *bytes = header.bytes;
    return 0;
}

int read_table(Operation &op, const EefsContext *context, unsigned address) {
    const bool own = context == nullptr || context == &op.context;
    if (own && qel::eefs::load_table(op, address) == 0) return 0;
    EEFS_ERROR_AS(op.caller, "no file system at 0x%x\n", address);
    return OSA_EFAIL;
}

int init_single(EefsChipAttr *attributes) {
    Operation op(qel::eefs::single_context(), "EEFS_LibInit");
    return qel::eefs::init(op, 0, false, attributes);
}

int init_chip(EefsChipAttr *attributes, unsigned chip) {
    Operation op(qel::eefs::chip_context(chip), "EEFS_MultLibInit");
    return qel::eefs::init(op, chip, true, attributes);
}

}  // namespace

extern "C" {

// FUNCTION logs as LOG_NAME and answers OPERATION on CONTEXT once that is initialised; its parameters
// come last.
#define EEFS_FUNCTION(function, log_name, own_context, operation, ...) \
    int function(__VA_ARGS__) {                                        \
        Operation op(own_context, log_name);                           \
        return op.ready() ? operation : OSA_EFAIL;                     \
    }

#define EEFS_SINGLE(function, log_name, operation, ...) \
    EEFS_FUNCTION(function, log_name, qel::eefs::single_context(), operation, __VA_ARGS__)

#define EEFS_CHIP(function, log_name, operation, ...)                           \
    EEFS_FUNCTION(function, log_name, qel::eefs::chip_context(chip), operation, \
                  __VA_ARGS__ __VA_OPT__(, ) unsigned chip)

// What the single-chip and the multi-chip family have, and what also has a ..._new name in each.
#define EEFS_TWO(single, multi, operation, ...)          \
    EEFS_SINGLE(single, #single, operation, __VA_ARGS__) \
    EEFS_CHIP(multi, #multi, operation, __VA_ARGS__)

#define EEFS_FOUR(single, single_new, multi, multi_new, operation, ...) \
    EEFS_TWO(single, multi, operation, __VA_ARGS__)                     \
    EEFS_TWO(single_new, multi_new, operation, __VA_ARGS__)

EEFS_TWO(EEFS_LibExit, EEFS_MultLibExit, qel::eefs::exit(op))
EEFS_TWO(EEFS_LibLSeek, EEFS_MultLibLSeek, qel::eefs::seek_file(op, index, offset, whence), int index,
         int offset, int whence)
EEFS_TWO(EEFS_LibEarseChip, EEFS_MultLibEarseChip, qel::eefs::erase_chip(op))
EEFS_TWO(EEFS_LibDump, EEFS_MultLibDump, qel::eefs::dump(op))

EEFS_FOUR(EEFS_LibOpen, EEFS_LibOpen_new, EEFS_MultLibOpen, EEFS_MultLibOpen_new, open_by_name(op, name),
          const char *name)
EEFS_FOUR(EEFS_LibClose, EEFS_LibClose_new, EEFS_MultLibClose, EEFS_MultLibClose_new,
          qel::eefs::close_file(op, index), int index)
EEFS_FOUR(EEFS_LibRead, EEFS_LibRead_new, EEFS_MultLibRead, EEFS_MultLibRead_new,
          qel::eefs::read_file(op, index, buffer, bytes, done), int index, void *buffer, unsigned bytes,
          unsigned *done)
EEFS_FOUR(EEFS_LibWrite, EEFS_LibWrite_new, EEFS_MultLibWrite, EEFS_MultLibWrite_new,
          qel::eefs::write_file(op, index, buffer, bytes, done), int index, const void *buffer,
          unsigned bytes, unsigned *done)
EEFS_FOUR(EEFS_LibStat, EEFS_LibStat_new, EEFS_MultLibStat, EEFS_MultLibStat_new,
          stat_file(op, name, bytes, changed), const char *name, unsigned *bytes, unsigned *changed)
EEFS_FOUR(EEFS_LibFindFile, EEFS_LibFindFile_new, EEFS_MultLibFindFile, EEFS_MultLibFindFile_new,
          index_of(op, name), const char *name)
EEFS_FOUR(EEFS_LibGetFileCount, EEFS_LibGetFileCount_new, EEFS_MultLibGetFileCount,
          EEFS_MultLibGetFileCount_new, file_count(op, count), unsigned *count)
EEFS_FOUR(EEFS_LibGetFileInfo, EEFS_LibGetFileInfo_new, EEFS_MultLibGetFileInfo, EEFS_MultLibGetFileInfo_new,
          file_info(op, n, name, bytes), unsigned n, char *name, unsigned *bytes)
EEFS_FOUR(EEFS_LibFileSpace, EEFS_LibFileSpace_new, EEFS_MultLibFileSpace, EEFS_MultLibFileSpace_new,
          file_space(op, name, bytes), const char *name, unsigned *bytes)
EEFS_FOUR(EEFS_LibClearFiles, EEFS_LibClearFiles_new, EEFS_MultLibClearFiles, EEFS_MultLibClearFiles_new,
          qel::eefs::clear_files(op))

// These log under another name than their own.
EEFS_SINGLE(EEFS_LibReadFS, "EEFS_LibReadFSHead", read_table(op, context, address), EefsContext *context,
            unsigned address)
EEFS_SINGLE(EEFS_LibReadFS_new, "EEFS_LibReadFSHead_new", read_table(op, context, address),
            EefsContext *context, unsigned address)
EEFS_CHIP(EEFS_MultLibReadFS, "EEFS_MultLibReadFSHead", read_table(op, context, address),
          EefsContext *context, unsigned address)
EEFS_CHIP(EEFS_MultLibReadFS_new, "EEFS_MultLibReadFSHead_new", read_table(op, context, address),
          EefsContext *context, unsigned address)

// These do not want an initialised context.
int EEFS_LibInit(EefsChipAttr *attributes) { return init_single(attributes); }
int EEFS_MultLibInit(EefsChipAttr *attributes, unsigned chip) { return init_chip(attributes, chip); }
unsigned EEFS_LibFreeChip() { return qel::eefs::single_context().table.free_bytes; }
unsigned EEFS_LibFreeChip_new() { return EEFS_LibFreeChip(); }
unsigned EEFS_MultLibFreeChip(unsigned chip) { return qel::eefs::chip_context(chip).table.free_bytes; }
unsigned EEFS_MultLibFreeChip_new(unsigned chip) { return EEFS_MultLibFreeChip(chip); }
int Eeprom_openDev(EefsChipAttr *attributes, int *fd) {
    return qel::eefs::open_device(0, attributes, fd, "Eeprom_openDev");
}
int Eeprom_MultopenDev(EefsChipAttr *attributes, int *fd, unsigned chip) {
    return qel::eefs::open_device(chip, attributes, fd, "Eeprom_MultopenDev");
}

}  // extern "C"
