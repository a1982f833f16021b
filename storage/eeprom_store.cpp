#include "storage/eeprom_store.h"

#include <fcntl.h>
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "os/os.h"

namespace qel::eeprom {

namespace {

using eefs::FileHeader;
using eefs::kHeaderBytes;
using eefs::Operation;
using eefs::Table;

constexpr uint32_t kCopyBytes = 128;
constexpr size_t kPathBytes = 4096;
constexpr unsigned kExportedMode = 0644;

// ---- what people see ----

void log_change_time(const char *name, uint32_t changed_s) {
    const auto when = static_cast<time_t>(changed_s);
    tm local{};
    char text[32] = "";
    if (localtime_r(&when, &local) != nullptr) strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &local);
    QEL_INFO("fileName %s Last modification %s\n", name, text);
}

void print_progress(const char *verb, uint32_t done, uint32_t all) {
    os::print_out("\r%s address 0x%08x (%.2f%%) ", verb, done, 100.0 / all * done);
}

int refuse_space(const Operation &op, uint32_t bytes) {
    QEL_ERROR_AS(op.caller, "cannot write freeSpace %d, size %d\n",
                 static_cast<int>(op.context.table.free_bytes), static_cast<int>(bytes));
    return OSA_EFAIL;
}

int refuse_count(const Operation &op, const char *name) {
    QEL_ERROR_AS(op.caller, "cannot write %s, there are %u files already\n", name, eefs::kFiles);
    return OSA_EFAIL;
}

// ---- writing one file ----

// The steps of a store in place and of one laid out anew, which tell of themselves differently.
struct Way {
    const char *verb;
    bool logs_short_write;
};
constexpr Way kInPlace = {"write", false};
constexpr Way kAnew = {"Write", true};

// In chunks that end with a page, so that no page is written twice.
int write_chunks(Operation &op, int index, const uint8_t *bytes, uint32_t count, const Way &way) {
    const uint32_t page = std::max(op.context.attributes.page_bytes, 1u);
    for (uint32_t done = 0; done < count;) {
        const uint32_t chunk = std::min(count - done, page - op.context.open.data_address() % page);
        uint32_t written = 0;
        const int result = eefs::write_file(op, index, bytes + done, chunk, &written);
        if (result != 0 || written != chunk) {
            if (way.logs_short_write)
                QEL_ERROR_AS(op.caller, "EEFS_LibWrite %d, actually %d\n", static_cast<int>(chunk),
                             static_cast<int>(written));
            return OSA_EFAIL;
        }
        done += written;
        print_progress(way.verb, done, count);
    }
    return 0;
}

int write_whole(Operation &op, const char *name, const void *buffer, uint32_t bytes, const Way &way) {
    const int index = eefs::open_file(op, name);
    if (index < 0) return OSA_EFAIL;
    const uint32_t old_bytes = op.context.open.length_bytes;
    if (write_chunks(op, index, static_cast<const uint8_t *>(buffer), bytes, way) != 0 ||
        eefs::close_file(op, index) != 0) {
        eefs::abandon_file(op.context);
        return OSA_EFAIL;
    }
    if (bytes < old_bytes)
        QEL_WARN_AS(op.caller, "%s keeps its %u bytes, the first %u are new\n", name, old_bytes, bytes);
    QEL_INFO("write %s %d bytes to EEPROM done.\n", name, static_cast<int>(bytes));
    return 0;
}

// ---- laying all files out anew ----

struct Saved {
    char name[EEFS_NAME_BYTES];
    uint32_t data_address;
    uint32_t length_bytes;  // as its header says
    uint32_t kept_bytes;    // of these, what lies in its own room
};

struct SavedFiles {
    Saved files[eefs::kTableFiles];
    uint32_t count = 0;
    uint32_t bytes = 0;
};

// Every file but the one to be stored. Their rooms do not overlap, so the sum fits the chip.
int find_others(Operation &op, const char *name, SavedFiles *saved) {
    for (uint32_t i = 0; i < op.context.table.count; ++i) {
        const Table::File &place = op.context.table.files[i];
        FileHeader header;
        if (eefs::read_header(op, i, &header) != 0) return OSA_EFAIL;
        if (header.in_use == 0 || has_name(header, name)) continue;
        Saved &file = saved->files[saved->count++];
        copy_name(header, file.name);
        file.data_address = place.header_address + kHeaderBytes;
        file.length_bytes = header.bytes;
        file.kept_bytes = std::min(header.bytes, place.allocated_bytes);
        saved->bytes += file.kept_bytes;
    }
    return 0;
}

// Whether a fresh chip takes a file after those that left *free_bytes; counts it off.
bool takes(uint32_t bytes, uint32_t *free_bytes) {
    if (*free_bytes < eefs::kLeastFreeBytes || bytes > *free_bytes - kHeaderBytes) return false;
    *free_bytes -= kHeaderBytes + eefs::allocation_for(bytes, *free_bytes);
    return true;
}

bool all_fit(const SavedFiles &saved, uint32_t bytes, uint32_t capacity_bytes) {
    uint32_t free_bytes = capacity_bytes - eefs::kHeadBytes;
    for (uint32_t i = 0; i < saved.count; ++i) {
        if (!takes(saved.files[i].kept_bytes, &free_bytes)) return false;
    }
    return takes(bytes, &free_bytes);
}

int read_saved(Operation &op, const SavedFiles &saved, uint8_t *data) {
    for (uint32_t i = 0; i < saved.count; ++i) {
        const Saved &file = saved.files[i];
        const bool failed = op.read(file.data_address, data, file.kept_bytes) != 0;
        if (failed || file.kept_bytes != file.length_bytes)
            QEL_INFO("EEFS_LibRead %d, actually %d\n", static_cast<int>(file.length_bytes),
                     failed ? 0 : static_cast<int>(file.kept_bytes));
        if (failed) return OSA_EFAIL;
        data += file.kept_bytes;
    }
    return 0;
}

// A file that fails does not take those behind it with it.
int write_saved(Operation &op, const SavedFiles &saved, const uint8_t *data) {
    int result = 0;
    for (uint32_t i = 0; i < saved.count; ++i) {
        const Saved &file = saved.files[i];
        if (write_whole(op, file.name, data, file.kept_bytes, kAnew) != 0) result = OSA_EFAIL;
        data += file.kept_bytes;
    }
    return result;
}

int lay_out(Operation &op, const SavedFiles &saved, uint8_t *data, const char *name, const void *buffer,
            uint32_t bytes) {
    if (read_saved(op, saved, data) != 0) return OSA_EFAIL;
    if (eefs::clear_files(op) != 0) {
        QEL_ERROR_AS(op.caller, "EEFS_LibClearFiles Error !\n");
        return OSA_EFAIL;
    }
    const int others = write_saved(op, saved, data);
    const int own = write_whole(op, name, buffer, bytes, kAnew);
    return others != 0 ? others : own;
}

// ---- copying to the host ----

// Names come from the chip: one that leads out of the directory is none.
bool is_plain_name(const char *name) {
    return strchr(name, '/') == nullptr && strcmp(name, ".") != 0 && strcmp(name, "..") != 0;
}

int open_target(const Operation &op, const char *directory, const char *name, char (&path)[kPathBytes]) {
    const size_t length = strlen(directory);
    const char *separator = length > 0 && directory[length - 1] == '/' ? "" : "/";
    const int needed = snprintf(path, sizeof(path), "%s%s%s", directory, separator, name);
    int fd = OSA_EFAIL;
    if (is_plain_name(name) && needed > 0 && static_cast<size_t>(needed) < sizeof(path))
        fd = os::open(path, O_WRONLY | O_CREAT | O_TRUNC, kExportedMode);
    if (fd < 0) {
        QEL_ERROR_AS(op.caller, "Can NOT open %s!\n", path);
        QEL_ERROR_AS(op.caller, "open file error\n");
    }
    return fd;
}

// The open file's data up to the length that its header tells, or to the end of its room.
int copy_to_host(Operation &op, int index, uint32_t bytes, int fd, const char *path) {
    uint8_t chunk[kCopyBytes];
    uint32_t done = 0;
    while (done < bytes && op.context.open.position < op.context.open.length_bytes) {
        uint32_t got = 0;
        if (eefs::read_file(op, index, chunk, std::min(kCopyBytes, bytes - done), &got) != 0)
            return OSA_EFAIL;
        const ssize_t put = os::write_full(fd, chunk, got);
        if (put != static_cast<ssize_t>(got)) {
            QEL_INFO("write to %s error = %d\n", path, static_cast<int>(put));
            return OSA_EFAIL;
        }
        done += got;
        print_progress("Read", done, bytes);
    }
    QEL_INFO("copy %d bytes to %s from EEPROM done.\n", static_cast<int>(done), path);
    return 0;
}

int export_open_file(Operation &op, int index, const char *name, const FileHeader &header,
                     const char *directory) {
    log_change_time(name, header.changed_s);
    char path[kPathBytes];
    const os::Fd target(open_target(op, directory, name, path));
    if (!target.is_open()) return OSA_EFAIL;
    QEL_INFO("FileOpen %s\n", path);
    return copy_to_host(op, index, header.bytes, target.get(), path);
}

}  // namespace

int store_in_place(Operation &op, const char *name, const void *buffer, uint32_t bytes) {
    const Table &table = op.context.table;
    FileHeader header;
    const int index = eefs::find_file(op, name, &header);
    if (index >= 0) {
        if (bytes > table.files[index].allocated_bytes) return refuse_space(op, bytes);
        return write_whole(op, name, buffer, bytes, kInPlace);
    }
    if (index != EEFS_NOT_FOUND) return OSA_EFAIL;
    if (table.count >= eefs::kFiles) return refuse_count(op, name);
    if (table.free_bytes >= eefs::kLeastFreeBytes && bytes > table.free_bytes - kHeaderBytes)
        return refuse_space(op, bytes);
    return write_whole(op, name, buffer, bytes, kInPlace);
}

int store_anew(Operation &op, const char *name, const void *buffer, uint32_t bytes) {
    QEL_INFO("Eeprom_reloadAllFile\n");
    if (op.context.open.open) {
        EEFS_INFO("cannot open %s file, while %s is opened.\n", op.context.open.name, name);
        return OSA_EFAIL;
    }
    SavedFiles saved;
    if (find_others(op, name, &saved) != 0) return OSA_EFAIL;
    if (saved.count >= eefs::kFiles) return refuse_count(op, name);
    if (!all_fit(saved, bytes, op.context.attributes.capacity_bytes)) return refuse_space(op, bytes);
    auto *data = static_cast<uint8_t *>(OSA_memAlloc(std::max(saved.bytes, 1u)));
    if (data == nullptr) {
        QEL_ERROR_AS(op.caller, "OSA_memAlloc %u failed\n", saved.bytes);
        return OSA_EFAIL;
    }
    const int result = lay_out(op, saved, data, name, buffer, bytes);
    OSA_memFree(data);
    return result;
}

int store_file(Operation &op, const char *name, const void *buffer, uint32_t bytes) {
    FileHeader header;
    const int index = eefs::find_file(op, name, &header);
    const uint32_t allocated = index >= 0 ? op.context.table.files[index].allocated_bytes : 0;
    if (index < 0 && index != EEFS_NOT_FOUND) return OSA_EFAIL;
    if (allocated == 0) return store_in_place(op, name, buffer, bytes);
    log_change_time(name, header.changed_s);
    if (uint64_t{op.context.table.free_bytes} + allocated < bytes) return refuse_space(op, bytes);
    return allocated < bytes ? store_anew(op, name, buffer, bytes) : store_in_place(op, name, buffer, bytes);
}

int export_file(Operation &op, uint32_t n, const char *directory) {
    FileHeader header;
    if (directory == nullptr || eefs::find_nth(op, n, &header) < 0) {
        QEL_ERROR_AS(op.caller, "no file %u or no directory\n", n);
        return OSA_EFAIL;
    }
    char name[EEFS_NAME_BYTES];
    copy_name(header, name);
    const int index = eefs::open_file(op, name);
    if (index < 0) return OSA_EFAIL;
    const int result = export_open_file(op, index, name, header, directory);
    return eefs::close_file(op, index) == 0 ? result : OSA_EFAIL;
}

int export_all(Operation &op, const char *directory) {
    uint32_t count = 0;
    if (eefs::count_files(op, &count) != 0 || count == 0) {
        QEL_WARN_AS(op.caller, "Fail to GetFileCount or Eeprom FileCount = 0\n");
        return OSA_EFAIL;
    }
    QEL_INFO(" Number of File : %d\n", static_cast<int>(count));
    for (uint32_t n = 0; n < count; ++n) {
        if (export_file(op, n, directory) != 0) {
            QEL_INFO("write %d in %d error\n", static_cast<int>(n), static_cast<int>(count));
            return OSA_EFAIL;
        }
    }
    return 0;
}

}  // namespace qel::eeprom
