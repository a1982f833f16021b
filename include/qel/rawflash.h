/*
 * rawflash.h - the raw flash object: reads, erases and writes the flash of the device, and with it the
 * flash of every slave chip of the unit. Part of storage.h.
 *
 * Addresses count from the start of the flash, as the offsets of the partition table do. A request
 * stays inside one partition: one that starts outside of all of them or runs over the end of its own
 * is refused before anything is touched. Addresses at and above the FPGA start address that no other
 * partition holds are those of the partition "fpga", from its start. Where a block is bad the next
 * good one takes its place, so an address always means the same data.
 *
 * Requests block for as long as the device takes; they take the flash lock of the device and may wait
 * for another process first. They may be made from any thread. 0, or -1 with a line in the log.
 */
#ifndef QEL_RAWFLASH_H
#define QEL_RAWFLASH_H

#include "qel/frame.h"

QEL_BEGIN_DECLS

/*
 * Called on the thread of the request, each time a piece is done and verified; total is what the
 * request has to do. It may call abort, and no other operation of the object.
 */
typedef void (*RawFlashProgress)(void *context, uint64_t doneBytes, uint64_t totalBytes);

typedef struct {
    int32_t references;        /* for reading only */
    uint32_t chips;            /* for reading only: how many chips' flash the object works on */
    RawFlashProgress progress; /* NULL or the caller's, to be set while no request runs */
    void *progressContext;
} RawFlashInfo;

typedef struct {
    uint32_t chip;
    uint32_t type;       /* QEL_FLASH_... */
    uint32_t pageBytes;  /* NOR: the erase size */
    uint32_t eraseBytes; /* addresses of erases and, but for eMMC, of writes are multiples of it */
    uint32_t partitions;
    uint32_t fpgaStart;  /* where the FPGA's area starts */
    uint64_t totalBytes; /* 0: the driver does not tell */
} RawFlashCaps;

/* Requests for the `bytes` from `from` on go to `to`. */
typedef struct {
    uint64_t from;
    uint64_t to;
    uint64_t bytes;
} RawFlashMap;

#define QEL_RAWFLASH_MAX_MAPS 32u

typedef struct RawFlash RawFlash;
struct RawFlash {
    RawFlashInfo *info;
    int (*addRef)(RawFlash *thiz);
    /* Ends an upgrade that was in progress. The last one frees the object. */
    int (*release)(RawFlash *thiz);
    int (*getCaps)(RawFlash *thiz, RawFlashCaps *out);
    int (*read)(RawFlash *thiz, uint32_t address, void *buffer, uint32_t bytes);
    /*
     * Erases the blocks that the data takes, writes them, reads them back. `address` is a multiple of
     * the erase size, counted from the start of the partition (eMMC: of 512 bytes); what is left of
     * the last block is erased (eMMC: of the last 512 bytes, overwritten with 0xFF). On raw NAND a
     * block that fails is marked bad and the next one takes the data; what lies behind the data in
     * the partition then moves back by one block. Nothing is touched when the data does not fit, or
     * while the device waits for its backup copy. A failure later leaves the data up to some block.
     */
    int (*write)(RawFlash *thiz, uint32_t address, const void *data, uint32_t bytes);
    /*
     * `address` and `bytes` are multiples of the erase size, `address` as in write. eMMC is overwritten
     * with 0xFF, and `bytes` may also end with the partition. Blocks behind the last good one are left
     * out without a failure.
     */
    int (*erase)(RawFlash *thiz, uint32_t address, uint32_t bytes);
    /*
     * Ends the requests that run now, from another thread or from a progress call: they fail before
     * their next block, the one under way is finished. Does nothing where none runs.
     */
    int (*abort)(RawFlash *thiz);
    /*
     * Where requests by address go instead, QEL_RAWFLASH_MAX_MAPS entries at most that do not overlap;
     * copied. No entries: nowhere else. A request must not run over the edge of an entry. To be set
     * while no request runs.
     */
    int (*setPartitionMap)(RawFlash *thiz, const RawFlashMap *map, uint32_t entries);
    /* Where a request at `address` goes: itself where no entry holds it. */
    int (*getPartitionMapedAddr)(RawFlash *thiz, uint64_t address, uint64_t *out);
    int (*read64)(RawFlash *thiz, uint64_t address, void *buffer, uint32_t bytes);
    int (*write64)(RawFlash *thiz, uint64_t address, const void *data, uint32_t bytes);
    int (*erase64)(RawFlash *thiz, uint64_t address, uint64_t bytes);
    /* As write, from the start of a partition; the partition map does not count. */
    int (*writePartition)(RawFlash *thiz, const char *name, const void *data, uint32_t bytes);
};

/*
 * *out is NULL after a failure. createRawFlash unmounts what stands on the directories of firmware and
 * data first. The object works on every chip in turn, this one first, and stops at the first failure:
 * a write reaches all chips; of a read or a question the last chip's answer stays. Slave chips belong
 * to it on the master only, in a process that reaches them.
 */
QEL_API int createRawFlash(RawFlash **out);
/* This chip's flash alone. */
QEL_API int createRawFlashLocal(RawFlash **out);
/* The flash of slave chip 1 and up, from the master. Requests block until the chip has answered. */
QEL_API int createRawFlashAdapter(uint32_t chip, RawFlash **out);

/* Serves the master's requests on a slave chip. */
QEL_API int FLASH_adapterSlaveProc(AdapterMsg *msg);

/* The operations of the object that createRawFlash makes; they refuse any other. */
QEL_API int Flash_addref(RawFlash *thiz);
QEL_API int Flash_release(RawFlash *thiz);
QEL_API int Flash_getcaps(RawFlash *thiz, RawFlashCaps *out);
QEL_API int Flash_read(RawFlash *thiz, uint32_t address, void *buffer, uint32_t bytes);
QEL_API int Flash_write(RawFlash *thiz, uint32_t address, const void *data, uint32_t bytes);
QEL_API int Flash_erase(RawFlash *thiz, uint32_t address, uint32_t bytes);
QEL_API int Flash_abort(RawFlash *thiz);
QEL_API int Flash_setPartitionMap(RawFlash *thiz, const RawFlashMap *map, uint32_t entries);
QEL_API int Flash_getPartitionMapedAddr(RawFlash *thiz, uint64_t address, uint64_t *out);
QEL_API int Flash_read64(RawFlash *thiz, uint64_t address, void *buffer, uint32_t bytes);
QEL_API int Flash_write64(RawFlash *thiz, uint64_t address, const void *data, uint32_t bytes);
QEL_API int Flash_erase64(RawFlash *thiz, uint64_t address, uint64_t bytes);
QEL_API int Flash_writePartition(RawFlash *thiz, const char *name, const void *data, uint32_t bytes);

QEL_END_DECLS

#endif
