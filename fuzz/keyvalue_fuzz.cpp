// Key-value texts of any content: the readers end and stay inside their lines, and what the writer
// leaves passes its own sum. The input is a key, a zero byte and the text.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "product/keyvalue_text.h"

using namespace qel::keyvalue;

namespace {

void expect(bool condition) {
    if (!condition) abort();
}

// Hands a text over in pieces of changing length.
class Text {
public:
    explicit Text(std::string content) : content_(std::move(content)) {}
    Lines lines() { return {fill, this}; }

private:
    static ssize_t fill(void *context, void *buffer, size_t bytes) {
        auto &text = *static_cast<Text *>(context);
        const size_t wanted = std::min(bytes, text.at_ % 37 + 1);
        const size_t got = text.content_.copy(static_cast<char *>(buffer), wanted, text.at_);
        text.at_ += got;
        return static_cast<ssize_t>(got);
    }
    std::string content_;
    size_t at_ = 0;
};

void check(const Value &value) {
    expect(value.text >= value.line && value.text + strlen(value.text) < value.line + sizeof value.line);
    char word[kLineBytes];
    copy_word(value.text, word);
    int numbers[QEL_MAX_GROUP_VALUES];
    read_numbers(value.text, numbers);
    expect(numbers[0] == number_of(value.text));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const auto *const end = static_cast<const uint8_t *>(memchr(data, 0, size));
    if (end == nullptr) return 0;
    const std::string key(data, end);
    const std::string text(end + 1, data + size);

    Value value;
    {
        Text plain(text);
        Lines lines = plain.lines();
        if (find(lines, key.c_str(), '=', &value) == Result::kFound) check(value);
    }
    {
        Text sections(text);
        Lines lines = sections.lines();
        if (find_in_section(lines, 1, key.c_str(), '\0', &value) == Result::kFound) check(value);
    }
    {
        Text blocks(text);
        Lines lines = blocks.lines();
        if (find_in_block(lines, "tag", key.c_str(), &value) == Result::kFound) check(value);
    }

    Text file(text);
    Lines lines = file.lines();
    static CheckedText checked;
    read_checked(lines, &checked);
    KeyValueRecord records[] = {{"", 7}, {"other", -1}};
    key.copy(records[0].key, sizeof records[0].key - 1);
    if (!is_key(records[0])) return 0;
    if (put_records(records, &checked) != Update::kChanged) return 0;
    const uint16_t sum = byte_sum(checked);
    const size_t length = join_lines(&checked);
    Text written(std::string(checked.lines[0], length) + "\tcrcSum=" + std::to_string(sum) + "\n");
    Lines again = written.lines();
    read_checked(again, &checked);
    expect(checked.complete && checked.stored_sum == sum && byte_sum(checked) == sum);
    return 0;
}
