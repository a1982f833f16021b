// upgrade_state.h - the steps of an upgrade that the partition writer takes around its writes.
#pragma once

#include <cstdint>

namespace qel::upgrade_state {

// Before every write request, in this order: whether an upgrade may go on at all, and the marks that
// a write of `length` bytes into a partition leaves on the flag pages. -1: refuse the write.
int check_upgrade_allowed();
int mark_write(int partition, uint32_t length);

// A user of the flash object releases it: closes an upgrade that is in progress. Call it before the
// shared descriptors go.
void complete();
// The last one does: other processes see no upgrade any more.
void end_session();

// A flag byte for this chip's eMMC, as the master sends it to the flash module of a slave chip.
constexpr uint32_t kWriteFlagCommand = 0x10;
struct WriteFlagPayload {
    int32_t status;  // answer: 0 or -1
    uint32_t block;
    uint32_t page;
    uint32_t byte;
    uint32_t value;
};
static_assert(sizeof(WriteFlagPayload) == 20);
// Serves kWriteFlagCommand on the slave: 0 with the status in the payload, -1 for a payload that is
// too short (nothing is answered then).
int serve_write_flag(void *payload, uint32_t length);

}  // namespace qel::upgrade_state
