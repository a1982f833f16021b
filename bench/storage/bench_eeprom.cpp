// bench_eeprom.cpp - how many bytes the EEPROM file system reads and writes on the chip, held against the
// least that its format makes necessary. Counted from the board's trace, so the figures are exact and
// the same on every machine.
//
// The least: to find a file, the headers up to its own, for names stand nowhere else. To make one, its
// header, data, entry and the head's first words, each written once; nothing is read back, since all of
// that is known. To lay out anew, the other files' headers and data read once, then the head's words and
// every entry, header and data written once.
#include <unistd.h>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "bench/loaded_library.h"
#include "bench/measure.h"
#include "board/core/board.h"
#include "qel/eeprom.h"

namespace {

using namespace qel::bench;

constexpr const char *kBoard =
    "name = \"bench\"\n[[chip]]\n[chip.hwid]\nname = \"BX-200\"\n[chip.misc]\n"
    "[chip.eeprom]\npage_bytes = 32\ncapacity_bytes = 4096\n";
constexpr size_t kCapacity = 4096;
constexpr size_t kHeader = 56;
constexpr size_t kEntry = 12;
constexpr size_t kHeadStart = 24;
constexpr size_t kFileBytes = 200;
constexpr size_t kFiles = 4;  // there before each operation, of kFileBytes each

struct Traffic {
    size_t read_bytes = 0;
    size_t written_bytes = 0;
    size_t read_again_bytes = 0;
};

// The 32-bit word that stands, little-endian and in hexadecimal, at byte `at` of `text`.
uint32_t word_at(std::string_view text, size_t at) {
    const std::string digits(text.substr(2 * at, 8));
    return __builtin_bswap32(static_cast<uint32_t>(std::stoul(digits, nullptr, 16)));
}

std::string_view member(std::string_view line, std::string_view name) {
    const std::string start = std::string("\"").append(name).append("\":\"");
    const size_t at = line.find(start);
    if (at == std::string_view::npos) return {};
    line.remove_prefix(at + start.size());
    return line.substr(0, line.find('"'));
}

Traffic count(std::string_view trace) {
    Traffic traffic;
    std::vector<bool> was_read(kCapacity);
    while (!trace.empty()) {
        const std::string_view line = trace.substr(0, trace.find('\n'));
        trace.remove_prefix(std::min(trace.size(), line.size() + 1));
        const std::string_view request = member(line, "request");
        const std::string_view data = member(line, "data");
        if (request != "READ" && request != "WRITE") continue;
        expect(data.size() >= 16, "reading the trace");
        const uint32_t address = word_at(data, 0);
        const uint32_t bytes = word_at(data, 4);
        (request == "READ" ? traffic.read_bytes : traffic.written_bytes) += bytes;
        for (uint32_t i = address; request == "READ" && i < address + bytes; ++i) {
            traffic.read_again_bytes += was_read.at(i) ? 1 : 0;
            was_read[i] = true;
        }
    }
    return traffic;
}

class Chip {
public:
    Chip() : board_(kBoard) {
        board_.enter({.chip = 0, .as = "vesta"});
        library_.emplace();
        expect(CALL(*library_, createRawEeprom)(nullptr, &object_) == 0, "createRawEeprom");
        for (size_t i = 0; i < kFiles; ++i) store(std::string(1, static_cast<char>('a' + i)), kFileBytes);
    }
    ~Chip() { object_->release(object_); }
    Chip(const Chip &) = delete;
    Chip &operator=(const Chip &) = delete;

    void store(const std::string &name, size_t bytes) const {
        const std::string data(bytes, 'x');
        expect(object_->write(object_, name.c_str(), data.data(), static_cast<unsigned>(bytes)) == 0,
               "store");
    }
    int open(const char *name) const { return CALL(*library_, EEFS_LibOpen)(name); }
    void append(const char *name, size_t bytes) const {
        const std::string data(bytes, 'y');
        unsigned done = 0;
        const int index = open(name);
        expect(CALL(*library_, EEFS_LibLSeek)(index, 0, SEEK_END) >= 0, "seek");
        expect(CALL(*library_, EEFS_LibWrite)(index, data.data(), static_cast<unsigned>(bytes), &done) == 0 &&
                   done == bytes,
               "append");
        expect(CALL(*library_, EEFS_LibClose)(index) == 0, "close");
    }

    Traffic traffic_of(const std::function<void(const Chip &)> &operation) {
        char *text = nullptr;
        size_t length = 0;
        FILE *const file = open_memstream(&text, &length);
        expect(file != nullptr, "open_memstream");
        board_.trace_to(file);
        operation(*this);
        board_.trace_to(nullptr);
        fclose(file);
        const Traffic traffic = count({text, length});
        free(text);
        return traffic;
    }

private:
    qel::board::Board board_;
    std::optional<LoadedLibrary> library_;
    RawEeprom *object_ = nullptr;
};

// Standard output is ours alone: what the library prints there is no row.
FILE *own_output() {
    static FILE *const output = [] {
        FILE *const kept = fdopen(dup(STDOUT_FILENO), "w");
        expect(kept != nullptr && freopen("/dev/null", "w", stdout) != nullptr, "keeping the output");
        return kept;
    }();
    return output;
}

void print_row(const std::string &what, size_t bytes, const std::string &against, size_t least) {
    fprintf(own_output(), "| EEPROM, %s | %zu bytes | %s | %zu bytes | %.2f |\n", what.c_str(), bytes,
            against.c_str(), least, static_cast<double>(bytes) / static_cast<double>(least));
    fflush(own_output());
}

struct Operation {
    const char *what;
    std::function<void(const Chip &)> run;
    size_t least_read;
    size_t least_written;
    bool is_one_call = true;
};

}  // namespace

int main() {
    constexpr size_t kGrown = 2 * kFileBytes;
    constexpr size_t kAppended = 10;  // within the room that a file has
    const Operation operations[] = {
        {"open the third of four files", [](const Chip &chip) { chip.open("c"); }, 3 * kHeader, 0},
        {"store a new file of 200 bytes", [](const Chip &chip) { chip.store("new", kFileBytes); },
         kFiles * kHeader, kHeader + kFileBytes + kEntry + kHeadStart},
        {"store over the third file", [](const Chip &chip) { chip.store("c", kFileBytes); }, 3 * kHeader,
         kFileBytes + kHeader},
        {"append 10 bytes to the third file", [](const Chip &chip) { chip.append("c", kAppended); },
         3 * kHeader, kAppended + kHeader, false},
        {"grow the third file: all laid out anew", [](const Chip &chip) { chip.store("c", kGrown); },
         kFiles * kHeader + (kFiles - 1) * kFileBytes,
         kHeadStart + kFiles * (kEntry + kHeader) + (kFiles - 1) * kFileBytes + kGrown},
    };
    own_output();
    constexpr const char *kLeast = "the least for its format";
    Traffic calls;  // those that are one call
    for (const Operation &operation : operations) {
        Chip chip;
        const Traffic traffic = chip.traffic_of(operation.run);
        const std::string what = operation.what;
        print_row(what + ": read", traffic.read_bytes, kLeast, operation.least_read);
        if (operation.least_written != 0)
            print_row(what + ": written", traffic.written_bytes, kLeast, operation.least_written);
        if (!operation.is_one_call) continue;
        calls.read_bytes += traffic.read_bytes;
        calls.read_again_bytes += traffic.read_again_bytes;
    }
    print_row("read twice in one call", calls.read_again_bytes, "read in all", calls.read_bytes);
    return 0;
}
