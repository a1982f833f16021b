#include "tools/qelctl/raw_flash.h"

#include "tools/qelctl/exit_code.h"

namespace qelctl {

RawFlashObject::RawFlashObject(const Library &library, bool every_chip) {
    const int made =
        every_chip ? CALL(library, createRawFlash)(&flash_) : CALL(library, createRawFlashLocal)(&flash_);
    if (made != 0 || flash_ == nullptr)
        throw Failure(ExitCode::kFailed, "the library gives no access to the flash; its log says why.");
}

RawFlashObject::~RawFlashObject() { flash_->release(flash_); }

bool RawFlashObject::read(uint64_t address, std::vector<uint8_t> &all_of_it) const {
    return flash_->read64(flash_, address, all_of_it.data(), static_cast<uint32_t>(all_of_it.size())) == 0;
}

bool RawFlashObject::write(uint64_t address, const std::vector<uint8_t> &data) const {
    return flash_->write64(flash_, address, data.data(), static_cast<uint32_t>(data.size())) == 0;
}

bool RawFlashObject::write_partition(const std::string &name, const std::vector<uint8_t> &data) const {
    return flash_->writePartition(flash_, name.c_str(), data.data(), static_cast<uint32_t>(data.size())) == 0;
}

bool RawFlashObject::erase(uint64_t address, uint64_t bytes) const {
    return flash_->erase64(flash_, address, bytes) == 0;
}

void RawFlashObject::abort() const { flash_->abort(flash_); }

void RawFlashObject::on_progress(std::function<void(uint64_t)> call) const {
    progress_ = std::move(call);
    flash_->info->progress = nullptr;
    flash_->info->progressContext = &progress_;
    if (!progress_) return;
    flash_->info->progress = [](void *context, uint64_t done_bytes, uint64_t) {
        (*static_cast<std::function<void(uint64_t)> *>(context))(done_bytes);
    };
}

}  // namespace qelctl
