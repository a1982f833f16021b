// local_link.h - the requests of a process whose board runs in the process itself.
#pragma once

#include "board/core/board.h"
#include "board/core/impl.h"
#include "board/core/link.h"

namespace qel::board {

// A child after fork() carries a copy of the board and goes on with that; what parent and child do
// from then on does not meet. Descriptors opened before share their readiness: open afresh.
class LocalLink final : public Link {
public:
    LocalLink(Board::Impl &board, const Welcome &welcome, const std::string &process_name);
    ~LocalLink() override;

    // Whether this process is on a board of its own.
    static bool on_a_board();

    const Welcome &welcome() const override { return welcome_; }
    void call(Request &request, Reply &reply) override;
    int open(Request &request, Reply &reply) override;
    void closing(uint32_t handle) override;

private:
    bool wait_for_change(uint32_t seen, int64_t deadline_ms);
    int open_descriptor(const Reply &reply);

    Board::Impl &board_;
    Welcome welcome_;
    uint32_t client_;
};

// Makes a device's descriptor readable once more.
void put_token(int fd);

}  // namespace qel::board
