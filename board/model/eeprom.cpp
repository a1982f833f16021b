// eeprom.cpp - "/dev/qecEEPROM" and "/dev/qecEEPROM1", "2" ...: serial EEPROM chips behind their driver.
//
// The chip takes a write page by page, and a write that runs over the end of a page goes on at the
// start of the same page. Its driver therefore cuts every write at the page borders; a board can have
// one that does not (splits_pages = false). Each page written is one write to the medium: what a power
// cut tears is a page.
//
// The test's face: "read ADDRESS BYTES" answers the bytes, "write ADDRESS HEX" and "fill HEX-BYTE" put
// bytes on the chip without the driver, "page-writes" answers how many pages were written.
#include <algorithm>
#include <stdexcept>

#include "board/core/chip.h"
#include "board/core/description.h"
#include "board/core/errors.h"
#include "board/core/report.h"
#include "board/model/eeprom_map.h"
#include "board/model/records.h"
#include "board/model/words.h"
#include "qel/eeprom_driver.h"

namespace qel::board {

namespace {

constexpr uint8_t kErasedByte = 0xFF;
constexpr int64_t kMostCapacityBytes = 1 << 20;
constexpr int64_t kMostPageBytes = 4096;
constexpr size_t kTransferBytes = 8;  // packed: u32 address, u32 bytes; a write's data follow
constexpr size_t kAttributeWords = 7;
constexpr size_t kOwnWords = 5;  // of the attributes: 0, 2, 4, 5, 6

static_assert(sizeof(EefsChipAttr) == 4 * kAttributeWords);
static_assert(offsetof(qec_eeprom_transfer, buffer) == sizeof(void *));
static_assert(sizeof(qec_eeprom_transfer) == (sizeof(void *) == 4 ? 24 : 32));

// ---- records ----

bool pack_transfer(const void *argument, Buffer &in) {
    const auto *transfer = static_cast<const qec_eeprom_transfer *>(argument);
    if (transfer == nullptr || (transfer->buffer == nullptr && transfer->bytes > 0)) return false;
    in.resize(kTransferBytes);
    put_u32(in, 0, transfer->address);
    put_u32(in, 4, transfer->bytes);
    return true;
}

bool pack_write(const void *argument, Buffer &in) {
    if (!pack_transfer(argument, in)) return false;
    const auto *transfer = static_cast<const qec_eeprom_transfer *>(argument);
    if (transfer->bytes > kMostCapacityBytes) return true;  // more than any chip holds: refused there
    const auto *first = static_cast<const uint8_t *>(transfer->buffer);
    in.insert(in.end(), first, first + transfer->bytes);
    return true;
}

bool unpack_read(void *argument, Bytes out) {
    const auto *transfer = static_cast<const qec_eeprom_transfer *>(argument);
    std::copy_n(out.begin(), std::min<size_t>(out.size(), transfer->bytes),
                static_cast<uint8_t *>(transfer->buffer));
    return true;
}

constexpr RequestSpec kRequests[] = {
    {.code = QEC_EEPROM_IOCWR, .name = "WRITE", .pack = pack_write},
    {.code = QEC_EEPROM_IOCRD, .name = "READ", .pack = pack_transfer, .unpack = unpack_read},
    {QEC_EEPROM_IOSGET, "GET_ATTRIBUTES", 0, sizeof(EefsChipAttr)},
};

// ---- device ----

class Eeprom final : public Device {
public:
    Eeprom(Chip &chip, const Description &description);
    Answer ioctl(Handle &handle, uint32_t request, Bytes in) override;
    void show(Report &report) const override;
    void save(Buffer &out) const override { out = content_; }
    void load(Bytes bytes) override;
    Answer poke(const std::vector<std::string> &words) override;

private:
    bool holds(uint64_t address, uint64_t bytes) const { return address + bytes <= content_.size(); }
    Answer attributes() const;
    Answer content_at(uint32_t address, uint32_t bytes) const;
    Answer take_write(uint32_t address, Bytes bytes);
    bool program_page(uint32_t address, Bytes bytes);

    uint32_t page_bytes_;
    bool splits_pages_;
    std::vector<int64_t> own_words_;
    Buffer content_;
    int64_t page_writes_ = 0;
};

Eeprom::Eeprom(Chip &chip, const Description &description)
    : Device(chip),
      page_bytes_(static_cast<uint32_t>(description.number("page_bytes", 1, kMostPageBytes, 32))),
      splits_pages_(description.flag("splits_pages", true)),
      own_words_(description.numbers("words", 0, UINT32_MAX)),
      content_(static_cast<size_t>(description.number("capacity_bytes", 1, kMostCapacityBytes, 8192)),
               kErasedByte) {
    if (own_words_.size() > kOwnWords) description.fail("words", "are five: words 0, 2, 4, 5 and 6");
    own_words_.resize(kOwnWords);
}

void Eeprom::load(Bytes bytes) {
    if (bytes.size() != content_.size())
        throw std::runtime_error("the EEPROM kept was of " + std::to_string(bytes.size()) +
                                 " bytes, the board's is of " + std::to_string(content_.size()));
    content_.assign(bytes.begin(), bytes.end());
}

Answer Eeprom::ioctl(Handle &, uint32_t request, Bytes in) {
    if (request == QEC_EEPROM_IOSGET) return attributes();
    if (request != QEC_EEPROM_IOCRD && request != QEC_EEPROM_IOCWR) return Answer::fail(ENOTTY);
    if (in.size() < kTransferBytes) return Answer::fail(EINVAL);
    const uint32_t address = get_u32(in, 0);
    const uint32_t bytes = get_u32(in, 4);
    if (!holds(address, bytes)) return Answer::fail(EINVAL);
    if (request == QEC_EEPROM_IOCRD) return content_at(address, bytes);
    if (in.size() != kTransferBytes + bytes) return Answer::fail(EINVAL);
    return take_write(address, in.subspan(kTransferBytes));
}

Answer Eeprom::attributes() const {
    const int64_t words[kAttributeWords] = {
        own_words_[0], page_bytes_,   own_words_[1], static_cast<int64_t>(content_.size()),
        own_words_[2], own_words_[3], own_words_[4]};
    Buffer out(sizeof(EefsChipAttr));
    for (size_t i = 0; i < kAttributeWords; ++i) put_u32(out, 4 * i, static_cast<uint32_t>(words[i]));
    return Answer::ok(0, std::move(out));
}

Answer Eeprom::content_at(uint32_t address, uint32_t bytes) const {
    const auto first = content_.begin() + address;
    return Answer::ok(0, Buffer(first, first + bytes));
}

Answer Eeprom::take_write(uint32_t address, Bytes bytes) {
    if (!splits_pages_) {
        if (address % page_bytes_ + bytes.size() > page_bytes_)
            chip().report_misuse(*this, "a write of " + std::to_string(bytes.size()) + " bytes at " +
                                            std::to_string(address) + " wraps in its page");
        return program_page(address, bytes) ? Answer::ok() : Answer::fail(EIO);
    }
    while (!bytes.empty()) {
        const size_t piece = std::min<size_t>(bytes.size(), page_bytes_ - address % page_bytes_);
        if (!program_page(address, bytes.first(piece))) return Answer::fail(EIO);
        address += static_cast<uint32_t>(piece);
        bytes = bytes.subspan(piece);
    }
    return Answer::ok();
}

// What the chip does with one write: the address counts within the page. False: the power was cut.
bool Eeprom::program_page(uint32_t address, Bytes bytes) {
    const uint32_t page = address - address % page_bytes_;
    const size_t reached = chip().medium_write(*this, bytes.size());
    for (size_t i = 0; i < reached; ++i) content_[page + (address - page + i) % page_bytes_] = bytes[i];
    ++page_writes_;
    return reached == bytes.size();
}

// ---- for people and tests ----

void Eeprom::show(Report &report) const {
    report.value("capacity bytes", static_cast<int64_t>(content_.size()));
    report.value("page bytes", int64_t{page_bytes_});
    report.value("page writes", page_writes_);
    const EepromFiles files = read_eeprom_files(content_, page_bytes_);
    if (files.found) {
        report.value("free bytes", int64_t{files.free_bytes});
        report.table("files", {"mark", "name", "bytes", "room", "address", "changed"});
        for (size_t i = 0; i < files.files.size(); ++i) {
            const EepromFile &file = files.files[i];
            const char *state = file.on_chip ? "(not in use)" : "(not on the chip)";
            report.row({std::string(1, static_cast<char>('a' + i)), file.in_use ? file.name : state,
                        int64_t{file.bytes}, int64_t{file.room_bytes}, int64_t{file.header_address},
                        int64_t{file.changed_s}});
        }
    } else {
        report.value("files", std::string("no file system"));
    }
    report.map("map", eeprom_map(content_, files));
}

Answer Eeprom::poke(const std::vector<std::string> &words) {
    uint32_t address = 0;
    uint32_t bytes = 0;
    Buffer data;
    const std::string verb = words.empty() ? "" : words[0];
    if (verb == "page-writes" && words.size() == 1) return Answer::ok(page_writes_);
    if (verb == "fill" && words.size() == 2 && parse_hex(words[1], data) && data.size() == 1) {
        std::fill(content_.begin(), content_.end(), data[0]);
        return Answer::ok();
    }
    if (words.size() != 3 || !parse_number(words[1], address)) return Answer::fail(EINVAL);
    if (verb == "read" && parse_number(words[2], bytes) && holds(address, bytes))
        return content_at(address, bytes);
    if (verb != "write" || !parse_hex(words[2], data) || !holds(address, data.size()))
        return Answer::fail(EINVAL);
    std::copy(data.begin(), data.end(), content_.begin() + address);
    return Answer::ok();
}

void build(Chip &chip, const Description &description) {
    std::string node = QEL_EEPROM_DEVICE;
    for (unsigned number = 1; chip.find(node) != nullptr; ++number) {
        if (number == QEL_EEPROM_CHIPS_MAX)
            description.fail("", "a chip has at most " + std::to_string(number) + " EEPROMs");
        node = QEL_EEPROM_DEVICE + std::to_string(number);
    }
    chip.add(node, std::make_unique<Eeprom>(chip, description));
}

}  // namespace

extern const DeviceClass kEepromClass = {"eeprom", "serial EEPROM chips", kRequests, build};

}  // namespace qel::board
