// video_process.cpp - video processing. No operations yet: requests of other chips are refused.
#include "product/adapter_module.h"
#include "qel/video.h"

namespace {

int video_process_slave_proc(AdapterMsg *msg) { return qel::product::refuse_request(__func__, msg); }

}  // namespace

QEL_ADAPTER_MODULE(VIDEOPROCESS, QEL_MODULE_VIDEO_PROCESS, video_process_slave_proc)
