// keyvalue_text.h - the lines of key-value text files: looking keys up, byte sums, putting values in.
// Works on text that a caller hands over piece by piece. Pure.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include <sys/types.h>

#include "qel/product.h"

namespace qel::keyvalue {

constexpr size_t kLineBytes = QEL_KEY_VALUE_TEXT_BYTES;  // of the plain readers, with the terminator
constexpr size_t kCheckedLineBytes = 64;                 // of the writer and the byte sum, likewise
constexpr unsigned kMaxCheckedLines = 128;

// A text as it comes: `fill` puts up to `bytes` of it into `buffer` and returns how many, 0 or less
// at its end.
class Lines {
public:
    using Fill = ssize_t (*)(void *context, void *buffer, size_t bytes);
    Lines(Fill fill, void *context) : fill_(fill), context_(context) {}

    // The next line with its line feed and a terminator. One that is longer than `line` comes in
    // pieces of line.size() - 1 characters. False at the end of the text.
    bool next(std::span<char> line);

private:
    int next_character();  // -1 at the end

    Fill fill_;
    void *context_;
    char buffer_[512];
    size_t at_ = 0;
    size_t end_ = 0;
};

enum class Result {
    kFound,
    kEndOfGroup,  // the section or block ends without the key
    kEndOfText,
};

// The line that holds the key, and the value in it.
struct Value {
    char line[kLineBytes];
    const char *text = nullptr;  // into `line`: up to its end or to the comment
};

// `separator` stands behind the key; 0 is none.
Result find(Lines &lines, const char *key, char separator, Value *out);
Result find_in_section(Lines &lines, unsigned section, const char *key, char separator, Value *out);
Result find_in_block(Lines &lines, const char *tag, const char *key, Value *out);

// The first word of a value with a terminator; leaves `out` alone where there is none.
void copy_word(const char *text, char *out);
// The decimal number that a text starts with, 0 for none; clamped to what an int holds.
int number_of(const char *text);
// Numbers with one comma between. What is missing counts as 0.
void read_numbers(const char *text, std::span<int> out);

// ---- checked files ----

struct CheckedText {
    std::array<char[kCheckedLineBytes], kMaxCheckedLines> lines;  // without those of a sum
    unsigned count;
    int stored_sum;  // 0 without a line of a sum
    bool complete;   // false: there are more lines than these
};

void read_checked(Lines &lines, CheckedText *out);
uint16_t byte_sum(const CheckedText &text);

// Terminated, not empty, without what ends a line or marks the line of the sum.
bool is_key(const KeyValueRecord &record);

enum class Update {
    kNone,  // every record stands in the text already, once
    kChanged,
    kTooLong,  // more lines than a checked file may have
};
// Puts the records in: replaces the lines that hold their keys, appends the others.
Update put_records(std::span<const KeyValueRecord> records, CheckedText *text);
// Closes the gaps between the lines: the text as the file holds it, in place. Its length.
size_t join_lines(CheckedText *text);

}  // namespace qel::keyvalue
