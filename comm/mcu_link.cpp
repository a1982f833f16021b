// mcu_link.cpp - a plain serial line to a microcontroller, with a thread for what it sends.
#include <array>

#include "comm/open_port.h"
#include "frame/log.h"
#include "product/hwid_store.h"
#include "qel/comm.h"
#include "qel/product.h"

namespace qel::mcu {

namespace {

constexpr int kCategory = 2;
constexpr uint32_t kLogicalType = 0;
constexpr uint32_t kPort = 1;
constexpr unsigned kSettle_ms = 200;
constexpr uint32_t kBaud = 9600;

int delete_thread_and_mutex(McuCommLink &link, const char *function) {
    int status = 0;
    if (link.thread != nullptr && OSA_thrDelete(&link.thread) != 0) {
        QEL_WARN_AS(function, "DeleteReadCommDataThread fail\n");
        status = OSA_EFAIL;
    }
    if (link.mutex != nullptr && OSA_mutexDelete(&link.mutex) != 0) {
        QEL_WARN_AS(function, "OSA_mutexDelete fail\n");
        status = OSA_EFAIL;
    }
    return status;
}

int close_port(McuCommLink &link, const char *function) {
    if (link.handle == nullptr) return 0;
    const int status = link.handle->close(link.handle);
    if (status != 0) QEL_ERROR_AS(function, "close comm failed!\n");
    link.handle->release(link.handle);
    link.handle = nullptr;
    return status;
}

}  // namespace

}  // namespace qel::mcu

using namespace qel;
using namespace qel::mcu;

extern "C" {

int COM_SearchCommConnectMCU(McuCommLink *link) {
    if (link == nullptr || product::property(0, QEL_PROPERTY_CATEGORY) != kCategory) return OSA_EFAIL;
    std::array<CommMapInfo, QEL_COM_MAX_PORTS> list{};
    const int count = getCommPortCount();
    if (count <= 0 || getCommMapInfoList(list.data()) != 0) return OSA_EFAIL;
    for (int i = 0; i < count && i < static_cast<int>(list.size()); ++i) {
        const CommMapInfo &entry = list[static_cast<size_t>(i)];
        if (entry.logicType != kLogicalType || entry.port != kPort) continue;
        link->port = static_cast<int32_t>(entry.port);
        return 0;
    }
    return OSA_EFAIL;
}

int COM_OpenConnectToMCU(McuCommLink *link) {
    if (link == nullptr) return OSA_EFAIL;
    link->handle = comm::open_port(static_cast<uint32_t>(link->port), kBaud);
    return link->handle != nullptr ? 0 : OSA_EFAIL;
}

int COM_CreateThreadAndMutex(McuCommLink *link, McuCommReceive receive) {
    if (link == nullptr || receive == nullptr) return OSA_EFAIL;
    if (OSA_thrCreateEx(&link->thread, receive, OSA_thrGetMinPri(), 0, link, "qel_commRecvData_thr") != 0) {
        QEL_ERROR("Fail to create Comm_Handle!\n");
        QEL_ERROR("Create Read Comm Data Thread FAILED!\n");
        return OSA_EFAIL;
    }
    QEL_INFO("CreateReadCommDataThread ok\n");
    if (OSA_mutexCreate(&link->mutex) != 0) QEL_WARN("CommBat_CreatSemLock fail\n");
    return 0;
}

int COM_SendCommand(McuCommLink *link, const void *command, uint32_t bytes) {
    if (link == nullptr || link->handle == nullptr || command == nullptr) return OSA_EFAIL;
    const int written = link->handle->write(link->handle, command, bytes);
    const int purged = link->handle->purge(link->handle, QEL_COM_DISCARD_OUTPUT);
    if (purged != 0) QEL_ERROR("purge failed!\n");
    return purged == 0 && written >= 0 && static_cast<uint32_t>(written) == bytes ? 0 : OSA_EFAIL;
}

int QEL_comCommunicationWithMCU(McuCommLink *link, McuCommReceive receive, const void *command,
                                uint32_t bytes) {
    if (COM_SearchCommConnectMCU(link) != 0) {
        QEL_ERROR("no line to an MCU\n");
        return OSA_EFAIL;
    }
    if (COM_OpenConnectToMCU(link) != 0) {
        QEL_ERROR("Can't open comm connect to MCU!\n");
        return OSA_EFAIL;
    }
    if (COM_CreateThreadAndMutex(link, receive) != 0) {
        QEL_ERROR("Create Read Comm Data Thread and mutex FAILED!\n");
        return OSA_EFAIL;
    }
    OSA_sleepMs(kSettle_ms);
    if (COM_SendCommand(link, command, bytes) != 0) {
        QEL_ERROR("Can't send comm for command!\n");
        return OSA_EFAIL;
    }
    return 0;
}

int QEL_comShutdownCommunicationWithMCU(McuCommLink *link) {
    if (link == nullptr) return OSA_EFAIL;
    int status = delete_thread_and_mutex(*link, __func__);
    if (status != 0) QEL_ERROR("Dlelete thread sem and mutex failed!\n");
    if (close_port(*link, __func__) != 0) {
        QEL_ERROR("close connect to MCU failed!\n");
        status = OSA_EFAIL;
    }
    return status;
}

}  // extern "C"
