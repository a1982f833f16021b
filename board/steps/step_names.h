// step_names.h - the steps of libqel's start-up and shut-down chains, in the order they are taken.
#pragma once

#define QEL_EACH_START_UP_STEP(X) \
    X(QEL_adapterPreInit)         \
    X(QEL_productInit)            \
    X(QEL_hwidGet)                \
    X(QEL_chnMapInit)             \
    X(QEL_configInit)             \
    X(QEL_sramfileInit)           \
    X(QEL_miscInit)               \
    X(QEL_rtcInit)                \
    X(QEL_TwoEyesComInit)         \
    X(QEL_fpgaInit)               \
    X(QEL_flashIinit)             \
    X(QEL_comInit)                \
    X(QEL_heatInit)               \
    X(QEL_mcuInit)                \
    X(QEL_recordInit)             \
    X(QEL_MemInit)                \
    X(QEL_flagfileInit)           \
    X(QEL_netInit)                \
    X(QEL_semLockInit)            \
    X(QEL_hwidExInit)             \
    X(QEL_commlenInit)            \
    X(QEL_adapterInit)            \
    X(QEL_coprocInit)             \
    X(QEL_notifyInit)

#define QEL_EACH_SHUT_DOWN_STEP(X) \
    X(QEL_coprocDeinit)            \
    X(QEL_adapterDeinit)           \
    X(QEL_commlenDeinit)           \
    X(QEL_semLockDeinit)           \
    X(QEL_flagfileDeInit)          \
    X(QEL_netDeInit)               \
    X(QEL_MemDeinit)               \
    X(QEL_recordDeinit)            \
    X(QEL_mcuDeinit)               \
    X(QEL_comDeinit)               \
    X(QEL_heatDeinit)              \
    X(QEL_flashDeinit)             \
    X(QEL_fpgaDeinit)              \
    X(QEL_TwoEyesComDeInit)        \
    X(QEL_rtcDeinit)               \
    X(QEL_miscDeinit)              \
    X(QEL_sramfileDeInit)          \
    X(QEL_chnMapDeinit)            \
    X(QEL_productDeinit)           \
    X(QEL_adapterPreDeinit)
