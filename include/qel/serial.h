/*
 * serial.h - serial ports: the port map, port objects and the two device layers below them. Part of
 * comm.h.
 *
 * Every serial line of the board has a logical port number and is used through a CommPort, whatever
 * carries it. The map of the ports comes from the board's driver while the library loads and never
 * changes afterwards. Status is 0 or -1 with a line in the log unless a call says otherwise.
 *
 * | call                     | blocks                                                                |
 * |--------------------------|-----------------------------------------------------------------------|
 * | port map, caps           | for the driver, which answers at once                                 |
 * | open                     | for another open, and for a frame being sent on an RS-485 line        |
 * | setAttribute             | 30 ms, for the line to settle, and for a frame being sent             |
 * | read of a port           | at most 500 ms; of the device layers: as long as the request says     |
 * | write of a port          | at most 2 s; of the device layers: as long as the request says        |
 * | create, close, release   | for another thread's open or setAttribute of the port; not for a read |
 * |                          | or write under way, which ends by itself                              |
 *
 * A line that stops with bytes in its buffer (QEL_COM_SUSPEND_OUTPUT, a far end that takes no more)
 * may hold a write longer than that. After a close, and in a thread that is being stopped, a wait for a
 * tty or for bytes of a UART ends within 100 ms, with -1.
 */
#ifndef QEL_SERIAL_H
#define QEL_SERIAL_H

#include "qel/frame.h"

QEL_BEGIN_DECLS

/* ---- port map ---- */

#define QEL_COM_MAX_PORTS 10u
#define QEL_COM_END_OF_MAP 10u /* port number of the item that ends the map */
#define QEL_COM_NULL_PORT 255u /* a port that is not there: all its operations succeed and do nothing */
#define QEL_COM_NO_LINE 65535u

/* ComMapItem::kind; any other number is a plain tty. */
#define QEL_COM_KIND_SCM 1u
#define QEL_COM_KIND_SPI_PTZ 2u
#define QEL_COM_KIND_UART 3u
#define QEL_COM_KIND_MCU 4u
#define QEL_COM_KIND_MCU_SECOND 5u
#define QEL_COM_KIND_VIRTUAL 7u
#define QEL_COM_KIND_USB 8u

/* One port as the board's driver describes it. */
typedef struct {
    uint8_t reserved0[16];
    uint32_t directionLine; /* RS-485 direction control; QEL_COM_NO_LINE: RS-232, full duplex */
    uint32_t usage;         /* 0 to 32 */
    uint32_t port;          /* logical number, 0 to 9 */
    uint32_t kind;          /* QEL_COM_KIND_... */
    uint32_t statusLine;    /* RS-485 status; QEL_COM_NO_LINE: cannot be switched over */
    uint8_t reserved36[5];
    uint8_t countedIfRs485; /* 1: there only while the hardware says that it is RS-485 */
    uint8_t reserved42[6];
    uint8_t commType;
    uint8_t ttyNumber; /* used instead of the computed one where ttyGiven is 1 */
    uint8_t ttyGiven;
    uint8_t reserved51[9];
} ComMapItem;

typedef struct {
    ComMapItem items[QEL_COM_MAX_PORTS];
    uint8_t reserved[92];
} ComMap;

/* Asks the driver for the map, 692 bytes; -1 without a line in the log, and *out as the driver left it. */
QEL_API int QEL_comGetMapInfo(ComMap *out);
/* Ports that are there now, 0 to 10; asks the driver about those that come and go. Where it does not
 * answer, those before. */
QEL_API int getCommPortCount(void);
/* ComMapItem::commType of a port that is there now; -1 where it is not. */
QEL_API int COMM_getCommType(unsigned port, uint8_t *type);

typedef struct {
    uint32_t ttyNumber;
    uint32_t ttyGiven;
    uint8_t reserved[48];
} ComTtyInfo;

typedef struct {
    uint32_t logicType; /* what the port is for, from its usage code */
    uint32_t port;
    uint8_t reserved[48];
} CommMapInfo;

/* One record per item of the map, in its order; room for QEL_COM_MAX_PORTS. Records behind the last
 * item stay as they were. */
QEL_API int getComTtyInfo(ComTtyInfo *list);
/* The same; -1 at the first item with a usage code that has no type. */
QEL_API int getCommMapInfoList(CommMapInfo *list);

/* ---- settings ---- */

#define QEL_COM_PARITY_NONE 0
#define QEL_COM_PARITY_ODD 1
#define QEL_COM_PARITY_EVEN 2
#define QEL_COM_ONE_STOP_BIT 0 /* not 1, which is no code */
#define QEL_COM_TWO_STOP_BITS 2

typedef struct {
    uint32_t baud;       /* 1200, 2400, 4800, 9600, 19200, 38400, 57600 or 115200 */
    uint8_t dataBits;    /* 5 to 8 */
    uint8_t parity;      /* QEL_COM_PARITY_... */
    uint8_t stopBits;    /* QEL_COM_ONE_STOP_BIT or _TWO_STOP_BITS */
    uint8_t flowControl; /* drivers get it as it is; ttys have none, and tell 0 */
} ComAttribute;

#define QEL_COM_LINE_RS232 0
#define QEL_COM_LINE_RS485 1
#define QEL_COM_LINE_SWITCHABLE 4

typedef struct {
    uint32_t fixedRs485; /* 1: the line is RS-485 for good */
    uint32_t fixedRs232; /* the same; both 0: switchable, or the board does not tell */
    uint8_t lineType;    /* QEL_COM_LINE_... */
} ComCaps;

/* One per call of purge; any other flag, and several at once, are refused. */
#define QEL_COM_SUSPEND_OUTPUT 1u
#define QEL_COM_SEND_STOP 2u /* asks the far end to stop */
#define QEL_COM_DISCARD_OUTPUT 4u
#define QEL_COM_DISCARD_INPUT 8u

/* ---- port objects ---- */

/*
 * A serial port. Objects of the same port share its line: it opens with the first open and closes with
 * the last close, or when the last object goes; of objects made while it was closed the first that goes
 * is the last. Any number of threads may use an object, but nobody after its last release.
 */
typedef struct CommPort CommPort;
struct CommPort {
    void *priv;
    int (*addref)(CommPort *thiz); /* one more release will be needed */
    /* The last one closes what this object opened and frees it. */
    int (*release)(CommPort *thiz);
    int (*open)(CommPort *thiz);
    /* -1 where the object has nothing open. */
    int (*close)(CommPort *thiz);
    int (*getcaps)(CommPort *thiz, ComCaps *caps); /* the null port leaves *caps as it was */
    int (*setAttribute)(CommPort *thiz, const ComAttribute *attribute);
    /* Bytes read, 0 when none came in 500 ms, -1 on failure. */
    int (*read)(CommPort *thiz, void *buffer, uint32_t bytes);
    /* Bytes written within 2 s, -1 on failure. On RS-485 it returns when the line is free again. */
    int (*write)(CommPort *thiz, const void *buffer, uint32_t bytes);
    int (*purge)(CommPort *thiz, uint32_t flag);
    void *empty;
    /* 0 RS-232, else RS-485. NULL on ports other than plain ttys and USB adapters. */
    int (*setComType)(CommPort *thiz, int rs485);
};

typedef struct {
    uint32_t port; /* logical number, or QEL_COM_NULL_PORT */
} CommPortDesc;

/* The caller owns the one reference; *out is NULL after a failure. Opens nothing. */
QEL_API int createCommPort(const CommPortDesc *desc, CommPort **out);

/* ---- device layers ---- */

/*
 * A request to read or write. The buffer is the caller's until the call returns.
 * timeoutMs: > 0, 0 = no wait, -1 = without limit; others are refused.
 */
typedef struct {
    void *buffer;
    uint32_t length; /* out: bytes moved */
    int32_t timeoutMs;
} ComIoParam;

typedef struct {
    uint32_t port;       /* 0 to 9 */
    uint32_t rs485;      /* 1: one frame at a time, reads wait for it */
    uint32_t halfDuplex; /* 1: the direction line is driven around every write */
} ComObjDesc;

/* One of ten objects of each layer, the library's; shared by all who create the same port. */
typedef struct ComObject *ComHandle;
typedef struct UartObject *UartHandle;

/*
 * Beware: for a port that is open already the existing object is handed out, its count raised, and
 * the result is -1. Look at the handle, which is NULL after a real failure. A port that is not open
 * starts anew with a count of 1, whoever else has created it.
 */
QEL_API int QEL_comCreate(ComHandle *hCom, const ComObjDesc *desc);
/* Gives up one reference; the last one closes the line. -1 where there is none. */
QEL_API int QEL_comDelete(ComHandle hCom);
/*
 * Opens the port's tty and sets it raw; 5 data bits until QEL_comSetAttribute says otherwise. An open
 * port counts the opens and stays as it is. Ports 0 and 1 are opened non-blocking, higher ones
 * blocking, but for products with a limit of their own. Port 0 is taken from the kernel's console.
 */
QEL_API int QEL_comOpen(ComHandle hCom);
/* The same for the USB adapter, at 115200 baud. */
QEL_API int QEL_comOpen_usb(ComHandle hCom);
/* Undoes one open; the last one closes the line, whose settings stay. Port 0 goes back to the console, with
 * the settings it had. */
QEL_API int QEL_comClose(ComHandle hCom);
/* Discards what is in the line's buffers. Values it does not know: a warning, and see ComAttribute:
 * the old speed and parity, 5 data bits, one stop bit. */
QEL_API int QEL_comSetAttribute(ComHandle hCom, const ComAttribute *attribute);
/* Values that ComAttribute cannot tell are 0, with a warning. */
QEL_API int QEL_comGetAttribute(ComHandle hCom, ComAttribute *attribute);
/*
 * Reads what is there, at most `length`; -2 when nothing came in time. -1 also when nothing is there
 * and no wait was wanted (on ports opened blocking such a read does wait), and on a hang-up. One
 * thread reads at a time; others wait for it as long as their own request says.
 */
QEL_API int QEL_comRead(ComHandle hCom, ComIoParam *request);
/*
 * RS-232: writes until all is out or the time is over (0, `length` tells how much went out); -2 when
 * the line took nothing in time. RS-485: one frame; direction line on, 1 ms, write, line empty,
 * direction line off. -2 when the line did not empty in time: then it is left in transmit until the
 * next write.
 */
QEL_API int QEL_comWrite(ComHandle hCom, ComIoParam *request);
/* Flag: one QEL_COM_...; does not wait. */
QEL_API int QEL_comPurge(ComHandle hCom, uint32_t flag);
/* Switches a port over; rs232 = 1: RS-232, 0: RS-485. */
QEL_API int QEL_setComType(ComHandle hCom, uint32_t port, uint32_t rs232);

/* An object as it is at this moment. */
typedef struct {
    int32_t references;
    uint32_t port;
    int32_t fd; /* -1: closed */
    uint32_t rs485;
    uint32_t halfDuplex;
    uint32_t raw;   /* it was set raw, and its former settings are kept */
    uint32_t opens; /* closes that it takes to close it */
} ComPriv;

QEL_API int QEL_comGetPriv(ComHandle hCom, ComPriv *out);

/* Sets the open line of a port raw, and keeps the settings it had. */
QEL_API int QEL_TtyRaw(int port);
/* Puts the settings back and closes the line, however often it was opened; the console has port 0 again. */
QEL_API int QEL_TtyExit(int port);
/* Tells the kernel's console whose line it is: status 0 the library's (descriptor fd), 1 its own. */
QEL_API int QEL_shellTty(int port, unsigned status, int fd);

/* Speed (as ComAttribute::baud) of an open tty; format: data bits 5 to 8, stop bits 1 or 2, parity 'n' or
 * 's' none, 'o' odd, 'e' even, in either case. What is in the buffers is discarded. Other values: -1 with a
 * warning; -1 without a line where the descriptor takes no settings. */
QEL_API int QEL_setTtyUsbSpeed(int fd, int baud);
QEL_API int QEL_setTtyUsbParity(int fd, int dataBits, int stopBits, int parity);

/*
 * UARTs of the configuration driver, "/dev/qecUart%d". As the calls above, but a time-out of -1 is one
 * of 50 ms, and settings are the driver's to understand.
 */
QEL_API int QEL_uartCreate(UartHandle *hUart, const ComObjDesc *desc);
QEL_API int QEL_uartDelete(UartHandle hUart);
QEL_API int QEL_uartOpen(UartHandle hUart);
QEL_API int QEL_uartClose(UartHandle hUart);
QEL_API int QEL_uartSetAttribute(UartHandle hUart, const ComAttribute *attribute);
QEL_API int QEL_uartGetAttribute(UartHandle hUart, ComAttribute *attribute);
QEL_API int QEL_uartRead(UartHandle hUart, ComIoParam *request);
QEL_API int QEL_uartWrite(UartHandle hUart, ComIoParam *request);
QEL_API int QEL_uartPurge(UartHandle hUart, uint32_t flag);

/*
 * Ports of the secondary controller, "/dev/ttySCM%u". As the tty layer, without RS-485; each create makes
 * an object of its own, which nobody uses after its delete.
 */
typedef struct ScmLine *ScmHandle;

QEL_API int QEL_scmCreate(ScmHandle *hScm, uint32_t port);
QEL_API int QEL_scmDelete(ScmHandle hScm);
QEL_API int QEL_scmOpen(ScmHandle hScm);
QEL_API int QEL_scmClose(ScmHandle hScm);
QEL_API int QEL_scmSetAttribute(ScmHandle hScm, const ComAttribute *attribute);
QEL_API int QEL_scmRead(ScmHandle hScm, ComIoParam *request);
QEL_API int QEL_scmWrite(ScmHandle hScm, ComIoParam *request);
QEL_API int QEL_scmPurge(ScmHandle hScm, uint32_t flag);

/* ---- line drivers: one request to the board's driver each, whatever the port's objects are doing ---- */

QEL_API int QEL_485SetCtl(uint32_t port, uint32_t state);      /* 1 transmit, 0 receive */
QEL_API int QEL_ChangeCtl(uint32_t port, uint32_t rs232);      /* 1 RS-232, 0 RS-485 */
QEL_API int QEL_Get485Status(uint32_t port, uint32_t *status); /* not 0: RS-485; -1 without a line */

/* ---- RS-485 line behind an SPI bridge ---- */

/* Nothing opens the bridge, so each of these fails at the system call. */
QEL_API int rs485_open(void);
QEL_API int rs485_close(void);
QEL_API int rs485_destroy(void);
QEL_API int rs485_read(void *buffer, int bytes);
QEL_API int rs485_write(const void *buffer, int bytes);
QEL_API int rs485_setattribute(const ComAttribute *attribute);

QEL_END_DECLS

#endif
