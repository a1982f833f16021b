/*
 * mcu_driver.h - the requests of "/dev/qecMcu": what the library asks of the microcontroller's driver.
 *
 * The driver owns the framing on the line to the microcontroller and its retries; a request returns
 * when the microcontroller has answered. It returns 0, or a count where the request says so, and fails
 * with ENOTTY when it is unknown, EFAULT for a bad pointer, EINVAL for a value outside its range and
 * ETIMEDOUT when the microcontroller does not answer. All descriptors reach the same microcontroller.
 *
 * Records are flat with fixed widths but for the two with a pointer. The size in the request codes (4)
 * says nothing.
 */
#ifndef QEL_MCU_DRIVER_H
#define QEL_MCU_DRIVER_H

#include <stdint.h>

#define QEC_MCU_DEVICE "/dev/qecMcu"

/* ---- records ---- */

/* A block of the caller's memory. */
struct qec_mcu_block {
    uint32_t bytes;
    void *data;
};

/*
 * A block with a word in front that says which part of the microcontroller is meant. Requests that
 * fetch take `bytes` as the room in `data` and put the count there instead, 0 when nothing waits; they
 * never wait themselves. QEC_MCU_SPI_GET and QEC_MCU_RAW_READ are one request: `source` tells them apart.
 */
struct qec_mcu_transfer {
    uint32_t source;
    uint32_t bytes;
    void *data;
};
#define QEC_MCU_SOURCE_RAW 0u   /* bytes as the microcontroller sent them, outside any record */
#define QEC_MCU_SOURCE_RFID 3u  /* the card reader behind SPI; the mode of QEC_MCU_SPI_GET */
#define QEC_MCU_SOURCE_RADAR 5u /* struct qec_mcu_radar, as many as fit */

#define QEC_MCU_LCD_BYTES_MAX 1024u /* text, no terminator */
#define QEC_MCU_RFID_BYTES_MAX 256u
#define QEC_MCU_RAW_BYTES_MAX 1024u /* of one raw read or write */

struct qec_mcu_time {
    uint32_t year;    /* all four digits */
    uint32_t month;   /* 1 to 12 */
    uint32_t day;     /* 1 to 31 */
    uint32_t weekday; /* 0 = Sunday */
    uint32_t hour, minute, second;
};

struct qec_mcu_can {
    uint32_t id;
    uint32_t bytes; /* 0 to 8 */
    uint8_t data[8];
};

struct qec_mcu_power_switch {
    uint32_t output; /* 0 to 31 */
    uint32_t on;     /* 0 or 1 */
};
struct qec_mcu_power_state {
    uint32_t selector; /* in: 0 outputs, 1 supply, 2 battery */
    uint32_t words[4]; /* out. 0: a bit per output; 1: mV, mA; 2: mV, per cent, charging */
};

#define QEC_MCU_CARD_BYTES 32u /* a card's number as text with its terminator */
struct qec_mcu_card {
    char number[QEC_MCU_CARD_BYTES];
};

#define QEC_MCU_VERSION_BYTES 32u /* in: byte 0 = module, 0 the microcontroller; out: text */

struct qec_mcu_loop {
    uint32_t channel;    /* in: 0 to 3 */
    uint32_t current_ua; /* out: 4000 to 20000 */
};

struct qec_mcu_module {
    uint32_t module; /* in: 0 to 3 */
    uint32_t bytes;  /* out: in data */
    uint8_t data[56];
};

struct qec_mcu_radar {
    uint32_t lane;
    int32_t speed_mm_s; /* negative: going away */
    uint32_t distance_mm;
    uint32_t age_ms;
};

#define QEC_MCU_CAPS_BYTES 64u

/* ---- events: read() takes the oldest as one record and wants room for all of it (EINVAL) ---- */

/*
 * Each descriptor gets the events that happen while it is open; without one read() waits, or fails with
 * EAGAIN when non-blocking. A descriptor polls readable while an event, radar records or raw bytes wait.
 */
#define QEC_MCU_EVENT_KEY 1u   /* data: u8 key, u8 1 = pressed */
#define QEC_MCU_EVENT_CARD 2u  /* data: the card's number, text */
#define QEC_MCU_EVENT_POWER 3u /* data: u32 output, u32 1 = on */
#define QEC_MCU_EVENT_ALARM 4u /* data: u32 number */
struct qec_mcu_event {
    uint32_t type;
    uint32_t bytes; /* 0 to 120 */
    uint8_t data[120];
};

/* ---- requests: what is sent ---- */

#define QEC_MCU_WRITE_LCD 0xC0044D00u        /* struct qec_mcu_block, at most QEC_MCU_LCD_BYTES_MAX */
#define QEC_MCU_SET_TIME 0xC0044D01u         /* struct qec_mcu_time */
#define QEC_MCU_HEATER_TEST 0xC0044D02u      /* u32: 1 = heat, 0 = stop */
#define QEC_MCU_SHUTDOWN_HOST 0xC0044D09u    /* no record: cuts the host's power */
#define QEC_MCU_UART_CFG 0xC0044D0Au         /* struct qel_mcu_uart_config (serial_driver.h) */
#define QEC_MCU_UART_SEND 0xC0044D0Bu        /* struct qel_mcu_uart (serial_driver.h) */
#define QEC_MCU_CAN_SEND 0xC0044D0Du         /* struct qec_mcu_can */
#define QEC_MCU_RESET_MCU 0xC0044D11u        /* i32, -1 = everything */
#define QEC_MCU_CTRL_POWERSWITCH 0xC0044D16u /* struct qec_mcu_power_switch */
#define QEC_MCU_ACK_ADAPTER 0xC0044D17u      /* u32: number of the acknowledged adapter message */
#define QEC_MCU_RFID_SEND 0xC0044D1Au        /* struct qec_mcu_transfer; source: the reader, 0 or 1 */
#define QEC_MCU_PUT_CARD_NO 0xC0044D1Cu      /* struct qec_mcu_card */
#define QEC_MCU_CLEAR_CARD_NO 0xC0044D1Du    /* u32: reader */
#define QEC_MCU_RFID_CONTROL 0xC0044D1Eu     /* u32: bit mask of the readers that are on */
#define QEC_MCU_READ_CARD_NO 0xC0044D1Fu     /* struct qec_mcu_card, out: the last card read or put */
#define QEC_MCU_SET_CARD_STATUS 0xC0044D20u  /* u32: 0 unknown, 1 accepted, 2 refused */

/* ---- requests: what is fetched ---- */

#define QEC_MCU_FACEBOARD_STATE 0xC0044D03u /* u32: 1 = the front panel is there */
#define QEC_MCU_KEY_STATE 0xC0044D04u       /* u32: a bit per pressed key */
#define QEC_MCU_UART_GET 0xC0044D0Cu        /* struct qel_mcu_uart (serial_driver.h) */
#define QEC_MCU_CAN_GET 0xC0044D0Eu         /* struct qec_mcu_can, out; returns 1, or 0 when none waits */
#define QEC_MCU_REST_IP 0xC0044D0Fu         /* u32: 1 = the button for the default address was held */
#define QEC_MCU_GET_VER 0xC0044D12u         /* QEC_MCU_VERSION_BYTES */
#define QEC_MCU_GET_CRY 0xC0044D13u         /* 32 bytes: the encryption chip's number */
#define QEC_MCU_GET_4TO20MA 0xC0044D14u     /* struct qec_mcu_loop */
#define QEC_MCU_GET_POWRE_STATE 0xC0044D15u /* struct qec_mcu_power_state */
#define QEC_MCU_SPI_GET 0xC0044D05u         /* struct qec_mcu_transfer, source QEC_MCU_SOURCE_RFID */
#define QEC_MCU_LAST_KEY 0xC0044D19u        /* u8: the key pressed last, 0 = none */
#define QEC_MCU_MODULE_INFO_GET 0xC0044D22u /* struct qec_mcu_module: what it is, text */
#define QEC_MCU_MODULE_READ 0xC0044D23u     /* struct qec_mcu_module: its data */

/* ---- requests of functions of their own ---- */

#define QEC_MCU_RAW_READ 0xC0044D05u          /* struct qec_mcu_transfer */
#define QEC_MCU_RAW_WRITE 0xC0044D06u         /* struct qec_mcu_transfer */
#define QEC_MCU_UPGRADE_START 0xC0044D07u     /* u32: bytes of firmware that follow by raw writes */
#define QEC_MCU_UPGRADE_END 0xC0044D08u       /* u32 out: bytes taken */
#define QEC_MCU_GET_CAPS 0xC0044D10u          /* QEC_MCU_CAPS_BYTES */
#define QEC_MCU_GET_NETLINK_STATE 0xC0044D1Bu /* u32: 1 = link up */
/*
 * No record. Releases whoever reads events: until the last descriptor is closed all of them poll
 * readable, and read() fails with EPIPE.
 */
#define QEC_MCU_CLOSE_THREAD 0xC0044D21u
#define QEC_MCU_UPDATE_WIRELESS 0xC0044D24u /* struct qec_mcu_block: the firmware */

/* ---- requests of "/dev/qecMisc" that concern the microcontroller ---- */

#define QEL_MISC_GET_MCU_CAPS 0xC0044D34u  /* u32 out: the second word of the capabilities */
#define QEL_MISC_MCU_CAPS_READ 0xC0044D44u /* no record: they have been read */

#endif
