// video_input.cpp - video input. No operations yet: requests of other chips are refused.
#include "product/adapter_module.h"
#include "qel/video.h"

extern "C" int VIDEOINPUT_adapterSlaveProc(AdapterMsg *msg) {
    return qel::product::refuse_request(__func__, msg);
}

QEL_ADAPTER_MODULE(VIDEOINPUT, QEL_MODULE_VIDEO_INPUT, VIDEOINPUT_adapterSlaveProc)
