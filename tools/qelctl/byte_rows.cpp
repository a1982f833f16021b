#include "tools/qelctl/byte_rows.h"

#include <cstdio>

#include "tools/qelctl/byte_text.h"
#include "tools/qelctl/live.h"

namespace qelctl {

namespace {

constexpr size_t kHexRowBytes = 16;  // with the time 79 columns
constexpr size_t kTextRowBytes = 256;

}  // namespace

bool ByteRows::is_full() const {
    if (choice_.form == "hex") return row_.size() == kHexRowBytes;
    return row_.size() == kTextRowBytes || (!row_.empty() && row_.back() == '\n');
}

std::string ByteRows::time_text() const {
    if (choice_.time == "none") return {};
    if (choice_.time == "clock") return clock_text(row_ms_) + " ";
    char text[32];
    snprintf(text, sizeof text, "%9.3f ", static_cast<double>(row_ms_ - start_ms_) / 1000);
    return text;
}

std::string ByteRows::add(int64_t time_ms, const std::vector<uint8_t> &bytes) {
    std::string complete;
    for (const uint8_t byte : bytes) {
        if (row_.empty()) row_ms_ = time_ms;
        row_.push_back(byte);
        if (is_full()) complete += rest();
    }
    return complete;
}

std::string ByteRows::rest() {
    if (row_.empty()) return {};
    std::string text = time_text();
    if (choice_.form == "hex") {
        std::string pairs = hex_pairs(row_.data(), row_.size());
        pairs.resize(kHexRowBytes * 3 - 1, ' ');
        text += pairs + " |" + dotted_text(row_.data(), row_.size()) + "|\n";
    } else {
        text += visible_text(row_.data(), row_.size()) + "\n";
    }
    row_.clear();
    return text;
}

}  // namespace qelctl
