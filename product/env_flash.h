// env_flash.h - the block of boot parameters on its medium: the start of the partition "hwid".
#pragma once

#include "product/env_block.h"
#include "qel/storage.h"

namespace qel::environment {

struct Medium {
    int fd = -1;
    int index = -1;  // of the partition
    FlashInfo flash = {};
    uint64_t partition_bytes = 0;
    size_t block_bytes = 0;
    size_t section_bytes = 0;  // read and written at once
    bool reversed = false;
};

// All return 0, or -1 after a text on standard output.
int open_medium(Medium *medium);
void close_medium(Medium *medium);
int read_block(const Medium &medium, Block block);
// Reads the whole block but keeps only its list: what stands in `block` up to *end. Most of a block is
// empty, and memory that is not touched costs nothing.
int read_list(const Medium &medium, Block block, size_t *end);
int write_block(const Medium &medium, ConstBlock block);

// Memory for a block of the medium while it is worked on; none where there is not enough.
class Scratch {
public:
    explicit Scratch(size_t bytes);
    ~Scratch();
    Scratch(const Scratch &) = delete;
    Scratch &operator=(const Scratch &) = delete;
    explicit operator bool() const { return memory_ != nullptr; }
    Block block() const { return {memory_, bytes_}; }

private:
    uint8_t *memory_;
    size_t bytes_;
};

}  // namespace qel::environment
