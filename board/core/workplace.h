// workplace.h - the folders of the host that a board uses.
#pragma once

#include <sys/types.h>
#include <string>

namespace qel::board {

class Workplace {
public:
    // `dir`: keep the board's content there (made when missing, one board at a time); empty: in a
    // temporary folder. Removes what boards left whose processes were killed. Throws
    // std::runtime_error.
    explicit Workplace(const std::string &dir);
    // Removes what is temporary, and the System V objects of the board's processes. Does nothing in a
    // forked child.
    ~Workplace();
    Workplace(const Workplace &) = delete;
    Workplace &operator=(const Workplace &) = delete;

    const std::string &content_dir() const { return content_dir_; }
    // Whether the content outlives this board, and this is not a forked child with a copy of it.
    bool keeps_content() const;
    // Sockets and the list of System V objects. Always temporary: the names of sockets must be short.
    const std::string &run_dir() const { return run_dir_; }
    // Removes the System V objects: they are memory, and that is gone after a power cut. No process of
    // the board may live.
    void forget_memory() const;

private:
    pid_t owner_;
    std::string run_dir_;
    std::string content_dir_;
    int alive_fd_ = -1;
    int lock_fd_ = -1;
};

}  // namespace qel::board
