// partition_writer.h - reads, erases and writes inside one partition of this chip's flash.
//
// A request names its partition and an offset that counts good blocks only. It takes the flash lock
// for its whole length, checks everything before it touches anything, and goes block by block: erase,
// write, read back. On raw NAND a block that fails is marked bad and the next good one takes its data.
#pragma once

#include <atomic>
#include <cstdint>

#include "qel/rawflash.h"

namespace qel::flash {

// The requests of an object that run, and whether they are to end. An abort counts for those that run
// at that moment.
class Requests {
public:
    void begin() { state_.fetch_add(1); }
    void end() {
        uint32_t state = state_.load();
        while (!state_.compare_exchange_weak(state, state - 1 == kAborted ? 0 : state - 1)) {
        }
    }
    void abort() {
        uint32_t state = state_.load();
        while (state != 0 && !state_.compare_exchange_weak(state, state | kAborted)) {
        }
    }
    bool is_aborted() const { return (state_.load() & kAborted) != 0; }

private:
    static constexpr uint32_t kAborted = 1u << 31;
    std::atomic<uint32_t> state_{0};  // how many run, and kAborted
};

// On whose behalf: the name in the log, whom to tell, who may end it.
struct Job {
    const char *function;
    const Requests &requests;
    const RawFlashInfo &info;
};

struct Place {
    int partition;
    uint64_t offset;
};

// Which partition an address of the whole flash belongs to: the smallest that holds it, or the area of
// the FPGA. -1 with a line in the log where it is none.
int find_place(const char *function, uint64_t address, Place *out);

int read_flash(const Job &job, Place place, void *buffer, uint32_t bytes);
int erase_flash(const Job &job, Place place, uint64_t bytes);
// `following`: bytes that later requests will put behind these; they must fit as well.
int write_flash(const Job &job, Place place, const void *data, uint32_t bytes, uint64_t following);

}  // namespace qel::flash
