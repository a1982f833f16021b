// flash_double.h - a small flash for tests of the flash modules, with drivers that can misbehave.
//
//     [chip.test_flash]
//     type = 4              # 3 NOR, 4 NAND, 5 eMMC, 8 MLC NAND, or another number of a raw flash
//     erase = 0x4000        # not for eMMC
//     page = 0x200          # likewise
//     know64 = false        # the driver knows the 32-bit request only
//     can_switch = 1        # -1: the request fails
//     fpga_start = 0x123    # -1: the request fails
//     claims = 33           # partitions that the driver claims to have
//     [[chip.test_flash.partition]]
//     name = "hwid"
//     size = 0x20000
//     offset = 0            # where the one before ends
//     backup = 0x100000     # all ones
//     type = 0x1001         # 0
//     bad = [2]             # bad blocks
//
// The test's face of a partition: "set OFFSET VALUE", "get OFFSET" (the value is the byte).
#pragma once

namespace qel::test {

void add_flash_double();

}  // namespace qel::test
