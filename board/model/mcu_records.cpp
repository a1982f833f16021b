#include "board/model/mcu_records.h"

#include <algorithm>
#include <cstddef>

#include "board/model/records.h"

namespace qel::board {

namespace {

static_assert(sizeof(qec_mcu_block) == 2 * sizeof(void *));
static_assert(sizeof(qec_mcu_transfer) == 8 + sizeof(void *));
static_assert(sizeof(qec_mcu_time) == 28 && sizeof(qec_mcu_event) == 128);
static_assert(offsetof(qel_mcu_uart, bytes) == kMcuUartHeadBytes);
static_assert(sizeof(qel_mcu_uart) == kMcuUartHeadBytes + QEL_MCU_UART_BYTES);

void append(Buffer &in, const void *data, size_t bytes) {
    const auto *first = static_cast<const uint8_t *>(data);
    in.insert(in.end(), first, first + bytes);
}

bool pack_block(const void *argument, Buffer &in) {
    const auto *block = static_cast<const qec_mcu_block *>(argument);
    if (block == nullptr || (block->data == nullptr && block->bytes > 0)) return false;
    // One byte more than the most there is: the model refuses that, and nobody copies gigabytes.
    append(in, block->data, std::min(block->bytes, kMostFirmwareBytes + 1));
    return true;
}

bool pack_transfer(const void *argument, Buffer &in) {
    const auto *transfer = static_cast<const qec_mcu_transfer *>(argument);
    if (transfer == nullptr || (transfer->data == nullptr && transfer->bytes > 0)) return false;
    in.resize(kMcuTransferBytes);
    put_u32(in, 0, transfer->source);
    put_u32(in, 4, transfer->bytes);
    return true;
}

bool pack_sent_transfer(const void *argument, Buffer &in) {
    if (!pack_transfer(argument, in)) return false;
    const auto *transfer = static_cast<const qec_mcu_transfer *>(argument);
    append(in, transfer->data, std::min(transfer->bytes, QEC_MCU_RAW_BYTES_MAX + 1));
    return true;
}

bool unpack_transfer(void *argument, std::span<const uint8_t> out) {
    auto *transfer = static_cast<qec_mcu_transfer *>(argument);
    transfer->bytes = static_cast<uint32_t>(std::min<size_t>(out.size(), transfer->bytes));
    std::copy_n(out.begin(), transfer->bytes, static_cast<uint8_t *>(transfer->data));
    return true;
}

constexpr uint32_t kUartBytes = sizeof(qel_mcu_uart);
constexpr uint32_t kModuleBytes = sizeof(qec_mcu_module);

constexpr RequestSpec kRequests[] = {
    {.code = QEC_MCU_WRITE_LCD, .name = "WRITE_LCD", .pack = pack_block},
    {QEC_MCU_SET_TIME, "SET_TIME", sizeof(qec_mcu_time), 0},
    {QEC_MCU_HEATER_TEST, "HEATER_TEST", 4, 0},
    {QEC_MCU_SHUTDOWN_HOST, "SHUTDOWN_HOST"},
    {QEL_MCU_UART_CONFIG_REQUEST, "UART_CFG", sizeof(qel_mcu_uart_config), 0},
    {QEL_MCU_UART_SEND_REQUEST, "UART_SEND", kUartBytes, kUartBytes},
    {QEC_MCU_CAN_SEND, "CAN_SEND", sizeof(qec_mcu_can), 0},
    {QEC_MCU_RESET_MCU, "RESET_MCU", 4, 0},
    {QEC_MCU_CTRL_POWERSWITCH, "CTRL_POWERSWITCH", sizeof(qec_mcu_power_switch), 0},
    {QEC_MCU_ACK_ADAPTER, "ACK_ADAPTER", 4, 0},
    {.code = QEC_MCU_RFID_SEND, .name = "RFID_SEND", .pack = pack_sent_transfer},
    {QEC_MCU_PUT_CARD_NO, "PUT_CARD_NO", sizeof(qec_mcu_card), 0},
    {QEC_MCU_CLEAR_CARD_NO, "CLEAR_CARD_NO", 4, 0},
    {QEC_MCU_RFID_CONTROL, "RFID_CONTROL", 4, 0},
    {QEC_MCU_READ_CARD_NO, "READ_CARD_NO", 0, sizeof(qec_mcu_card)},
    {QEC_MCU_SET_CARD_STATUS, "SET_CARD_STATUS", 4, 0},

    {QEC_MCU_FACEBOARD_STATE, "FACEBOARD_STATE", 0, 4},
    {QEC_MCU_KEY_STATE, "KEY_STATE", 0, 4},
    {QEL_MCU_UART_GET_REQUEST, "UART_GET", kUartBytes, kUartBytes},
    {QEC_MCU_CAN_GET, "CAN_GET", 0, sizeof(qec_mcu_can)},
    {QEC_MCU_REST_IP, "REST_IP", 0, 4},
    {QEC_MCU_GET_VER, "GET_VER", QEC_MCU_VERSION_BYTES, QEC_MCU_VERSION_BYTES},
    {QEC_MCU_GET_CRY, "GET_CRY", 0, 32},
    {QEC_MCU_GET_4TO20MA, "GET_4TO20MA", sizeof(qec_mcu_loop), sizeof(qec_mcu_loop)},
    {QEC_MCU_GET_POWRE_STATE, "GET_POWRE_STATE", sizeof(qec_mcu_power_state), sizeof(qec_mcu_power_state)},
    {QEC_MCU_LAST_KEY, "LAST_KEY", 0, 1},
    {QEC_MCU_MODULE_INFO_GET, "MODULE_INFO_GET", kModuleBytes, kModuleBytes},
    {QEC_MCU_MODULE_READ, "MODULE_READ", kModuleBytes, kModuleBytes},

    {.code = QEC_MCU_RAW_READ, .name = "RAW_READ", .pack = pack_transfer, .unpack = unpack_transfer},
    {.code = QEC_MCU_RAW_WRITE, .name = "RAW_WRITE", .pack = pack_sent_transfer},
    {QEC_MCU_UPGRADE_START, "UPGRADE_START", 4, 0},
    {QEC_MCU_UPGRADE_END, "UPGRADE_END", 0, 4},
    {QEC_MCU_GET_CAPS, "GET_CAPS", 0, QEC_MCU_CAPS_BYTES},
    {QEC_MCU_GET_NETLINK_STATE, "GET_NETLINK_STATE", 0, 4},
    {QEC_MCU_CLOSE_THREAD, "CLOSE_THREAD"},
    {.code = QEC_MCU_UPDATE_WIRELESS, .name = "UPDATE_WIRELESS", .pack = pack_block},
};

}  // namespace

// Beside its table, so that it needs no code at the start: libraries may run before this one.
extern const DeviceClass kMcuClass = {"mcu", "microcontroller", kRequests, build_mcu};

std::span<const RequestSpec> mcu_requests() { return kRequests; }

}  // namespace qel::board
