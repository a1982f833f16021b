// description.h - a board description: TOML, read key by key; what nobody asks for is an error.
#pragma once

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace qel::board {

// what() is the whole message: "line 12: chip.hwid.name: ...".
class DescriptionError : public std::runtime_error {
public:
    DescriptionError(int line, const std::string &key, const std::string &what);
    int line() const { return line_; }  // from 1; 0 where no line can be named
    const std::string &key() const { return key_; }

private:
    int line_;
    std::string key_;
};

// One table of the description. A cheap handle; the readers throw DescriptionError on a value of the
// wrong kind or outside its range. Reading a key marks it as known.
class Description {
public:
    static Description parse(const std::string &text);

    bool has(const std::string &key) const;
    std::string text(const std::string &key, const std::string &otherwise) const;
    std::string required_text(const std::string &key) const;
    int64_t number(const std::string &key, int64_t least, int64_t most, int64_t otherwise) const;
    bool flag(const std::string &key, bool otherwise) const;
    // A list of numbers; empty when the key is missing.
    std::vector<int64_t> numbers(const std::string &key, int64_t least, int64_t most) const;
    std::vector<std::string> texts(const std::string &key) const;
    // A text of hexadecimal digits (blanks allowed), at most `most` bytes; empty when missing.
    std::vector<uint8_t> bytes(const std::string &key, size_t most) const;
    // An errno by name ("EIO"), "OK" = 0.
    int error_number(const std::string &key, int otherwise) const;

    // The tables under a key: [key] gives one, [[key]] several, a missing key none.
    std::vector<Description> tables(const std::string &key) const;
    // Every key of this table; for tables whose keys are data.
    std::vector<std::string> keys() const;

    // An empty key: the table itself is wrong.
    [[noreturn]] void fail(const std::string &key, const std::string &what) const;
    // Throws at the first key of the whole document that nobody has read.
    void reject_unknown() const;

private:
    struct Document;
    Description(std::shared_ptr<Document> document, const void *table, std::string path);
    std::shared_ptr<Document> document_;
    const void *table_;  // toml::table
    std::string path_;
};

}  // namespace qel::board
