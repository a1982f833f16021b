// raw_flash.h - the library's raw flash object, released at the end.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "qel/storage.h"
#include "tools/qelctl/library.h"

namespace qelctl {

class RawFlashObject {
public:
    // This chip's flash, which leaves alone what is mounted from it; or that of every chip, with all of it
    // unmounted. Throws Failure(kFailed).
    RawFlashObject(const Library &library, bool every_chip);
    ~RawFlashObject();
    RawFlashObject(const RawFlashObject &) = delete;
    RawFlashObject &operator=(const RawFlashObject &) = delete;

    // Addresses count from the start of the flash. False: the library's log says why.
    bool read(uint64_t address, std::vector<uint8_t> &all_of_it) const;
    bool write(uint64_t address, const std::vector<uint8_t> &data) const;
    bool write_partition(const std::string &name, const std::vector<uint8_t> &data) const;
    bool erase(uint64_t address, uint64_t bytes) const;
    void abort() const;

    // Called with the bytes done after each block; an empty function ends it.
    void on_progress(std::function<void(uint64_t done_bytes)> call) const;

private:
    RawFlash *flash_ = nullptr;
    mutable std::function<void(uint64_t)> progress_;
};

}  // namespace qelctl
