#include "storage/eefs.h"

#include <unistd.h>
#include <algorithm>
#include <cstring>

#include "os/os.h"

namespace qel::eefs {

namespace {

// ---- head ----

int write_empty_head(Operation &op, uint32_t address) {
    const uint32_t capacity = op.context.attributes.capacity_bytes;
    if (capacity < kHeadBytes || address > capacity - kHeadBytes) return OSA_EFAIL;
    const Head head = empty_head(address, capacity);
    return op.write_record(address, &head, kHeadBytes);
}

// 0 with a valid head that stands at `address`. Always asks the chip.
int read_head(Operation &op, uint64_t address, Head *head) {
    if (address + kHeadBytes > op.context.attributes.capacity_bytes) return OSA_EFAIL;
    if (op.read(static_cast<uint32_t>(address), head, kHeadBytes) != 0) return OSA_EFAIL;
    return head_is_valid(*head) ? 0 : OSA_EFAIL;
}

// Writes an empty head and reads it back, further on in the chip each time it does not hold.
int format(Operation &op) {
    const EefsChipAttr &chip = op.context.attributes;
    const uint64_t limit = chip.capacity_bytes / kHeadBytes + 1;
    uint64_t address = 0;
    uint32_t attempt = 0;
    int result = OSA_EFAIL;
    while (address < chip.capacity_bytes && attempt < limit) {
        result = write_empty_head(op, static_cast<uint32_t>(address));
        if (result == 0) result = load_table(op, static_cast<uint32_t>(address));
        if (result == 0) break;
        address += round_up(uint64_t{kHeadBytes} * attempt, chip.page_bytes);
        ++attempt;
    }
    if (attempt >= limit)
        EEFS_WARN_AS(op.caller, "Address(nr=%d) exceed valid length(headNR=%d)!\n", static_cast<int>(attempt),
                     static_cast<int>(limit));
    return result;
}

// ---- open and close ----

void forget_open(EefsContext &context) { context.open = OpenFile{}; }

void remember_open(EefsContext &context, uint32_t index, const char *name, Mode mode) {
    const Table::File &file = context.table.files[index];
    OpenFile &open = context.open;
    open = OpenFile{};
    open.open = true;
    open.mode = mode;
    open.index = static_cast<int32_t>(index);
    open.header_address = file.header_address;
    open.allocated_bytes = file.allocated_bytes;
    memcpy(open.name, name, strnlen(name, EEFS_NAME_BYTES - 1));
}

int create_file(Operation &op, const char *name) {
    Table &table = op.context.table;
    if (table.free_bytes < kLeastFreeBytes || table.count >= kTableFiles) {
        EEFS_INFO("no space left.\n");
        return OSA_EFAIL;
    }
    if (op.context.open.open) {
        EEFS_INFO("cannot open %s file, while %s is opened.\n", op.context.open.name, name);
        return OSA_EFAIL;
    }
    const uint32_t index = table.count++;
    table.files[index] = {table.free_address, table.free_bytes - kHeaderBytes};
    const FileHeader header = new_header(name, static_cast<uint32_t>(os::wall_clock_s()));
    if (op.write_record(table.free_address, &header, kHeaderBytes) != 0) {
        --table.count;
        return OSA_EFAIL;
    }
    remember_open(op.context, index, name, Mode::kCreated);
    EEFS_INFO(" create file %s done.\n", name);
    return static_cast<int>(index);
}

bool is_open(Operation &op, int index) {
    if (op.context.open.open && op.context.open.index == index) return true;
    EEFS_ERROR_AS(op.caller, "invalid file descriptor %d\n", index);
    return false;
}

int write_header(Operation &op, bool touch) {
    const OpenFile &open = op.context.open;
    FileHeader header;
    if (op.read_record(open.header_address, &header, kHeaderBytes) != 0) return OSA_EFAIL;
    header.reserved = 0;
    header.bytes = open.length_bytes;
    if (touch) header.changed_s = static_cast<uint32_t>(os::wall_clock_s());
    return op.write_record(open.header_address, &header, kHeaderBytes);
}

int write_entry(Operation &op, uint32_t allocated_bytes) {
    const Table &table = op.context.table;
    const uint32_t address =
        table.head_address + kHeadStartBytes +
        static_cast<uint32_t>(sizeof(Entry)) * static_cast<uint32_t>(op.context.open.index);
    Entry entry;
    if (op.read_record(address, &entry, sizeof(entry)) != 0) return OSA_EFAIL;
    entry = {0, op.context.open.header_address - table.head_address, allocated_bytes};
    return op.write_record(address, &entry, sizeof(entry));
}

int write_head_start(Operation &op, uint32_t free_address, uint32_t free_bytes) {
    const Table &table = op.context.table;
    Head head;
    if (op.read_record(table.head_address, &head, kHeadStartBytes) != 0) return OSA_EFAIL;
    head.free_offset = free_address - table.head_address;
    head.free_bytes = free_bytes;
    head.count = table.count;
    return op.write_record(table.head_address, &head, kHeadStartBytes);
}

// The head comes last: until it is written the file does not exist. The table follows the chip, so
// that a close that failed can be tried again.
int commit_created(Operation &op) {
    Table &table = op.context.table;
    const uint32_t allocated = allocation_for(op.context.open.length_bytes, table.free_bytes);
    const uint32_t taken = kHeaderBytes + allocated;
    if (write_header(op, false) != 0 || write_entry(op, allocated) != 0 ||
        write_head_start(op, table.free_address + taken, table.free_bytes - taken) != 0)
        return OSA_EFAIL;
    table.free_address += taken;
    table.free_bytes -= taken;
    table.files[op.context.open.index].allocated_bytes = allocated;
    return 0;
}

}  // namespace

// ---- life ----

int init(Operation &op, unsigned chip, bool log_descriptor, EefsChipAttr *out) {
    EefsContext &context = op.context;
    if (out == nullptr) {
        EEFS_ERROR_AS(op.caller, "Null eeprom attribute!\n");
        return OSA_EFAIL;
    }
    if (context.initialised) {
        *out = context.attributes;
        return 0;
    }
    if (chip >= QEL_EEPROM_CHIPS_MAX) {
        EEFS_ERROR_AS(op.caller, "no chip %u\n", chip);
        return OSA_EFAIL;
    }
    context = EefsContext{};
    if (open_device(chip, &context.attributes, &context.fd, op.caller) != 0) return OSA_EFAIL;
    *out = context.attributes;
    const auto page = static_cast<int>(context.attributes.page_bytes);
    const auto capacity = static_cast<int>(context.attributes.capacity_bytes);
    if (log_descriptor)
        EEFS_INFO("Chip : pageSize %d capacity %d,fd = %d\n", page, capacity, context.fd);
    else
        EEFS_INFO("Chip : pageSize %d capacity %d\n", page, capacity);

    int result = load_table(op, 0);
    if (result != 0) result = format(op);
    if (result != 0) {
        EEFS_INFO("fs->init Failed!\n");
        os::close(context.fd);
        context = EefsContext{};
        return result;
    }
    context.initialised = true;
    EEFS_INFO("fs init OK\n");
    return 0;
}

int exit(Operation &op) {
    os::close(op.context.fd);
    op.context = EefsContext{};
    return 0;
}

int load_table(Operation &op, uint32_t address) {
    EefsContext &context = op.context;
    Head head;
    uint64_t found = address;
    if (read_head(op, found, &head) != 0) {
        found = next_slot(address, context.attributes.page_bytes);
        if (read_head(op, found, &head) != 0) return OSA_EFAIL;
    }
    bool sound = true;
    context.table = table_of(head, static_cast<uint32_t>(found), context.attributes.capacity_bytes, &sound);
    forget_open(context);
    if (!sound)
        EEFS_WARN_AS(op.caller, "the head at 0x%x does not fit the chip: files or free space are cut\n",
                     context.table.head_address);
    return 0;
}

int clear_files(Operation &op) {
    write_empty_head(op, 0);
    return format(op);
}

int erase_chip(Operation &op) {
    const uint32_t capacity = op.context.attributes.capacity_bytes;
    const uint32_t page = std::min(std::max(op.context.attributes.page_bytes, 1u), capacity);
    void *zeros = OSA_memCalloc(page);
    if (zeros == nullptr) {
        EEFS_ERROR_AS(op.caller, "OSA_memCalloc %d\n", static_cast<int>(page));
        return OSA_EFAIL;
    }
    int result = 0;
    for (uint64_t address = 0; address < capacity && result == 0; address += page) {
        const auto at = static_cast<uint32_t>(address);
        result = op.write(at, zeros, std::min(page, capacity - at));
        if (result == 0) os::print_out("\rWrote address 0x%08x (%.2f%%) ", at, 100.0 / capacity * at);
    }
    OSA_memFree(zeros);
    return result;
}

int dump(Operation &op) {
    const Table &table = op.context.table;
    EEFS_INFO("head 0x%x, free 0x%x (%u bytes), %u files\n", table.head_address, table.free_address,
              table.free_bytes, table.count);
    for (uint32_t i = 0; i < table.count; ++i) {
        FileHeader header;
        if (read_header(op, i, &header) != 0) return OSA_EFAIL;
        char name[EEFS_NAME_BYTES];
        copy_name(header, name);
        EEFS_INFO("%u: header 0x%x, %u bytes, room for %u, changed %u, in use %u, %s\n", i,
                  table.files[i].header_address, header.bytes, table.files[i].allocated_bytes,
                  header.changed_s, header.in_use, name);
    }
    return 0;
}

// ---- look-up ----

int read_header(Operation &op, uint32_t index, FileHeader *header) {
    const uint32_t address = op.context.table.files[index].header_address;
    *header = FileHeader{};
    if (address == kNoAddress) return 0;
    return op.read_record(address, header, kHeaderBytes);
}

int find_file(Operation &op, const char *name, FileHeader *header) {
    if (!is_name(name)) return EEFS_NOT_FOUND;
    for (uint32_t i = 0; i < op.context.table.count; ++i) {
        if (read_header(op, i, header) != 0) return OSA_EFAIL;
        if (header->in_use != 0 && has_name(*header, name)) return static_cast<int>(i);
    }
    return EEFS_NOT_FOUND;
}

int find_nth(Operation &op, uint32_t n, FileHeader *header) {
    for (uint32_t i = 0; i < op.context.table.count; ++i) {
        if (read_header(op, i, header) != 0) return OSA_EFAIL;
        if (header->in_use != 0 && n-- == 0) return static_cast<int>(i);
    }
    return EEFS_NOT_FOUND;
}

int count_files(Operation &op, uint32_t *count) {
    *count = 0;
    for (uint32_t i = 0; i < op.context.table.count; ++i) {
        FileHeader header;
        if (read_header(op, i, &header) != 0) return OSA_EFAIL;
        if (header.in_use != 0) ++*count;
    }
    return 0;
}

// ---- one file ----

int open_file(Operation &op, const char *name) {
    if (!is_name(name)) {
        EEFS_ERROR_AS(op.caller, "filename %s is too long\n", name != nullptr ? name : "(null)");
        return OSA_EFAIL;
    }
    FileHeader header;
    const int index = find_file(op, name, &header);
    if (index == EEFS_NOT_FOUND) return create_file(op, name);
    if (index < 0) return kLookUpFailed;
    if (op.context.open.open) {
        EEFS_INFO("Inode %d has already opened\n", index);
        return OSA_EFAIL;
    }
    remember_open(op.context, static_cast<uint32_t>(index), name, Mode::kUnchanged);
    op.context.open.length_bytes = std::min(header.bytes, op.context.open.allocated_bytes);
    return index;
}

int close_file(Operation &op, int index) {
    if (!is_open(op, index)) return OSA_EFAIL;
    int result = 0;
    if (op.context.open.mode == Mode::kCreated) result = commit_created(op);
    if (op.context.open.mode == Mode::kWritten) result = write_header(op, true);
    if (result == 0) forget_open(op.context);
    return result;
}

void abandon_file(EefsContext &context) {
    if (context.open.open && context.open.mode == Mode::kCreated) --context.table.count;
    forget_open(context);
}

int write_file(Operation &op, int index, const void *buffer, uint32_t bytes, uint32_t *done) {
    if (done == nullptr) return OSA_EFAIL;
    *done = 0;
    if (!is_open(op, index)) return OSA_EFAIL;
    if (buffer == nullptr) {
        EEFS_ERROR_AS(op.caller, "invalid buffer\n");
        return OSA_EFAIL;
    }
    OpenFile &open = op.context.open;
    const uint32_t taken = std::min(bytes, open.allocated_bytes - open.position);
    if (taken > 0 && op.write(open.data_address(), buffer, taken) != 0) return OSA_EFAIL;
    open.position += taken;
    if (open.mode == Mode::kUnchanged) open.mode = Mode::kWritten;
    open.length_bytes = std::max(open.length_bytes, open.position);
    *done = taken;
    return 0;
}

int read_file(Operation &op, int index, void *buffer, uint32_t bytes, uint32_t *done) {
    if (done != nullptr) *done = 0;
    if (!is_open(op, index)) return OSA_EFAIL;
    if (done == nullptr || buffer == nullptr || bytes == 0) {
        EEFS_ERROR_AS(op.caller, "invalid Buffer\n");
        return OSA_EFAIL;
    }
    OpenFile &open = op.context.open;
    const uint32_t taken = std::min(bytes, open.length_bytes - open.position);
    if (taken == 0 || op.read(open.data_address(), buffer, taken) != 0) return OSA_EFAIL;
    open.position += taken;
    *done = taken;
    return 0;
}

int seek_file(Operation &op, int index, int32_t offset, int whence) {
    OpenFile &open = op.context.open;
    if (!open.open || open.index != index) {
        EEFS_INFO("inode %d not opened\n", index);
        return OSA_EFAIL;
    }
    int64_t from = 0;
    if (whence == SEEK_CUR)
        from = open.position;
    else if (whence == SEEK_END)
        from = open.length_bytes;
    else if (whence != SEEK_SET)
        return OSA_EFAIL;
    const int64_t target = from + offset;
    if (target < 0) return OSA_EFAIL;
    open.position = static_cast<uint32_t>(std::min<int64_t>(target, open.length_bytes));
    return static_cast<int>(open.position);
}

}  // namespace qel::eefs
