#include "product/keyvalue_text.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace qel::keyvalue {

namespace {

constexpr const char *kComment = "//";
constexpr const char *kBlockEnd = "END";
constexpr const char *kSumKey = "crcSum";
constexpr size_t kSectionBytes = sizeof "[cfg4294967295]";
constexpr size_t kNumberBytes = sizeof "-2147483648,";

bool holds(const char *line, const char *text) { return strstr(line, text) != nullptr; }

void cut_comment(char *line) {
    char *const comment = strstr(line, kComment);
    if (comment != nullptr) *comment = '\0';
}

// Behind the key and `skip` more characters, but never behind the end of the line.
const char *behind_key(const char *line, const char *key, size_t skip) {
    const char *const found = strstr(line, key);
    if (found == nullptr) return nullptr;
    return found + std::min(strlen(key) + skip, strlen(found));
}

bool take_value(const char *key, char separator, Value *value) {
    cut_comment(value->line);
    value->text = behind_key(value->line, key, separator != '\0' ? 1 : 0);
    return value->text != nullptr;
}

struct SectionHeader {
    explicit SectionHeader(unsigned section) { snprintf(text, sizeof text, "[cfg%u]", section); }
    char text[kSectionBytes];
};

bool is_space(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

using Line = char[kCheckedLineBytes];

// False where the line holds the sum already, and where it is not the record's.
bool put_record(const KeyValueRecord &record, Line &line, bool *changed) {
    if (!holds(line, record.key)) return false;
    Line text;
    snprintf(text, sizeof text, "\t%s=%d\n", record.key, static_cast<int>(record.value));
    *changed |= strncmp(line, text, strlen(text)) != 0;
    memcpy(line, text, sizeof line);
    return true;
}

// A file that somebody else wrote may end without a line feed or hold zero bytes: without an end of
// its own such a line would run into the next.
void end_line(Line &line) {
    const size_t length = strlen(line);
    if (length + 1 == sizeof line || (length > 0 && line[length - 1] == '\n')) return;
    line[length] = '\n';
    line[length + 1] = '\0';
}

}  // namespace

int Lines::next_character() {
    if (at_ == end_) {
        const ssize_t got = fill_(context_, buffer_, sizeof buffer_);
        at_ = 0;
        end_ = got > 0 ? std::min(static_cast<size_t>(got), sizeof buffer_) : 0;
        if (end_ == 0) return -1;
    }
    return static_cast<unsigned char>(buffer_[at_++]);
}

bool Lines::next(std::span<char> line) {
    size_t length = 0;
    while (length + 1 < line.size()) {
        const int character = next_character();
        if (character < 0) break;
        line[length++] = static_cast<char>(character);
        if (character == '\n') break;
    }
    line[length] = '\0';
    return length > 0;
}

Result find(Lines &lines, const char *key, char separator, Value *out) {
    while (lines.next(out->line)) {
        if (take_value(key, separator, out)) return Result::kFound;
    }
    return Result::kEndOfText;
}

Result find_in_section(Lines &lines, unsigned section, const char *key, char separator, Value *out) {
    const SectionHeader own(section);
    const SectionHeader following(section + 1);
    bool inside = false;
    while (lines.next(out->line)) {
        if (!inside) {
            inside = holds(out->line, own.text);
            continue;
        }
        if (holds(out->line, following.text)) return Result::kEndOfGroup;
        if (take_value(key, separator, out)) return Result::kFound;
    }
    return Result::kEndOfText;
}

Result find_in_block(Lines &lines, const char *tag, const char *key, Value *out) {
    const size_t tag_length = strlen(tag);
    bool inside = false;
    while (lines.next(out->line)) {
        if (!inside) {
            inside = strncmp(out->line, tag, tag_length) == 0 && out->line[tag_length] == ':';
            continue;
        }
        if (holds(out->line, kComment)) continue;
        if (holds(out->line, kBlockEnd)) return Result::kEndOfGroup;
        out->text = behind_key(out->line, key, 1);
        if (out->text != nullptr) return Result::kFound;
    }
    return Result::kEndOfText;
}

void copy_word(const char *text, char *out) {
    while (is_space(*text)) ++text;
    if (*text == '\0') return;
    while (*text != '\0' && !is_space(*text)) *out++ = *text++;
    *out = '\0';
}

int number_of(const char *text) {
    const long number = strtol(text, nullptr, 10);
    return static_cast<int>(std::clamp<long>(number, INT_MIN, INT_MAX));
}

void read_numbers(const char *text, std::span<int> out) {
    size_t left = strlen(text);
    for (int &value : out) {
        value = number_of(text);
        // On by as much as the number takes when it is written back.
        char written[kNumberBytes];
        const int length = snprintf(written, sizeof written, "%d,", value);
        const size_t step = std::min(static_cast<size_t>(length), left);
        text += step;
        left -= step;
    }
}

void read_checked(Lines &lines, CheckedText *out) {
    out->count = 0;
    out->stored_sum = 0;
    out->complete = true;
    Line line;
    while (lines.next(line)) {
        if (const char *const sum = behind_key(line, kSumKey, 1); sum != nullptr) {
            out->stored_sum = number_of(sum);
        } else if (out->count == out->lines.size()) {
            out->complete = false;
            return;
        } else {
            memcpy(out->lines[out->count++], line, sizeof line);
        }
    }
}

uint16_t byte_sum(const CheckedText &text) {
    uint16_t sum = 0;
    for (unsigned i = 0; i < text.count; ++i) {
        const char *const line = text.lines[i];
        const char *const end = line + strcspn(line, "\r\n");
        for (const char *at = line; at != end; ++at) {
            sum = static_cast<uint16_t>(sum + static_cast<unsigned char>(*at));
        }
    }
    return sum;
}

bool is_key(const KeyValueRecord &record) {
    if (record.key[0] == '\0' || memchr(record.key, '\0', sizeof record.key) == nullptr) return false;
    return strpbrk(record.key, "\r\n") == nullptr && !holds(record.key, kSumKey);
}

Update put_records(std::span<const KeyValueRecord> records, CheckedText *text) {
    // Each record needs a line of its own in the end.
    if (records.size() > kMaxCheckedLines) return Update::kTooLong;
    std::array<bool, kMaxCheckedLines> present{};
    bool changed = false;
    size_t hits = 0;
    for (unsigned i = 0; i < text->count; ++i) {
        for (size_t r = 0; r < records.size(); ++r) {
            if (!put_record(records[r], text->lines[i], &changed)) continue;
            present[r] = true;
            ++hits;
        }
    }
    if (!changed && hits == records.size()) return Update::kNone;
    if (!text->complete) return Update::kTooLong;
    for (unsigned i = 0; i < text->count; ++i) end_line(text->lines[i]);
    for (size_t r = 0; r < records.size(); ++r) {
        if (present[r]) continue;
        if (text->count == text->lines.size()) return Update::kTooLong;
        snprintf(text->lines[text->count++], kCheckedLineBytes, "\t%s=%d\n", records[r].key,
                 static_cast<int>(records[r].value));
    }
    return Update::kChanged;
}

size_t join_lines(CheckedText *text) {
    char *const start = text->lines[0];
    size_t length = 0;
    for (unsigned i = 0; i < text->count; ++i) {
        const size_t line_length = strlen(text->lines[i]);
        memmove(start + length, text->lines[i], line_length);
        length += line_length;
    }
    return length;
}

}  // namespace qel::keyvalue
