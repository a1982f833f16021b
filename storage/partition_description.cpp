// partition_description.cpp - splits, joins and parses the lines in place.
#include "storage/partition_description.h"

#include <algorithm>
#include <cstring>

#include "frame/log.h"

namespace qel::description {

namespace {

constexpr char kBlanks[] = " \t";

bool is_blank(char c) { return c == ' ' || c == '\t'; }

void cut_trailing_blanks(char *line) {
    size_t length = strlen(line);
    while (length > 0 && is_blank(line[length - 1])) line[--length] = '\0';
}

// The comma that ends a field, or the end of the line; a comma between double quotes does not count.
char *field_end(char *field) {
    bool quoted = false;
    for (; *field != '\0'; ++field) {
        if (*field == '"') quoted = !quoted;
        if (*field == ',' && !quoted) break;
    }
    return field;
}

// Takes fields off a line from left to right.
class Fields {
public:
    explicit Fields(char *line) : rest_(line) {}

    // The next field without its blanks and quotes; nullptr when the line has no more, or when a
    // quote is not closed.
    char *next() {
        if (rest_ == nullptr) return nullptr;
        char *field = rest_;
        char *const end = field_end(field);
        rest_ = *end == ',' ? end + 1 : nullptr;
        *end = '\0';
        field += strspn(field, kBlanks);
        cut_trailing_blanks(field);
        return *field == '"' ? unquote(field) : field;
    }

private:
    static char *unquote(char *field) {
        const size_t length = strlen(field);
        if (length < 2 || field[length - 1] != '"') return nullptr;
        field[length - 1] = '\0';
        return field + 1;
    }

    char *rest_;
};

int digit_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return 16;
}

// The whole text as one number; false for an empty one, another character or a number above `limit`.
bool parse_number(const char *text, uint32_t base, uint64_t limit, uint64_t *out) {
    if (*text == '\0') return false;
    uint64_t value = 0;
    for (; *text != '\0'; ++text) {
        const auto digit = static_cast<uint32_t>(digit_value(*text));
        if (digit >= base || value > (limit - digit) / base) return false;
        value = value * base + digit;
    }
    *out = value;
    return true;
}

bool parse_chip_select(const char *field, uint32_t *out) {
    uint64_t value = 0;
    if (field == nullptr || !parse_number(field, 10, UINT32_MAX, &value)) return false;
    *out = static_cast<uint32_t>(value);
    return true;
}

// A hexadecimal number behind two characters: "0x", or any two of them.
enum class Prefix { kHex, kAny };
bool parse_address(const char *field, Prefix prefix, uint64_t *out) {
    if (field == nullptr || strlen(field) < 3) return false;
    if (prefix == Prefix::kHex && (field[0] != '0' || (field[1] != 'x' && field[1] != 'X'))) return false;
    return parse_number(field + 2, 16, UINT64_MAX, out);
}

struct Word {
    const char *text;
    uint32_t value;
};
constexpr Word kMaskFlags[] = {{"R", kMaskReadOnly}, {"RW", 0}};
constexpr Word kFsFlags[] = {{"", 0}, {"R", 1}, {"RW", 3}};
constexpr Word kFsTypes[] = {{"", 0}, {"cramfs", 1}, {"squashfs", 2}, {"ubi", 3}, {"jffs2", 4}, {"ext4", 5}};

template <size_t kCount>
bool parse_word(const char *field, const Word (&words)[kCount], uint32_t *out) {
    if (field == nullptr) return false;
    for (const Word &word : words) {
        if (strcmp(word.text, field) != 0) continue;
        *out = word.value;
        return true;
    }
    return false;
}

bool parse_name(const char *field, char (&out)[QEL_PARTITION_NAME_BYTES]) {
    const size_t length = field != nullptr ? strlen(field) : 0;
    if (length == 0 || length >= sizeof out) return false;
    memcpy(out, field, length + 1);
    return true;
}

constexpr const char *kLineParser = "PART_parsePartinfoLine";

// The fields that version 2 added.
int parse_file_system(Fields &fields, PartitionDescription *out) {
    if (!parse_word(fields.next(), kFsFlags, &out->fsFlags)) {
        QEL_ERROR_AS(kLineParser, "fs_flags isn't exist\n");
        return OSA_EFAIL;
    }
    if (!parse_word(fields.next(), kFsTypes, &out->fsType)) {
        QEL_ERROR_AS(kLineParser, "fail to parse fs_type\n");
        return OSA_EFAIL;
    }
    const char *const mount_command = fields.next();
    if (mount_command == nullptr || strlen(mount_command) >= kMaxMountCommandBytes) {
        QEL_ERROR_AS(kLineParser, "fail to parse fs_mountcmd\n");
        return OSA_EFAIL;
    }
    if (!parse_address(fields.next(), Prefix::kAny, &out->backupOffset)) {
        QEL_ERROR_AS(kLineParser, "fail to parse backup_offset \n");
        return OSA_EFAIL;
    }
    return 0;
}

// Joins continued lines. kEnd: the table is over; kTooLong: it cannot be joined.
enum class Joined { kLine, kEnd, kTooLong };
Joined join_line(char **text, char (&out)[kMaxLineBytes]) {
    size_t used = 0;
    for (bool continued = true; continued;) {
        char *const line = next_line(text);
        if (line == nullptr) break;
        if (*line == '#') continue;
        if (strstr(line, "END") != nullptr) {
            *text += strlen(*text);
            break;
        }
        cut_trailing_blanks(line);
        size_t length = strlen(line);
        continued = length > 0 && line[length - 1] == '\\';
        if (continued) --length;
        if (used + length >= sizeof out) return Joined::kTooLong;
        memcpy(out + used, line, length);
        used += length;
    }
    out[used] = '\0';
    return used < kMinLineBytes ? Joined::kEnd : Joined::kLine;
}

}  // namespace

char *next_line(char **text) {
    if (**text == '\0') return nullptr;
    char *const line = *text;
    char *const end = line + strcspn(line, "\n");
    *text = *end == '\n' ? end + 1 : end;
    if (*end == '\n' && end > line && end[-1] == '\r') end[-1] = '\0';
    *end = '\0';
    return line;
}

int parse_line(char *line, uint32_t version, PartitionDescription *out) {
    *out = {};
    out->backupOffset = QEL_NO_BACKUP;
    Fields fields(line);
    const char *failed = nullptr;
    if (!parse_name(fields.next(), out->name)) {
        failed = "name";
    } else if (!parse_chip_select(fields.next(), &out->cs)) {
        failed = "cs";
    } else if (!parse_address(fields.next(), Prefix::kHex, &out->offset)) {
        failed = "offset";
    } else if (!parse_address(fields.next(), Prefix::kHex, &out->size)) {
        failed = "size";
    } else if (!parse_word(fields.next(), kMaskFlags, &out->maskFlags)) {
        failed = "mask_flags";
    }
    if (failed != nullptr) {
        QEL_ERROR_AS(kLineParser, "fail to parse %s\n", failed);
        return OSA_EFAIL;
    }
    return version == kFirstVersion ? 0 : parse_file_system(fields, out);
}

int parse(char *text, uint32_t version, PartitionDescription *out, uint32_t *count) {
    const uint32_t room = std::min(*count, QEL_MAX_DESCRIPTIONS);
    *count = 0;
    char line[kMaxLineBytes];
    for (;;) {
        const Joined joined = join_line(&text, line);
        if (joined == Joined::kEnd) return 0;
        if (*count == room) {
            QEL_WARN_AS("PART_parsePartinfo", "only the first %u partitions are used\n", room);
            return 0;
        }
        if (joined == Joined::kTooLong || parse_line(line, version, &out[*count]) != 0) {
            QEL_ERROR_AS("PART_parsePartinfo", "fail to parse pBuf line\n");
            QEL_ERROR_AS("PART_parsePartinfo", "fail to parse partition\n");
            return OSA_EFAIL;
        }
        ++*count;
    }
}

}  // namespace qel::description

extern "C" {

char *PART_getLine(char **text) {
    return text != nullptr && *text != nullptr ? qel::description::next_line(text) : nullptr;
}

int PART_parsePartinfo(char *text, uint32_t version, PartitionDescription *out, uint32_t *count) {
    using namespace qel::description;
    if (text == nullptr || out == nullptr || count == nullptr || version < kFirstVersion ||
        version > kLastVersion) {
        QEL_ERROR("bad argument\n");
        return OSA_EFAIL;
    }
    return parse(text, version, out, count);
}

int PART_parsePartinfoLine(char *line, uint32_t version, PartitionDescription *out) {
    using namespace qel::description;
    if (line == nullptr || out == nullptr || version < kFirstVersion || version > kLastVersion) {
        QEL_ERROR("bad argument\n");
        return OSA_EFAIL;
    }
    return parse_line(line, version, out);
}

}  // extern "C"
