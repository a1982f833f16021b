// byte_rows.h - bytes from a line as rows that people can read while more of them pour in.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace qelctl {

struct RowChoice {
    std::string form = "hex";    // "hex", "text"
    std::string time = "clock";  // "clock", "since", "none"
};

// Bytes that come close together share a row, however they were cut up on their way; a row ends when it is
// full, with text also at the end of a line.
class ByteRows {
public:
    ByteRows(const RowChoice &choice, int64_t start_ms) : choice_(choice), start_ms_(start_ms) {}

    // The rows that are complete with these bytes.
    std::string add(int64_t time_ms, const std::vector<uint8_t> &bytes);
    // What has not filled a row: the line has gone quiet, or this is the end.
    std::string rest();

private:
    bool is_full() const;
    std::string time_text() const;

    RowChoice choice_;
    int64_t start_ms_;
    int64_t row_ms_ = 0;  // when its first byte came
    std::vector<uint8_t> row_;
};

}  // namespace qelctl
