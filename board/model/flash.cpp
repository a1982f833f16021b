#include "board/model/flash.h"

#include <algorithm>
#include <cerrno>

#include "board/core/chip.h"

namespace qel::board {

namespace {

constexpr uint8_t kErasedByte = 0xFF;

FlashMedium::Shape shape_of(const Flash::Geometry &geometry) {
    const bool hides_blocks = geometry.kind == FlashKind::kEmmc;
    return {static_cast<uint32_t>(geometry.kind), hides_blocks ? 0 : geometry.erase_bytes,
            geometry.page_bytes, geometry.total_bytes};
}

bool is_erased(Bytes bytes) {
    return std::all_of(bytes.begin(), bytes.end(), [](uint8_t byte) { return byte == kErasedByte; });
}

}  // namespace

Flash::Flash(const std::string &dir, const Geometry &geometry, std::vector<FlashPartition> partitions)
    : geometry_(geometry),
      partitions_(std::move(partitions)),
      shape_(shape_of(geometry)),
      medium_(dir, shape_) {}

int Flash::read(uint64_t at, std::span<uint8_t> out) const { return medium_.read(at, out) ? 0 : -EIO; }

// ---- writing ----

std::string Flash::place(uint64_t at) const {
    return "page " + std::to_string(at % geometry_.erase_bytes / geometry_.page_bytes) + " of block " +
           std::to_string(block_of(at)) + " of the flash";
}

bool Flash::any_written(uint64_t at, size_t bytes) const {
    for (uint64_t page = at / geometry_.page_bytes; page * geometry_.page_bytes < at + bytes; ++page) {
        if (medium_.is_written(page)) return true;
    }
    return false;
}

// What this write does that real hardware would not forgive, once per write.
void Flash::accuse(Device &by, uint64_t at, Bytes bytes, Bytes old) const {
    if (is_nand()) {
        if (is_bad(at)) by.chip().report_misuse(by, "write into a bad block: " + place(at));
        for (size_t i = 0; i < bytes.size(); i += geometry_.page_bytes) {
            if (!medium_.is_written((at + i) / geometry_.page_bytes)) continue;
            by.chip().report_misuse(by, "second write without an erase: " + place(at + i));
            return;
        }
        return;
    }
    for (size_t i = 0; i < old.size(); ++i) {
        if ((old[i] & bytes[i]) == bytes[i]) continue;
        by.chip().report_misuse(by, "write of ones over zeros without an erase: " + place(at + i));
        return;
    }
}

int Flash::write(Device &by, uint64_t at, Bytes bytes) {
    Buffer merged(bytes.begin(), bytes.end());
    if (!is_emmc() && !bytes.empty()) {
        Buffer old;
        if (any_written(at, bytes.size())) {
            old.resize(bytes.size());
            if (!medium_.read(at, old)) return -EIO;
        }
        accuse(by, at, bytes, old);
        for (size_t i = 0; i < old.size(); ++i) merged[i] &= old[i];
    }
    const size_t reached = program(by, at, bytes.size());
    if (!medium_.write(at, Bytes(merged).first(reached))) return -EIO;
    return reached == bytes.size() ? 0 : -EIO;
}

// Page by page: how many of the bytes reach the medium.
size_t Flash::program(Device &by, uint64_t at, size_t bytes) {
    size_t reached = 0;
    while (reached < bytes) {
        const uint64_t here = at + reached;
        const size_t piece =
            std::min<uint64_t>(bytes - reached, geometry_.page_bytes - here % geometry_.page_bytes);
        const bool fails = has_mark(block_of(here), kFailing);
        const size_t now = by.chip().medium_write(by, fails ? piece / 2 : piece);
        if (now > 0 && !is_emmc()) medium_.set_written(here / geometry_.page_bytes, true);
        ++page_writes_;
        reached += now;
        if (now < piece) break;
    }
    return reached;
}

// ---- erasing ----

int Flash::erase(Device &by, uint64_t at, uint64_t bytes) {
    for (uint64_t end = at + bytes; at < end; at += geometry_.erase_bytes) {
        const int result = erase_block(by, block_of(at));
        if (result != 0) return result;
    }
    return 0;
}

int Flash::erase_block(Device &by, uint32_t block) {
    const bool is_worn_out = geometry_.endurance != 0 && medium_.erases(block) >= geometry_.endurance;
    if (has_mark(block, kBad) || has_mark(block, kFailing) || is_worn_out) return -EIO;
    const uint64_t at = uint64_t{block} * geometry_.erase_bytes;
    const size_t reached = by.chip().medium_write(by, geometry_.erase_bytes);
    medium_.count_erase(block);
    if (!medium_.erase(at, reached)) return -EIO;
    for (size_t done = 0; done + geometry_.page_bytes <= reached; done += geometry_.page_bytes)
        medium_.set_written((at + done) / geometry_.page_bytes, false);
    return reached == geometry_.erase_bytes ? 0 : -EIO;
}

int Flash::mark_bad(Device &by, uint64_t at) {
    if (is_bad(at)) return 0;
    if (by.chip().medium_write(by, 1) == 0) return -EIO;
    set_mark(at, kBad, true);
    return 0;
}

// ---- the factory, tests and people ----

int Flash::put(uint64_t at, Bytes bytes) {
    if (!medium_.write(at, bytes)) return -EIO;
    if (is_emmc() || bytes.empty()) return 0;
    const uint64_t page_bytes = geometry_.page_bytes;
    Buffer page(page_bytes);
    for (uint64_t number = at / page_bytes; number * page_bytes < at + bytes.size(); ++number) {
        if (!medium_.read(number * page_bytes, page)) return -EIO;
        medium_.set_written(number, !is_erased(page));
    }
    return 0;
}

void Flash::set_mark(uint64_t at, Mark mark, bool on) {
    const uint32_t block = block_of(at);
    if (block >= blocks()) return;
    const uint8_t others = static_cast<uint8_t>(medium_.marks(block) & ~mark);
    medium_.set_marks(block, static_cast<uint8_t>(on ? others | mark : others));
}

uint64_t Flash::written_pages(uint64_t at, uint64_t bytes) const {
    if (is_emmc()) return medium_.has_content(at, bytes) ? 1 : 0;
    uint64_t count = 0;
    const uint64_t first = at / geometry_.page_bytes;
    const uint64_t pages = bytes / geometry_.page_bytes;
    for (uint64_t i = 0; i < pages; ++i) count += medium_.is_written(first + i) ? 1 : 0;
    return count;
}

}  // namespace qel::board
