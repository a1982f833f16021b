/*
 * product.h - which board this is: hardware ids, product table, channel map, extended id.
 *
 * All facts are read once, while the library loads. Look-ups do not touch a device and block only
 * for another look-up. A look-up of the hardware id where the product module did not start is a
 * programming error: the calling thread logs an assertion and never returns.
 *
 * Chips are numbered from 0, the master. A process on a slave chip, or one of no known name, knows
 * its own chip only, as number 0.
 */
#ifndef QEL_PRODUCT_H
#define QEL_PRODUCT_H

#include "qel/frame.h"

QEL_BEGIN_DECLS

/* ---- hardware id ---- */

#define QEL_HWID_BYTES 456
#define QEL_PRODUCT_NAME_BYTES 32 /* with the terminator */
#define QEL_PRODUCT_INFO_BYTES 44
#define QEL_BASE_CFG_BYTES 32
#define QEL_PROPERTY_CHANNELS 1
#define QEL_PROPERTY_BOARD_TYPE 5
#define QEL_PROPERTY_CATEGORY 19
#define QEL_PROPERTY_LAST 29

/*
 * Numbered board property, 0 to 65535. Valid numbers are 1 to 29 without 2, 7, 10 and 17; -1 for
 * others (with a line on standard error) and for a chip that is not there (silently).
 */
QEL_API int QEL_productGetHwidInfoByChip(unsigned chip, int cmd);
QEL_API int QEL_productGetHwidInfo(int cmd); /* of chip 0 */
/*
 * Of the chip that owns a logical channel; -1 for an unknown channel. Board type and category come
 * from the channel map, which carries their low 8 bits.
 */
QEL_API int QEL_productGetHwidInfoByChn(unsigned logChn, int cmd);

QEL_API int QEL_productGetCfgNum(void);           /* number of hardware-id records = chips known */
QEL_API int QEL_productGetInfo(void *out);        /* 44 bytes, passed through from the driver */
QEL_API int QEL_productGetBaseCfg(void *out);     /* 32 bytes, passed through from the driver */
QEL_API int QEL_productGetName(const char **out); /* the library's; valid until it is unloaded */
QEL_API int QEL_productTypeGet(void *out);        /* 32 bytes of name to bytes 64 to 95 of `out` */

QEL_API int QEL_checkProductType(const char *name); /* 0 the product's name, -1 another; asserts non-null */
QEL_API int QEL_isModel(const char *prefix);        /* 1 the name begins so, 0 not, -1 for null */

QEL_API int QEL_getMasterSlaveMark(unsigned char *mark);
/* info[0] = chips in the unit (1 or more), info[1] = number of this chip (0 = master). */
QEL_API int QEL_getChipInfo(unsigned char info[2]);

/* ---- image sensors, as their driver tells ---- */

typedef struct {
    uint8_t bytes[64];
} SensorDrvEntry;

typedef struct {
    uint32_t count;
    uint32_t word;           /* the driver's */
    SensorDrvEntry *entries; /* count entries; NULL when there are none */
} SensorDrvInfo;

/* Reads the table again; not while another thread uses it. Opens and closes the device. */
QEL_API int QEL_getSensorDrvInfo(void);
QEL_API int QEL_getSensorInfo(void **out); /* *out = the library's SensorDrvInfo */

/* ---- extended hardware id ---- */

#define QEL_HWID_EX_BYTES 16

/* Byte `id` (0 to 15) of the extended id; -1 where the board has none. */
QEL_API int QEL_getHwidExInfo(unsigned id, unsigned char *value);
QEL_API int QEL_getFuncStatus(unsigned *status); /* byte 7 */
/* 0 when the boot environment names the hardware; reads the boot environment. */
QEL_API int QEL_hwidProbe(void);

/* ---- channel map ---- */

#define QEL_CHANNEL_INFO_BYTES 4

/*
 * info[0] physical chip, [1] board type of that chip, [2] channel number there, [3] category of that
 * chip. -1 for a channel that the map does not hold.
 */
QEL_API int QEL_chnMapGetInfo(unsigned logChn, unsigned char info[4]);
QEL_API int QEL_getMapInfoByLogChn(unsigned logChn, unsigned char info[4]); /* the same, and logs a miss */
QEL_API int QEL_chnMapGetTotalNum(void); /* channels of the unit; -1 before the map is there */
QEL_API int QEL_chnMapGetLocalNum(void); /* those on chip 0; -1 before the map is there */

/* ---- key-value text files ---- */

/*
 * Small text files of lines "key=value". A key is looked up as a part of a line, wherever it stands;
 * the first line that contains it counts. Text from "//" on is a comment. Lines are handled in pieces
 * of at most 127 characters, in the writer and the byte sum of at most 63.
 *
 * Every call opens the file, reads it through and closes it; it blocks only for the file. The byte
 * sum and the writer work one at a time within a process. Nothing keeps two processes from writing
 * the same file at once.
 *
 * `separator` is the character behind the key. `scanOut`, unless NULL, receives the value's first
 * word (nothing where there is none), `copyOut`, unless NULL, the value as it stands with its line
 * end; both with a terminator, at most QEL_KEY_VALUE_TEXT_BYTES in all, for which there must be room.
 */
#define QEL_KEY_VALUE_TEXT_BYTES 128 /* a key takes less than that */
#define QEL_MAX_GROUP_VALUES 256

/* 0; -1 key not found; -2 the file cannot be opened; -22 key too long. */
QEL_API int string_get_value(const char *path, const char *key, char separator, char *scanOut, char *copyOut);
/* First compares the byte sum of the file with that of its line "crcSum" (0 without one): -1 where
 * they differ, else as string_get_value. */
QEL_API int QEL_strGetValCheckSum(const char *path, const char *key, char separator, char *scanOut,
                                  char *copyOut);
/* Within the section that starts at "[cfgN]" and ends at the header of the next number. 0 or -1. */
QEL_API int QEL_strGetValIdx(const char *path, unsigned section, const char *key, char separator,
                             char *scanOut, char *copyOut);
/*
 * Within the block that starts at a line "tag:" and ends at "END"; lines with a comment do not count.
 * The decimal number behind the key and one more character; 0 where there is none. 0 or -1.
 */
QEL_API int QEL_getTagKeyVal(const char *path, const char *tag, const char *key, int *value);
/* The same for `count` numbers (at most QEL_MAX_GROUP_VALUES) with exactly one comma between. */
QEL_API int QEL_getGropKeyVal(const char *path, const char *tag, const char *key, int *values, int count);

typedef struct {
    char key[32]; /* with its terminator; not empty, no line end, not "crcSum" */
    int32_t value;
} KeyValueRecord;

/*
 * Puts the values into the file and a line "crcSum" with its byte sum behind; makes the file unless
 * it is there. Writes only when something changes, then the whole file, and returns when the device
 * has it. At most 128 lines; -1 for more, and the file stays as it was. A file that could not be
 * written to its end fails its sum.
 */
QEL_API int QEL_saveKeysValue(const char *path, const KeyValueRecord *records, unsigned count);

extern QEL_API int gIsMutexCreate; /* 1 once the mutex of the byte sum exists; for reading only */

/* ---- boot environment parameters ---- */

/*
 * The parameters that the boot loader keeps in the partition "hwid", one copy of them for all
 * processes. Every call blocks while another process or thread is in one of them. The first call of a
 * process reads the block from flash; a get touches no device afterwards and allocates nothing. Every
 * set or delete writes the whole block to flash and returns when the driver has taken it. What goes
 * wrong with the flash is told on standard output.
 */
#define QEL_BOOT_PARAMETER_BYTES 256

/*
 * Copies the value with its terminator to `value`, which holds `size` bytes; more than 255 count as
 * 255. -1 for a missing parameter and for a value that does not fit.
 */
QEL_API int getBootParameter(const char *name, char *value, int size);
QEL_API int get_armboot_para(const char *name, char *value, int size);
/*
 * Of the chip that owns a logical channel; asks that chip where it is another, without a time limit,
 * and copies `size` bytes then. The name has at most 31 characters for another chip.
 */
QEL_API int getBootParameterByChn(unsigned logChn, const char *name, char *value, int size);

/*
 * The name is not empty and holds no "=". -1 also where the block has no room: then the old value is
 * gone for all processes until the block is read from flash again. When flash could not be written
 * the processes see the new value although the call failed. Hardware addresses ("ethaddr", "ethaddr1",
 * "wifiaddr") of products of category 1 change only while "/var/tmp/ethaddr" exists.
 */
QEL_API int setBootParameter(const char *name, const char *value);
QEL_API int set_armboot_para(const char *name, const char *value);
/* 0 also where there is no such parameter. */
QEL_API int QEL_delBootParameter(const char *name);

/*
 * The pieces of it, for tools that look after the environment. ENV_init attaches and loads unless
 * that has happened, ENV_getPlatformInfo in any case; both, like ENV_readenv and ENV_writeenv, between
 * ENV_SemLock and ENV_SemUnlock. The latter two move a whole block between memory and a descriptor of
 * the partition and fail before the environment is attached. ENV_setVal is setBootParameter.
 */
QEL_API int ENV_fileInit(void);
QEL_API int ENV_init(void);
QEL_API int ENV_getPlatformInfo(void);
QEL_API int ENV_readenv(int fd, void *block);
QEL_API int ENV_writeenv(int fd, const void *block);
QEL_API int ENV_SemLock(void);
QEL_API int ENV_SemUnlock(void);
QEL_API int ENV_setVal(const char *name, const char *value);

/* ---- chain ---- */

QEL_API int QEL_productInit(void);
QEL_API int QEL_productDeinit(void);
QEL_API int QEL_hwidGet(void); /* asks the other chips; blocks until each has answered */
QEL_API int QEL_hwidExInit(void);
QEL_API int QEL_chnMapInit(void);
QEL_API int QEL_chnMapDeinit(void);
QEL_API int QEL_configInit(void);
QEL_API int QEL_miscInit(void);
QEL_API int QEL_miscDeinit(void);
QEL_API int ENV_preInit(void);

/* ---- forwarding: registered by QEL_adapterInit ---- */

QEL_API int PRODUCT_adapterInit(void);
QEL_API int PRODUCT_adapterDeInit(void);
QEL_API int CONFIG_adapterInit(void);
QEL_API int CONFIG_adapterDeInit(void);
QEL_API int ENV_adapterInit(void);
QEL_API int ENV_adapterDeInit(void);
QEL_API int QEL_configSlaveProc(AdapterMsg *msg);
/* Asks the configuration of another chip. Not available yet: -1 with a line in the log. */
QEL_API int QEL_configMasterIoctl(unsigned chip, unsigned cmd, void *data, unsigned bytes);
QEL_API int QEL_envSlaveProc(AdapterMsg *msg);

QEL_END_DECLS

#endif
