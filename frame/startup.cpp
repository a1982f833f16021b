// startup.cpp - the composition root: the one source that names every module. The chains and their
// order are the tables below; no step stops a chain, undoes another one or is tried again.
#include "frame/adapter.h"
#include "frame/log.h"
#include "os/os.h"
#include "qel/qel.h"

#ifndef QEL_SOURCE_REVISION
#define QEL_SOURCE_REVISION 71554
#endif

namespace {

struct Step {
    int (*run)();
    const char *message;  // logged when it fails
    int line;             // of the step in this file, so that the log line leads to it
};

#define STEP(function, message) \
    { function, message, __LINE__ }
#define EXECUTE_ERROR(function) #function " execute Error and return OSA_EFAIL\n"
#define FAILED(function) #function " failed!\n"

constexpr Step kStartUp[] = {
    STEP(QEL_adapterPreInit, EXECUTE_ERROR(QEL_adapterPreInit)),
    STEP(QEL_productInit, EXECUTE_ERROR(QEL_productInit)),
    STEP(QEL_hwidGet, EXECUTE_ERROR(QEL_hwidGet)),
    STEP(QEL_chnMapInit, EXECUTE_ERROR(QEL_chnMapInit)),
    STEP(QEL_configInit, EXECUTE_ERROR(QEL_configInit)),
    STEP(QEL_sramfileInit, EXECUTE_ERROR(QEL_sramfileInit)),
    STEP(QEL_miscInit, EXECUTE_ERROR(QEL_miscInit)),
    STEP(QEL_rtcInit, EXECUTE_ERROR(QEL_rtcInit)),
    STEP(QEL_TwoEyesComInit, EXECUTE_ERROR(QEL_TwoEyesComInit)),
    STEP(QEL_fpgaInit, EXECUTE_ERROR(QEL_fpgaInit)),
    STEP(QEL_flashIinit, EXECUTE_ERROR(QEL_flashIinit)),
    STEP(QEL_comInit, EXECUTE_ERROR(QEL_comInit)),
    STEP(QEL_heatInit, EXECUTE_ERROR(QEL_heatInit)),
    STEP(QEL_mcuInit, EXECUTE_ERROR(QEL_mcuInit)),
    STEP(QEL_recordInit, EXECUTE_ERROR(QEL_recordInit)),
    STEP(QEL_MemInit, FAILED(QEL_MemInit)),
    STEP(QEL_flagfileInit, FAILED(QEL_flagfileInit)),
    STEP(QEL_netInit, FAILED(QEL_netInit)),
    STEP(QEL_semLockInit, FAILED(QEL_semLockInit)),
    STEP(QEL_hwidExInit, FAILED(QEL_hwidExInit)),
    STEP(QEL_commlenInit, FAILED(QEL_hwidExInit)),  // the message users of the log know, wrong name and all
    STEP(QEL_adapterInit, EXECUTE_ERROR(QEL_adapterInit)),
    STEP(QEL_coprocInit, FAILED(QEL_coprocInit)),
    STEP(QEL_notifyInit, FAILED(QEL_notifyInit)),
};

// Not the mirror of the start-up: notification, extended id, configuration and boot environment have
// nothing to take down here.
constexpr Step kShutDown[] = {
    STEP(QEL_coprocDeinit, FAILED(QEL_coprocDeinit)),
    STEP(QEL_adapterDeinit, EXECUTE_ERROR(QEL_adapterPreDeinit)),  // wrong name, kept as above
    STEP(QEL_commlenDeinit, FAILED(QEL_commlenDeinit)),
    STEP(QEL_semLockDeinit, FAILED(QEL_semLockDeinit)),
    STEP(QEL_flagfileDeInit, FAILED(QEL_flagfileDeInit)),
    STEP(QEL_netDeInit, FAILED(QEL_netDeInit)),
    STEP(QEL_MemDeinit, FAILED(QEL_MemDeinit)),
    STEP(QEL_recordDeinit, EXECUTE_ERROR(QEL_recordDeinit)),
    STEP(QEL_mcuDeinit, EXECUTE_ERROR(QEL_mcuDeinit)),
    STEP(QEL_comDeinit, EXECUTE_ERROR(QEL_comDeinit)),
    STEP(QEL_heatDeinit, EXECUTE_ERROR(QEL_heatDeinit)),
    STEP(QEL_flashDeinit, EXECUTE_ERROR(QEL_flashDeinit)),
    STEP(QEL_fpgaDeinit, EXECUTE_ERROR(QEL_fpgaDeinit)),
    STEP(QEL_TwoEyesComDeInit, EXECUTE_ERROR(QEL_TwoEyesComDeInit)),
    STEP(QEL_rtcDeinit, EXECUTE_ERROR(QEL_rtcDeinit)),
    STEP(QEL_miscDeinit, EXECUTE_ERROR(QEL_miscDeinit)),
    STEP(QEL_sramfileDeInit, EXECUTE_ERROR(QEL_sramfileDeInit)),
    STEP(QEL_chnMapDeinit, EXECUTE_ERROR(QEL_chnMapDeinit)),
    STEP(QEL_productDeinit, EXECUTE_ERROR(QEL_productDeinit)),
    STEP(QEL_adapterPreDeinit, EXECUTE_ERROR(QEL_adapterPreDeinit)),
};

constexpr qel::adapter::Module kAdapterModules[] = {
    {QEL_eventInit, QEL_eventDeinit},
    {PRODUCT_adapterInit, PRODUCT_adapterDeInit},
    {CONFIG_adapterInit, CONFIG_adapterDeInit},
    {FLASH_adapterInit, FLASH_adapterDeInit},
    {VIDEOINPUT_adapterInit, VIDEOINPUT_adapterDeInit},
    {PERUPGRADE_adapterInit, PERUPGRADE_adapterDeInit},
    {VIDEOPROCESS_adapterInit, VIDEOPROCESS_adapterDeInit},
    {VISCA_COMM_adapterInit, VISCA_COMM_adapterDeInit},
    {SYSTEM_adapterInit, SYSTEM_adapterDeInit},
    {ENV_adapterInit, ENV_adapterDeInit},
};

int loading_process;

template <size_t kCount>
void run_chain(const Step (&steps)[kCount], const char *function) {
    for (const Step &step : steps) {
        if (step.run() != 0) QEL_ERROR_AT(function, step.line, "%s", step.message);
    }
}

}  // namespace

std::span<const qel::adapter::Module> qel::adapter::modules() { return kAdapterModules; }

extern "C" {

__attribute__((constructor)) int QEL_preInit(void) {
    loading_process = qel::os::process_id();
    uint32_t parameter = 0;
    OSA_init(&parameter);
    QEL_INFO("libqel.so Build on %s at %s.\n", __DATE__, __TIME__);
    QEL_INFO("SVN NUM: %d.\n", QEL_SOURCE_REVISION);
    ENV_preInit();
    run_chain(kStartUp, __func__);
    return 0;
}

__attribute__((destructor)) int QEL_preDeinit(void) {
    // The child of a fork() that leaves through exit() has none of the library's threads, and its
    // parent goes on using the channels.
    if (qel::os::process_id() != loading_process) return 0;
    run_chain(kShutDown, __func__);
    OSA_deinit();
    return 0;
}

void QEL_staticInit(void) { QEL_INFO("%s\n", __func__); }

int sysStaticInit(void) {
    QEL_staticInit();
    return 0;
}

}  // extern "C"
