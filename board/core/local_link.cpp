#include "board/core/local_link.h"

#include <linux/futex.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <ctime>
#include <mutex>

namespace qel::board {

namespace {

// The board that this process is on; its lock must be free in a forked child.
constinit std::atomic<Board::Impl *> g_entered{nullptr};
constinit std::atomic<uint32_t> g_client{0};

void lock_for_fork() QEL_THREAD_ATTRIBUTE(no_thread_safety_analysis) {
    Board::Impl *board = g_entered.load();
    if (board != nullptr) board->mutex.lock();
}

void unlock_in_parent() QEL_THREAD_ATTRIBUTE(no_thread_safety_analysis) {
    Board::Impl *board = g_entered.load();
    if (board != nullptr) board->mutex.unlock();
}

void unlock_in_child() QEL_THREAD_ATTRIBUTE(no_thread_safety_analysis) {
    Board::Impl *board = g_entered.load();
    if (board == nullptr) return;
    board->unit.rename_client(g_client, static_cast<uint32_t>(::getpid()));
    board->mutex.unlock();
}

}  // namespace

void put_token(int fd) {
    const uint64_t one = 1;
    // Fails only when 2^64 - 2 tokens lie there.
    [[maybe_unused]] const ssize_t put = ::write(fd, &one, sizeof(one));
}

LocalLink::LocalLink(Board::Impl &board, const Welcome &welcome, const std::string &process_name)
    : board_(board), welcome_(welcome) {
    static std::once_flag watching;
    std::call_once(watching, [] { pthread_atfork(lock_for_fork, unlock_in_parent, unlock_in_child); });
    const Lock lock(board_.mutex);
    client_ = board_.unit.add_client(welcome.chip, static_cast<uint32_t>(::getpid()), process_name);
    g_client = client_;
    g_entered = &board_;
}

LocalLink::~LocalLink() {
    const Lock lock(board_.mutex);
    board_.unit.remove_client(client_);
    board_.local_descriptors.clear();
    g_entered = nullptr;
}

bool LocalLink::on_a_board() { return g_entered.load() != nullptr; }

void LocalLink::call(Request &request, Reply &reply) {
    request.client = client_;
    request.chip = welcome_.chip;
    for (;;) {
        const uint32_t seen = board_.generation.load(std::memory_order_acquire);
        int64_t deadline_ms = -1;
        {
            const Lock lock(board_.mutex);
            if (board_.unit.execute(request, reply, deadline_ms)) return;
        }
        if (wait_for_change(seen, deadline_ms)) continue;
        const Lock lock(board_.mutex);
        board_.unit.withdraw(request);
        reply.value = -EINTR;
        return;
    }
}

// False when a signal ended the wait.
bool LocalLink::wait_for_change(uint32_t seen, int64_t deadline_ms) {
    timespec left{};
    if (deadline_ms >= 0) {
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        const int64_t now_us = int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000;
        // Rounded up: a wake-up just before the deadline would only have to wait again.
        const int64_t wait_us = deadline_ms * 1000 / welcome_.time_scale + 1 - now_us;
        if (wait_us <= 0) return true;
        left.tv_sec = static_cast<time_t>(wait_us / 1000000);
        left.tv_nsec = static_cast<long>(wait_us % 1000000) * 1000;
    }
    const long result = ::syscall(SYS_futex, reinterpret_cast<uint32_t *>(&board_.generation),
                                  FUTEX_WAIT_PRIVATE, seen, deadline_ms >= 0 ? &left : nullptr, nullptr, 0);
    return result == 0 || errno != EINTR;
}

int LocalLink::open(Request &request, Reply &reply) {
    call(request, reply);
    if (reply.value < 0) return static_cast<int>(reply.value);
    return reply.opened == Opened::kDevice ? open_descriptor(reply) : 0;
}

int LocalLink::open_descriptor(const Reply &reply) {
    const int fd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK | EFD_SEMAPHORE);
    if (fd < 0) {
        const int error = errno;
        closing(reply.handle);
        return -error;
    }
    const Lock lock(board_.mutex);
    board_.local_descriptors[reply.handle] = fd;
    if (board_.unit.has_token(reply.handle)) put_token(fd);
    return fd;
}

void LocalLink::closing(uint32_t handle) {
    Request request;
    Reply reply;
    request.op = Op::kClose;
    request.handle = handle;
    {
        const Lock lock(board_.mutex);
        board_.local_descriptors.erase(handle);
    }
    call(request, reply);
}

}  // namespace qel::board
