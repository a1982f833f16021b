// com_init.cpp - serial ports come up with the library and go down with it.
#include "comm/com.h"
#include "comm/com_slot.h"
#include "comm/port_map.h"
#include "comm/port_misc.h"
#include "comm/uart.h"
#include "frame/log.h"
#include "qel/comm.h"

using namespace qel::comm;

extern "C" {

int QEL_comInit(void) {
    int status = 0;
    if (slots_init() != 0 || misc_init() != 0) {
        QEL_ERROR_SHORT("Fail to create mutex!\n");
        status = OSA_EFAIL;
    }
    prepare_com_objects();
    prepare_uart_objects();
    if (load_port_map() == 0) return status;
    QEL_ERROR("Fail to Get ComMapInfo\n");
    return OSA_EFAIL;
}

// Ports are their users' to close; what is left goes with the locks.
int QEL_comDeinit(void) {
    destroy_com_objects();
    destroy_uart_objects();
    misc_deinit();
    slots_deinit();
    return 0;
}

}  // extern "C"
