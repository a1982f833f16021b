/*
 * misc_driver.h - requests of "/dev/qecMisc" whose codes are this library's choice.
 *
 * A driver that does not know a request answers ENOTTY.
 */
#ifndef QEL_MISC_DRIVER_H
#define QEL_MISC_DRIVER_H

#include <stdint.h>

#define QEL_MISC_DEVICE "/dev/qecMisc"

/* Argument: uint32_t out, the number of EEPROM chips on the board. */
#define QEL_MISC_GET_EEPROM_COUNT 0x80044D4Eu

#endif
