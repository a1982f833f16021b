/*
 * eeprom_driver.h - the requests of "/dev/qecEEPROM" (chip 0) and "/dev/qecEEPROM%u" (chip 1 and on).
 *
 * Addresses are byte addresses in the chip. A request that touches anything outside it fails with
 * EINVAL and does nothing; a bad pointer is EFAULT, an unknown request ENOTTY. A write blocks until
 * the chip has taken it: the driver cuts it at the chip's page borders and waits for every page.
 */
#ifndef QEL_EEPROM_DRIVER_H
#define QEL_EEPROM_DRIVER_H

#include <stdint.h>

#define QEL_EEPROM_DEVICE "/dev/qecEEPROM"
#define QEL_EEPROM_CHIPS_MAX 8u

/* The size in these codes is that of the 32-bit records, whatever the word size. */
#define QEC_EEPROM_IOCWR 0xC0185100u  /* argument: struct qec_eeprom_transfer; writes */
#define QEC_EEPROM_IOCRD 0xC0185101u  /* argument: struct qec_eeprom_transfer; reads */
#define QEC_EEPROM_IOSGET 0xC01C5102u /* argument: EefsChipAttr, filled in */

/* Pointers and padding of the process: 24 bytes where pointers have 4, else 32. */
struct qec_eeprom_transfer {
    uint32_t address;
    void *buffer;
    uint32_t bytes;
    uint32_t unused[3];
};

/* What the driver knows of a chip. Words with a number are its own and passed on unread. */
typedef struct {
    uint32_t chip; /* passed on as well */
    uint32_t page_bytes;
    uint32_t word2;
    uint32_t capacity_bytes;
    uint32_t word4;
    uint32_t word5;
    uint32_t word6;
} EefsChipAttr;

#endif
