// mcu_use.h - the microcontroller's device for the time of one request, so that a close in another thread
// takes nothing away from it.
#pragma once

#include "qel/mcu.h"

namespace qel::mcu {

class McuUse {
public:
    McuUse() {
        if (QEL_mcuCreate(&handle_) != 0) handle_ = nullptr;
    }
    ~McuUse() {
        if (handle_ != nullptr) QEL_mcuDelete(handle_);
    }
    McuUse(const McuUse &) = delete;
    McuUse &operator=(const McuUse &) = delete;
    McuHandle get() const { return handle_; }  // nullptr: there is none

private:
    McuHandle handle_ = nullptr;
};

}  // namespace qel::mcu
