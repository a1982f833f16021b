// mcu_records.h - how the records of "/dev/qecMcu" (qel/mcu_driver.h) cross from a process to the board.
//
// Flat ones cross as they are. A block crosses as its bytes; a transfer as its source and its room, 8 bytes,
// with the data behind when it is sent. Back come the bytes alone.
#pragma once

#include <span>

#include "board/core/device.h"
#include "qel/mcu_driver.h"
#include "qel/serial_driver.h"

namespace qel::board {

constexpr size_t kMcuTransferBytes = 8;
constexpr size_t kMcuUartHeadBytes = 12;  // of qel_mcu_uart, before its bytes
constexpr uint32_t kMostFirmwareBytes = 1 << 22;

std::span<const RequestSpec> mcu_requests();
// Makes the device (mcu.cpp).
void build_mcu(Chip &chip, const Description &table);

}  // namespace qel::board
