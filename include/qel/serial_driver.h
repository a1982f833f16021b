/*
 * serial_driver.h - what serial ports ask of drivers where node names and records are this library's
 * choice: the lines carried inside the microcontroller link, and the ports of the secondary controller
 * and of the SPI bridge.
 *
 * Records are flat and of one width everywhere.
 */
#ifndef QEL_SERIAL_DRIVER_H
#define QEL_SERIAL_DRIVER_H

#include <stdint.h>

/* ---- lines inside the microcontroller link, "/dev/qecMcu" ---- */

/* The microcontroller's requests for them, send commands 3 and 4 and get command 2. */
#define QEL_MCU_UART_CONFIG_REQUEST 0xC0044D0Au /* argument: qel_mcu_uart_config */
#define QEL_MCU_UART_SEND_REQUEST 0xC0044D0Bu   /* argument: qel_mcu_uart */
#define QEL_MCU_UART_GET_REQUEST 0xC0044D0Cu    /* argument: qel_mcu_uart */

/* Channels are numbered as the usage codes of the port map. */
#define QEL_MCU_CHANNEL_GPS 4u
#define QEL_MCU_CHANNEL_PTZ 24u
#define QEL_MCU_CHANNEL_PTZ_LOG 28u
#define QEL_MCU_CHANNEL_PTZ_FUNCTION 31u

#define QEL_MCU_UART_BYTES 500u

/*
 * Send: `length` bytes for the channel, at most QEL_MCU_UART_BYTES; on return `length` is what the
 * driver took, which may be less.
 * Get: at most `length` bytes; waits up to timeout_ms for the first (0 = not at all); on return
 * `length` is how many came, 0 when the time is over. Both return 0, or fail for a channel that the
 * microcontroller does not carry (ENXIO).
 */
struct qel_mcu_uart {
    uint32_t channel;
    uint32_t timeout_ms; /* get only */
    uint32_t length;
    uint8_t bytes[QEL_MCU_UART_BYTES];
};

/* Speed and format of the line at the microcontroller's far side. */
struct qel_mcu_uart_config {
    uint32_t channel;
    uint32_t baud;
    uint8_t data_bits;    /* 5 to 8 */
    uint8_t parity;       /* 0 none, 1 odd, 2 even */
    uint8_t stop_bits;    /* 0 one, 2 two */
    uint8_t flow_control; /* passed through */
};

/* ---- ports of the secondary controller and of the SPI bridge ---- */

/* ttys, with the logical port number: everything that termios offers works on them. */
#define QEL_SCM_DEVICE_PREFIX "/dev/ttySCM"
#define QEL_SPI_PTZ_DEVICE_PREFIX "/dev/ttySPI"

#endif
