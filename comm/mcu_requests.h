// mcu_requests.h - every command that the microcontroller's driver is given, in one table.
#pragma once

#include <cstdint>

#include "qel/mcu_driver.h"

namespace qel::mcu {

enum class Way : uint8_t { kSend, kGet };
// What the caller gets after a failure.
enum class Failing : uint8_t { kDriversResult, kMinusOne };

struct Request {
    Way way;
    uint32_t command;
    uint32_t code;
    const char *message;  // after a failure; nullptr: none
    Failing failing = Failing::kDriversResult;
    bool record = true;  // false: the driver gets none
};

// The texts are those that users of the log know, where they name another command too.
constexpr Request kRequests[] = {
    {Way::kSend, 0, QEC_MCU_WRITE_LCD, "QEC_MCU_WRITE_LCD, failed\n"},
    {Way::kSend, 1, QEC_MCU_SET_TIME, "QEC_MCU_SET_TIME, failed\n"},
    {Way::kSend, 2, QEC_MCU_SHUTDOWN_HOST, "QEC_MCU_SHUTDOWN_HOST, failed\n", Failing::kDriversResult, false},
    {Way::kSend, 3, QEC_MCU_UART_CFG, "QEC_MCU_UART_CFG, failed\n"},
    {Way::kSend, 4, QEC_MCU_UART_SEND, "QEC_MCU_UART_SEND, failed\n"},
    {Way::kSend, 5, QEC_MCU_CAN_SEND, "QEC_MCU_CAN_SEND, failed\n"},
    {Way::kSend, 6, QEC_MCU_RESET_MCU, "QEC_MCU_RESET_MCU failed\n"},
    {Way::kSend, 7, QEC_MCU_CTRL_POWERSWITCH, "QEC_MCU_CTRL_POWERSWITCH, failed\n"},
    {Way::kSend, 8, QEC_MCU_ACK_ADAPTER, "QEC_MCU_ACK_ADAPTER, failed\n"},
    {Way::kSend, 11, QEC_MCU_HEATER_TEST, "QEC_MCU_HEATER_TEST, failed\n"},
    {Way::kSend, 12, QEC_MCU_RFID_SEND, "CMD_MCU_RFID_SEND, failed\n"},
    {Way::kSend, 13, QEC_MCU_RFID_CONTROL, "CMD_MCU_RFID_SEND, failed\n"},
    {Way::kSend, 14, QEC_MCU_PUT_CARD_NO, "CMD_MCU_PUT_CARD_NO, failed\n"},
    {Way::kSend, 15, QEC_MCU_READ_CARD_NO, "CMD_MCU_READ_CARD_NO, failed\n"},
    {Way::kSend, 16, QEC_MCU_SET_CARD_STATUS, "QEC_MCU_SET_CARD_STATUS, failed\n"},
    {Way::kSend, 17, QEC_MCU_CLEAR_CARD_NO, nullptr},

    {Way::kGet, 0, QEC_MCU_FACEBOARD_STATE, "QEC_MCU_FACEBOARD_STATE, failed\n"},
    {Way::kGet, 1, QEC_MCU_KEY_STATE, "QEC_MCU_KEY_STATE, failed\n"},
    {Way::kGet, 2, QEC_MCU_UART_GET, "QEC_MCU_UART_GET, failed\n"},
    {Way::kGet, 3, QEC_MCU_CAN_GET, "QEC_MCU_CAN_GET, failed\n"},
    {Way::kGet, 4, QEC_MCU_REST_IP, "QEC_MCU_REST_IP, failed\n"},
    {Way::kGet, 5, QEC_MCU_GET_VER, "CMD_MCU_GET_VER, failed\n"},
    {Way::kGet, 6, QEC_MCU_GET_CRY, "CMD_MCU_GET_CRY, failed\n"},
    {Way::kGet, 7, QEC_MCU_GET_4TO20MA, "CMD_MCU_GET_4TO20MA, failed\n", Failing::kMinusOne},
    {Way::kGet, 8, QEC_MCU_GET_POWRE_STATE, "CMD_MCU_GET_POWRE_STATE, failed\n", Failing::kMinusOne},
    {Way::kGet, 9, QEC_MCU_SPI_GET, "CMD_MCU_SPI_GET, failed\n", Failing::kMinusOne},
    {Way::kGet, 10, QEC_MCU_LAST_KEY, "QEC_MCU_KEY_STATE, failed\n"},
    {Way::kGet, 11, QEC_MCU_MODULE_INFO_GET, "CMD_MCU_MODULE_INFO_GET, failed\n", Failing::kMinusOne},
    {Way::kGet, 12, QEC_MCU_MODULE_READ, "QEC_MCU_MODULE_READ, failed\n", Failing::kMinusOne},
};

constexpr const Request *find_request(Way way, uint32_t command) {
    for (const Request &request : kRequests) {
        if (request.way == way && request.command == command) return &request;
    }
    return nullptr;
}

}  // namespace qel::mcu
