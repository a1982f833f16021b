/*
 * eeprom.h - the EEPROM file system: at most eight named files on a small serial EEPROM, each stored
 * as a whole and laid out anew when it grows. Part of storage.h.
 *
 * Nothing here is locked: the callers of one chip take turns. Calls block while the chip reads and
 * writes, a few milliseconds for each page written. There is no journal: what a power cut may cost
 * stands in docs/power-cuts.md.
 *
 * Two families do the same: EEFS_Lib... works on chip 0, EEFS_MultLib... on the chip given last. Each
 * has a context of its own, so a process uses one of them for a chip. The ..._new names are the same
 * operations on the same contexts.
 */
#ifndef QEL_EEPROM_H
#define QEL_EEPROM_H

#include "qel/eeprom_driver.h"
#include "qel/frame.h"

QEL_BEGIN_DECLS

#define EEFS_NAME_BYTES 40 /* with the terminator */
#define EEFS_MAX_FILES 8
#define EEFS_NOT_FOUND (-3)

/* The state behind a chip. Only the library has any. */
typedef struct EefsContext EefsContext;

/*
 * 0, or what the operation says, and -1 on failure, with a line in the log. All but Init fail until
 * Init was done. One file is open at a time; `index` is what Open answered.
 *
 *   Init          opens the device and reads the file system, or makes an empty one where there is
 *                 none; once that is done it only fills in the attributes again
 *   Exit          closes the device and forgets everything
 *   Open          the index of a file of 1 to 39 characters, made where there is none. 0 when the
 *                 look-up fails at the device; nothing is open then and the next call says so
 *   Close         writes down what changed; a new file exists from here on. After a failure it can be
 *                 tried again
 *   Read          *done = bytes read; -1 at the end of the file
 *   Write         *done = bytes written; fewer when the file's room is used up, which is no failure
 *   LSeek         the new position, never behind the end; whence 0 start, 1 position, 2 end
 *   Stat          length in bytes and time of the last change in seconds since 1970; either may be NULL
 *   FindFile      the index; -3 when there is none
 *   GetFileCount  files that GetFileInfo lists
 *   GetFileInfo   name (EEFS_NAME_BYTES) and length of the nth file from 0; length may be NULL
 *   FileSpace     bytes that a file may grow to without being laid out anew
 *   FreeChip      bytes not used by any file; 0 without Init
 *   ClearFiles    removes all files; what stood in them stays on the chip
 *   EarseChip     zeros on the whole chip, progress on the standard output; the files stay known
 *                 until Exit
 *   ReadFS        reads the file system again from the head at `address`; context: NULL, the family's
 *                 own. An open file is forgotten
 *   Dump          logs the table of files
 */
QEL_API int EEFS_LibInit(EefsChipAttr *attributes);
QEL_API int EEFS_LibExit(void);
QEL_API int EEFS_LibOpen(const char *name);
QEL_API int EEFS_LibClose(int index);
QEL_API int EEFS_LibRead(int index, void *buffer, unsigned bytes, unsigned *done);
QEL_API int EEFS_LibWrite(int index, const void *buffer, unsigned bytes, unsigned *done);
QEL_API int EEFS_LibLSeek(int index, int offset, int whence);
QEL_API int EEFS_LibStat(const char *name, unsigned *bytes, unsigned *changed);
QEL_API int EEFS_LibFindFile(const char *name);
QEL_API int EEFS_LibGetFileCount(unsigned *count);
QEL_API int EEFS_LibGetFileInfo(unsigned n, char *name, unsigned *bytes);
QEL_API int EEFS_LibFileSpace(const char *name, unsigned *bytes);
QEL_API unsigned EEFS_LibFreeChip(void);
QEL_API int EEFS_LibClearFiles(void);
QEL_API int EEFS_LibEarseChip(void);
QEL_API int EEFS_LibReadFS(EefsContext *context, unsigned address);
QEL_API int EEFS_LibDump(void);

QEL_API int EEFS_LibOpen_new(const char *name);
QEL_API int EEFS_LibClose_new(int index);
QEL_API int EEFS_LibRead_new(int index, void *buffer, unsigned bytes, unsigned *done);
QEL_API int EEFS_LibWrite_new(int index, const void *buffer, unsigned bytes, unsigned *done);
QEL_API int EEFS_LibStat_new(const char *name, unsigned *bytes, unsigned *changed);
QEL_API int EEFS_LibFindFile_new(const char *name);
QEL_API int EEFS_LibGetFileCount_new(unsigned *count);
QEL_API int EEFS_LibGetFileInfo_new(unsigned n, char *name, unsigned *bytes);
QEL_API int EEFS_LibFileSpace_new(const char *name, unsigned *bytes);
QEL_API unsigned EEFS_LibFreeChip_new(void);
QEL_API int EEFS_LibClearFiles_new(void);
QEL_API int EEFS_LibReadFS_new(EefsContext *context, unsigned address);

/* The same on chip 0 to QEL_EEPROM_CHIPS_MAX - 1. */
QEL_API int EEFS_MultLibInit(EefsChipAttr *attributes, unsigned chip);
QEL_API int EEFS_MultLibExit(unsigned chip);
QEL_API int EEFS_MultLibOpen(const char *name, unsigned chip);
QEL_API int EEFS_MultLibClose(int index, unsigned chip);
QEL_API int EEFS_MultLibRead(int index, void *buffer, unsigned bytes, unsigned *done, unsigned chip);
QEL_API int EEFS_MultLibWrite(int index, const void *buffer, unsigned bytes, unsigned *done, unsigned chip);
QEL_API int EEFS_MultLibLSeek(int index, int offset, int whence, unsigned chip);
QEL_API int EEFS_MultLibStat(const char *name, unsigned *bytes, unsigned *changed, unsigned chip);
QEL_API int EEFS_MultLibFindFile(const char *name, unsigned chip);
QEL_API int EEFS_MultLibGetFileCount(unsigned *count, unsigned chip);
QEL_API int EEFS_MultLibGetFileInfo(unsigned n, char *name, unsigned *bytes, unsigned chip);
QEL_API int EEFS_MultLibFileSpace(const char *name, unsigned *bytes, unsigned chip);
QEL_API unsigned EEFS_MultLibFreeChip(unsigned chip);
QEL_API int EEFS_MultLibClearFiles(unsigned chip);
QEL_API int EEFS_MultLibEarseChip(unsigned chip);
QEL_API int EEFS_MultLibReadFS(EefsContext *context, unsigned address, unsigned chip);
QEL_API int EEFS_MultLibDump(unsigned chip);

QEL_API int EEFS_MultLibOpen_new(const char *name, unsigned chip);
QEL_API int EEFS_MultLibClose_new(int index, unsigned chip);
QEL_API int EEFS_MultLibRead_new(int index, void *buffer, unsigned bytes, unsigned *done, unsigned chip);
QEL_API int EEFS_MultLibWrite_new(int index, const void *buffer, unsigned bytes, unsigned *done,
                                  unsigned chip);
QEL_API int EEFS_MultLibStat_new(const char *name, unsigned *bytes, unsigned *changed, unsigned chip);
QEL_API int EEFS_MultLibFindFile_new(const char *name, unsigned chip);
QEL_API int EEFS_MultLibGetFileCount_new(unsigned *count, unsigned chip);
QEL_API int EEFS_MultLibGetFileInfo_new(unsigned n, char *name, unsigned *bytes, unsigned chip);
QEL_API int EEFS_MultLibFileSpace_new(const char *name, unsigned *bytes, unsigned chip);
QEL_API unsigned EEFS_MultLibFreeChip_new(unsigned chip);
QEL_API int EEFS_MultLibClearFiles_new(unsigned chip);
QEL_API int EEFS_MultLibReadFS_new(EefsContext *context, unsigned address, unsigned chip);

/* Opens a chip's device and reads its attributes. *fd is the caller's to close, -1 after a failure. */
QEL_API int Eeprom_openDev(EefsChipAttr *attributes, int *fd);
QEL_API int Eeprom_MultopenDev(EefsChipAttr *attributes, int *fd, unsigned chip);
/* How many EEPROM chips the board has, as the miscellaneous driver tells: 1 or more; -1 if it does not. */
QEL_API int getEepromInfo(unsigned *count);

/* ---- raw EEPROM objects ---- */

/* Shared by all objects of a chip; for reading only. */
typedef struct {
    int32_t references;
    uint32_t chip; /* of the chip's attributes, as the next three */
    uint32_t page_bytes;
    uint32_t word2;
    uint32_t capacity_bytes;
} RawEepromInfo;

typedef struct {
    uint32_t chip;
    uint32_t capacity_bytes;
    uint32_t page_bytes;
} RawEepromCaps;

/*
 * The EEPROM as a box of files. 0 or -1 with a line in the log. While a file is open through the
 * EEFS_Lib calls, what needs to open one fails.
 *
 * Beware: release ends the object and the file system's context whatever the count says; the count
 * only tells others.
 */
typedef struct RawEeprom RawEeprom;
struct RawEeprom {
    const RawEepromInfo *info;
    int (*addRef)(RawEeprom *thiz);
    int (*release)(RawEeprom *thiz);
    int (*getCaps)(RawEeprom *thiz, RawEepromCaps *out);
    /* Copies every file into an existing directory of the host, over files of the same name. */
    int (*read)(RawEeprom *thiz, const char *directory);
    /*
     * Stores `size` bytes under the last part of `path`, which the EEPROM need not know. A file that
     * is there is written over from its start; where it was longer it keeps its length and its end.
     * One that does not fit where it stands is laid out anew with all the others, for which there
     * must be memory; nothing is touched when there is not room enough.
     */
    int (*write)(RawEeprom *thiz, const char *path, const void *buffer, unsigned size);
    int (*eraseChip)(RawEeprom *thiz); /* zeros; the object knows its files until it is released */
    int (*dump)(RawEeprom *thiz);      /* logs the table of files */
};

/* The same on a board of several chips; `info` points to one record per chip. */
typedef struct RawMultEeprom RawMultEeprom;
struct RawMultEeprom {
    const RawEepromInfo *info;
    int (*addRef)(RawMultEeprom *thiz);
    int (*release)(RawMultEeprom *thiz);
    int (*getCaps)(RawMultEeprom *thiz, RawEepromCaps *out, unsigned chip);
    int (*read)(RawMultEeprom *thiz, const char *directory, unsigned chip);
    int (*write)(RawMultEeprom *thiz, const char *path, const void *buffer, unsigned size, unsigned chip);
    int (*eraseChip)(RawMultEeprom *thiz, unsigned chip);
    int (*dump)(RawMultEeprom *thiz, unsigned chip);
};

/* `owner` is the caller's own and may be NULL. *out is NULL after a failure. */
QEL_API int createRawEeprom(void *owner, RawEeprom **out);
QEL_API int createRawMultEeprom(void *owner, RawMultEeprom **out);
/* Copies the nth file, from 0, into a directory of the host. A name that holds a "/" is refused. */
QEL_API int QEL_RawEepromRdById(void *owner, unsigned n, const char *directory);
QEL_API int QEL_MultRawEepromRdById(void *owner, unsigned n, const char *directory, unsigned chip);

/* The operations of RawEeprom, and two steps of its write: a store in place and one with all files
 * laid out anew. */
QEL_API int Eeprom_addref(RawEeprom *thiz);
QEL_API int Eeprom_Release(RawEeprom *thiz);
QEL_API int Eeprom_Getcaps(RawEeprom *thiz, RawEepromCaps *out);
QEL_API int Eeprom_Read(RawEeprom *thiz, const char *directory);
QEL_API int Eeprom_Write(RawEeprom *thiz, const char *path, const void *buffer, unsigned size);
QEL_API int Eeprom_EarseChip(RawEeprom *thiz);
QEL_API int Eeprom_Dump(RawEeprom *thiz);
QEL_API int Eeprom_writeFile(const char *name, const void *buffer, unsigned size);
QEL_API int Eeprom_reloadAllFile_new(const char *name, const void *buffer, unsigned size);

QEL_END_DECLS

#endif
