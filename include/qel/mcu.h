/*
 * mcu.h - the board's microcontroller: front panel, keys, power switches, card readers, radar. Part of
 * comm.h.
 *
 * Three ways lead to it: the device object (createMcuDevice), the driver's requests below it
 * (QEL_mcuCreate and what takes its handle), and a plain serial line with a receive thread
 * (QEL_comCommunicationWithMCU). Records and requests are the driver's: mcu_driver.h.
 *
 * Status is 0 or a negative value with a line in the log unless a call says otherwise. A request blocks
 * until the microcontroller has answered; retries and time-outs are the driver's. Any number of threads
 * may use one object or handle, but nobody after its last release or delete.
 */
#ifndef QEL_MCU_H
#define QEL_MCU_H

#include "qel/mcu_driver.h"
#include "qel/serial.h"

QEL_BEGIN_DECLS

/* ---- the device object ---- */

/* What `send` takes in `type`, and what the record then holds. */
#define QEL_MCU_SEND_LCD 0u     /* text of at most QEC_MCU_LCD_BYTES_MAX bytes, no terminator */
#define QEL_MCU_SEND_TIME 1u    /* struct qec_mcu_time, or its first `len` bytes; the rest is sent as 0 */
#define QEL_MCU_SEND_ADAPTER 2u /* u32: acknowledges an adapter message */
#define QEL_MCU_SEND_POWER 3u   /* struct qec_mcu_power_switch */
#define QEL_MCU_SEND_RFID 7u    /* `len` bytes for the card reader number `extra` */

typedef struct {
    uint32_t type;
    const void *pData; /* the caller's */
    uint32_t len;      /* bytes in pData; not looked at for QEL_MCU_SEND_ADAPTER and _POWER */
    uint32_t extra;
} McuSendData;

/* What `recvData` and `radarRecv` take in `type`, and how much room pData must have. */
#define QEL_MCU_RECV_POWER 0u /* struct qec_mcu_power_state, with the selector filled in */
#define QEL_MCU_RECV_RFID 1u  /* `len` bytes; afterwards `len` is how many came, 0 when nothing waits */
#define QEL_MCU_RECV_KEY 2u   /* 1 byte: the key pressed last, 0 = none; `len` becomes 1 */
#define QEL_MCU_RECV_RADAR 5u /* radarRecv only: struct qec_mcu_radar; `len` becomes 1, 0 without one */

typedef struct {
    uint32_t type;
    void *pData; /* the caller's */
    uint32_t len;
} McuRecvData;

#define QEL_MCU_CAPS_WORDS 32
typedef struct {
    uint32_t words[QEL_MCU_CAPS_WORDS]; /* word 0 is 6; word 1 the board's driver knows; the others are 0 */
} McuCaps;

#define QEL_MCU_VERSION_SELECTOR 32 /* where getVersion finds the module it is asked about */
#define QEL_MCU_VERSION_BUFFER_BYTES 33

/*
 * Two variants behind one record. On boards of category 3 the microcontroller is a card reader on a USB
 * serial adapter: there `send` writes the bytes of pData as they are, whatever the type, `recvData`
 * reads what has come, at most 4096 bytes and at most `len`, waiting for it without limit, and all
 * other operations but addref and release return 0 and do nothing. Everywhere else it is the driver's.
 * No two objects share anything but the driver's descriptor.
 */
typedef struct MCU_Device MCU_Device;
struct MCU_Device {
    void *priv;
    int (*addref)(MCU_Device *thiz);
    int (*release)(MCU_Device *thiz); /* the last one closes and frees; 0 also when the count is below 1 */
    int (*getcaps)(MCU_Device *thiz, McuCaps *caps);
    int (*send)(MCU_Device *thiz, const McuSendData *data);
    /* Waits without limit for an event; see QEL_McuGetEvent. */
    int (*recv)(MCU_Device *thiz, struct qec_mcu_event *event);
    int (*getState)(MCU_Device *thiz, int *state); /* fills *state with 1: present */
    int (*recvData)(MCU_Device *thiz, McuRecvData *data);
    int (*reset)(MCU_Device *thiz); /* restarts all of the microcontroller */
    /* QEL_MCU_VERSION_BUFFER_BYTES; byte 32 in: the module, 0 = the microcontroller; text out. */
    int (*getVersion)(MCU_Device *thiz, char *version);
    int (*radarRecv)(MCU_Device *thiz, McuRecvData *data);
};

/*
 * The caller owns the one reference; *out is NULL after a failure. `id` is not looked at: there is one
 * microcontroller. The USB variant blocks for one second, while the card reader starts.
 */
QEL_API int createMcuDevice(const uint32_t *id, MCU_Device **out);

/* ---- the driver's requests ---- */

typedef struct McuObject *McuHandle; /* the library's; one per process */

/* Opens the device for the first user, counts the others. Delete closes it after the last one; -1 when
 * nobody is left. */
QEL_API int QEL_mcuCreate(McuHandle *hMcu);
QEL_API int QEL_mcuDelete(McuHandle hMcu);

/*
 * Commands of QEL_mcuSendInfo, 0 to 17 without 9 and 10, and the record each wants. Every command wants
 * a record that is not NULL, even the one that does not look at it. The driver's result: 0 or more, or
 * -errno after a failure.
 */
enum {
    QEL_MCU_CMD_WRITE_LCD = 0,        /* struct qec_mcu_block */
    QEL_MCU_CMD_SET_TIME = 1,         /* struct qec_mcu_time */
    QEL_MCU_CMD_SHUTDOWN_HOST = 2,    /* not looked at */
    QEL_MCU_CMD_UART_CFG = 3,         /* struct qel_mcu_uart_config */
    QEL_MCU_CMD_UART_SEND = 4,        /* struct qel_mcu_uart */
    QEL_MCU_CMD_CAN_SEND = 5,         /* struct qec_mcu_can */
    QEL_MCU_CMD_RESET_MCU = 6,        /* i32, -1 = everything */
    QEL_MCU_CMD_CTRL_POWERSWITCH = 7, /* struct qec_mcu_power_switch */
    QEL_MCU_CMD_ACK_ADAPTER = 8,      /* u32 */
    QEL_MCU_CMD_HEATER_TEST = 11,     /* u32: 1 = heat, 0 = stop */
    QEL_MCU_CMD_RFID_SEND = 12,       /* struct qec_mcu_transfer */
    QEL_MCU_CMD_RFID_CONTROL = 13,    /* u32 */
    QEL_MCU_CMD_PUT_CARD_NO = 14,     /* struct qec_mcu_card */
    QEL_MCU_CMD_READ_CARD_NO = 15,    /* struct qec_mcu_card, filled in */
    QEL_MCU_CMD_SET_CARD_STATUS = 16, /* u32 */
    QEL_MCU_CMD_CLEAR_CARD_NO = 17    /* u32; fails without a line in the log */
};
QEL_API int QEL_mcuSendInfo(McuHandle hMcu, uint32_t command, void *record);

/* Commands of QEL_McuGetInfo. Result as above, but -1 after a failure of 7 to 9, 11 and 12. */
enum {
    QEL_MCU_CMD_FACEBOARD_STATE = 0,  /* u32 */
    QEL_MCU_CMD_KEY_STATE = 1,        /* u32: a bit per pressed key */
    QEL_MCU_CMD_UART_GET = 2,         /* struct qel_mcu_uart */
    QEL_MCU_CMD_CAN_GET = 3,          /* struct qec_mcu_can */
    QEL_MCU_CMD_REST_IP = 4,          /* u32 */
    QEL_MCU_CMD_GET_VER = 5,          /* QEC_MCU_VERSION_BYTES */
    QEL_MCU_CMD_GET_CRY = 6,          /* 32 bytes */
    QEL_MCU_CMD_GET_4TO20MA = 7,      /* struct qec_mcu_loop */
    QEL_MCU_CMD_GET_POWRE_STATE = 8,  /* struct qec_mcu_power_state */
    QEL_MCU_CMD_SPI_GET = 9,          /* struct qec_mcu_transfer */
    QEL_MCU_CMD_LAST_KEY = 10,        /* u8 */
    QEL_MCU_CMD_MODULE_INFO_GET = 11, /* struct qec_mcu_module */
    QEL_MCU_CMD_MODULE_READ = 12      /* struct qec_mcu_module */
};
QEL_API int QEL_McuGetInfo(McuHandle hMcu, uint32_t command, void *record);

/* Result as of QEL_mcuSendInfo. */
QEL_API int QEL_McuRead(McuHandle hMcu, struct qec_mcu_transfer *record);
QEL_API int QEL_McuWrite(McuHandle hMcu, struct qec_mcu_transfer *record);
QEL_API int QEL_McuUpgradeStart(McuHandle hMcu, uint32_t *bytes); /* firmware bytes that will follow */
QEL_API int QEL_McuUpgradeEnd(McuHandle hMcu, uint32_t *bytes);   /* out: those that arrived */
QEL_API int QEL_upgradeWirelessMcu(McuHandle hMcu, struct qec_mcu_block *firmware);
QEL_API int QEL_mcuGetNetLinkState(McuHandle hMcu, uint32_t *state); /* 1 = link up */
QEL_API int QEL_McuGetGaps(McuHandle hMcu, void *caps);              /* fills QEC_MCU_CAPS_BYTES */

/*
 * Waits without limit for an event and fetches it; meant for a thread of its own. Of several threads
 * each event goes to one. Fails once QEL_McuCloseThr has stopped the driver's reader, which stays so
 * until the last handle is deleted.
 */
QEL_API int QEL_McuGetEvent(McuHandle hMcu, struct qec_mcu_event *event);
QEL_API int QEL_McuCloseThr(McuHandle hMcu);

/*
 * Waits at most 4 s until the microcontroller has something (0 and the record as it was when it has
 * not), fetches it as QEL_McuRead does, and then rests for one second, so that nobody polls more often.
 */
QEL_API int QEL_McuGetData(McuHandle hMcu, struct qec_mcu_transfer *record);

/* Gives the microcontroller the time where the product keeps its clock there; elsewhere 0 at once. */
QEL_API int QEL_syncTimeToMcu(const struct qec_mcu_time *time);

/*
 * Sets "/dev/ttyS<tty>", the microcontroller's line, as QEL_comSetAttribute sets a port's, in about
 * 30 ms, and closes it again; the settings stay. -1 when it cannot be opened or set.
 */
QEL_API int QEL_mcuSetAttribute(McuHandle hMcu, uint32_t tty, const ComAttribute *attribute);

/* ---- a plain serial line to a microcontroller ---- */

/* The link record; zeroed by the caller before the first use, then the library's until shut-down. */
typedef struct {
    int32_t port;     /* logical number */
    CommPort *handle; /* for reads by the receive function and for writes */
    void *mutex;      /* an OSA_MutexHandle for the caller's use around writes; NULL without memory */
    void *thread;
} McuCommLink;

/*
 * Runs on the thread "qel_commRecvData_thr" from before the command goes out, at the lowest priority,
 * and reads the port. Returns once OSA_thrStopping() answers 1, that is within the 500 ms of a read.
 * The mutex may not be there yet when it starts.
 */
typedef void *(*McuCommReceive)(void *link);

/*
 * Finds the line in the port map (boards of category 2 only), opens it with 9600 baud, 8 data bits, no
 * parity, one stop bit, starts the receive thread and, 200 ms later, writes `bytes` of `command`; what
 * the line has not taken then is discarded. After a failure what was made stays: shut the link down.
 */
QEL_API int QEL_comCommunicationWithMCU(McuCommLink *link, McuCommReceive receive, const void *command,
                                        uint32_t bytes);
/* Ends the thread, blocking until the receive function has returned, and closes the port. */
QEL_API int QEL_comShutdownCommunicationWithMCU(McuCommLink *link);

/* The steps of it, without its line in the log for the whole; handle stays NULL where the port did not open.
 */
QEL_API int COM_SearchCommConnectMCU(McuCommLink *link);
QEL_API int COM_OpenConnectToMCU(McuCommLink *link);
QEL_API int COM_CreateThreadAndMutex(McuCommLink *link, McuCommReceive receive);
QEL_API int COM_SendCommand(McuCommLink *link, const void *command, uint32_t bytes);

/* ---- chain ---- */

QEL_API int QEL_mcuInit(void);
QEL_API int QEL_mcuDeinit(void); /* -1 while an object or a handle is in use */

QEL_END_DECLS

#endif
