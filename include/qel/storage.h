/*
 * storage.h - persistent storage: flash, SRAM files, reserved memory, flag files.
 *
 * The storage modules' chain and forwarding pairs; their operations come with the modules.
 */
#ifndef QEL_STORAGE_H
#define QEL_STORAGE_H

#include "qel/eeprom.h"
#include "qel/frame.h"
#include "qel/rawflash.h"

QEL_BEGIN_DECLS

/* ---- chain ---- */

QEL_API int QEL_sramfileInit(void);
QEL_API int QEL_sramfileDeInit(void);
QEL_API int QEL_flashIinit(void); /* the doubled i is its name */
QEL_API int QEL_flashDeinit(void);
QEL_API int QEL_MemInit(void);
QEL_API int QEL_MemDeinit(void);
QEL_API int QEL_flagfileInit(void);
QEL_API int QEL_flagfileDeInit(void);

/* ---- flash: partitions and geometry ---- */

/*
 * The table and the geometry are read once, while the library loads; look-ups do not touch a device.
 * Offsets of partitions count from the start of the flash, offsets handed to a descriptor or to the
 * good-block calls from the start of the partition.
 */
#define QEL_PARTITION_NAME_BYTES 16 /* with the terminator */
#define QEL_MAX_PARTITIONS 32u
#define QEL_NO_BACKUP UINT64_MAX /* backup offset of a partition without a backup copy */

enum { QEL_FLASH_NOR = 3, QEL_FLASH_NAND = 4, QEL_FLASH_EMMC = 5, QEL_FLASH_MLC_NAND = 8 };

typedef struct {
    uint32_t type;           /* QEL_FLASH_... */
    uint32_t partitionBytes; /* of the first partition */
    uint32_t pageBytes;      /* unit of reads and writes; NOR: the erase size */
    uint32_t eraseBytes;
} FlashInfo;

typedef struct {
    char name[QEL_PARTITION_NAME_BYTES];
    uint64_t size;
    uint64_t offset;
    uint64_t backupOffset; /* QEL_NO_BACKUP; 0xFFFFFFFF where the driver knows 32 bits only */
} FlashPartition;

typedef struct {
    uint32_t count; /* 0 to QEL_MAX_PARTITIONS; 0 before the table is there */
    FlashPartition *entries;
} FlashPartitionTable;

typedef struct {
    uint32_t count;
    struct {
        char name[QEL_PARTITION_NAME_BYTES];
        uint32_t size; /* the low halves */
        uint32_t offset;
        uint32_t backupOffset;
    } entries[QEL_MAX_PARTITIONS];
} FlashPartitionList;

QEL_API int Flash_getPartionInfo(void); /* chain: reads the table unless it stands already */
QEL_API int QEL_getPartionInfo(FlashPartitionList *out);
/* *out = the library's own table; its entries are valid until QEL_flashDeinit. */
QEL_API int QEL_getPartionInfo64(FlashPartitionTable **out);
QEL_API int QEL_getFlashInfo(FlashInfo *out); /* -1 where the geometry could not be read */
QEL_API int QEL_getFpgaStartAddress(uint32_t *out);
/*
 * Opens a partition for reading and writing: *fd is the caller's to close, *index its place in the
 * table. -1 for an unknown name and where the device cannot be opened; *fd is -1 then.
 */
QEL_API int QEL_flashOpenPartion(const char *name, int *fd, int *index);

/*
 * Good blocks of raw NAND. Flash_createPartionTab asks the driver once for each block of partition
 * `index` (through `fd`, open on it) unless the table stands already; on other media, and for the
 * partition "fpga", it has nothing to do. Flash_LookupTab maps a multiple of the erase size to the
 * place of that good block, in constant time; on other media an offset maps to itself. Index -1 is
 * the partition last opened by name. -1 beyond the last good block.
 */
QEL_API int Flash_createPartionTab(int fd, int index);
QEL_API int Flash_LookupTab(uint64_t offset, uint64_t *out, int index);

/* Program/erase status of the flash, asked of its service; blocks for 2 s at most. -1 without one. */
QEL_API int QEL_getFlashPEStatus(uint32_t *status);

/* ---- flash: partition description of an upgrade image ---- */

#define QEL_DESCRIPTION_BYTES 0x20000u /* room for the text, with a terminator */
#define QEL_MAX_DESCRIPTIONS 32u

typedef struct {
    char name[QEL_PARTITION_NAME_BYTES];
    uint32_t cs; /* chip select */
    uint64_t offset;
    uint64_t size;
    uint32_t maskFlags;    /* 1024 "R", 0 "RW" */
    uint32_t fsFlags;      /* 0 none, 1 "R", 3 "RW" */
    uint32_t fsType;       /* 0 none, 1 cramfs, 2 squashfs, 3 ubi, 4 jffs2, 5 ext4 */
    uint64_t backupOffset; /* QEL_NO_BACKUP in version 1 */
} PartitionDescription;

/*
 * Finds the description file in a cramfs image of `length` bytes and copies it to `buffer`
 * (QEL_DESCRIPTION_BYTES, zero-filled behind the text). *version: 1 to 3.
 */
QEL_API int Flash_getPartFile(const void *image, uint32_t length, char *buffer, uint32_t *version);
/* The next line of *text with its end cut off, and *text moved behind it; NULL at the end. */
QEL_API char *PART_getLine(char **text);
/* Parse in place: `text` and `line` are changed. *count: in, room in `out`; out, records (32 at most). */
QEL_API int PART_parsePartinfo(char *text, uint32_t version, PartitionDescription *out, uint32_t *count);
QEL_API int PART_parsePartinfoLine(char *line, uint32_t version, PartitionDescription *out);
/*
 * Takes over the description in an upgrade image, and writes the image to the copy of the partition
 * "partition" that the device does not run from, unless the boot loader switches between copies.
 * Blocks as long as that write does.
 */
QEL_API int Flash_flushPart(RawFlash *flash, const void *image, uint32_t length);

/* ---- upgrade and backup state ---- */

/*
 * Flags in the partition "updateflag", at (block, page, byte). On a device without that partition
 * the operations on it return 0 and leave their out-parameters alone. A page of raw flash is written
 * once per erase of its block: a second, different write fails. All take the flash lock of the
 * device and may wait for another process.
 */
extern QEL_API uint8_t gBackupState; /* cached state of block 0; 0xFF idle. For reading only */

QEL_API int QEL_flashReadBackUpFlag(uint32_t block, uint32_t page, uint32_t byte, uint8_t *out);
QEL_API int QEL_flashWriteBackUpFlag(uint32_t block, uint32_t page, uint32_t byte, uint8_t value);
/* The same on the eMMC of chip 1, asked of the master; blocks until the chip has answered. */
QEL_API int QEL_slvEmmcWriteBackUpFlag(uint32_t block, uint32_t page, uint32_t byte, uint8_t value);
/* The start of a page, at most all of it; the rest of the page stays erased. */
QEL_API int Flash_flashWriteFlagPage(uint32_t block, uint32_t page, const void *buffer, uint32_t length);
QEL_API int QEL_flashClearBackUpFlag(uint32_t block); /* erases it */

QEL_API int QEL_gotoStateInit(void);
QEL_API int QEL_gotoStateWaitbackup(void); /* from now on upgrades are refused, but those of kind 2 */
QEL_API int QEL_readSysState(void);        /* 0 normal, -1 not */
QEL_API int QEL_readErrCount(uint8_t *count);
QEL_API int QEL_readBootBackupVerFromFlash(uint8_t *version);
QEL_API int QEL_readBootBackupVer(uint8_t *version); /* as read while the library loaded */
QEL_API int QEL_bootFromBackupPart(uint8_t *flag);   /* likewise: 1 the system runs from its backup copy */
QEL_API int QEL_clearResetCount(void);
/* How far an upgrade has come: the byte of the last page that holds what it should, 0xFF none; -1. */
QEL_API int QEL_getUpdateState(void);

QEL_API int QEL_flashWriteCrc(const void *records, uint32_t count); /* of 8 bytes; one page at most */
QEL_API int QEL_flashClearCrc(void);
QEL_API int QEL_flashWriteCryptoUpFlag(const uint8_t *bytes, uint32_t length); /* one page at most */
QEL_API int QEL_flashReadCryptoUpFlag(uint8_t *bytes, uint32_t length);

/*
 * What processes tell each other about an upgrade in files under /tmp; works on every device. The
 * upgrade kind: 0 none, 1 in progress, 2 in progress without backup bookkeeping. A missing backup
 * version is a failure, a missing upgrade kind is 0.
 */
QEL_API int Flash_writeUpgradeFlag(uint32_t kind);
QEL_API int QEL_checkUpgradeMap(void); /* the kind, or -1 */
QEL_API int QEL_writeBackupVer(uint32_t version);
QEL_API int QEL_readBackupVer(uint8_t *version);
QEL_API int QEL_recordCompleteUpdate(void); /* notes in the log that an update is complete */

/* ---- forwarding: registered by QEL_adapterInit ---- */

QEL_API int FLASH_adapterInit(void);
QEL_API int FLASH_adapterDeInit(void);

QEL_END_DECLS

#endif
