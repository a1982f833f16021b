// uart.h - the driver-UART layer: its ten objects, taken up and down with the library.
#pragma once

namespace qel::comm {

void prepare_uart_objects();
void destroy_uart_objects();

}  // namespace qel::comm
