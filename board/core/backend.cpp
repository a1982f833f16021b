// backend.cpp - the gate's operations on a board: requests for devices go to the board, files are
// those of the chip's tree, everything else is the process's own.
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>
#include <string>

#include "board/core/descriptors.h"
#include "board/core/device.h"
#include "board/core/link.h"
#include "board/core/world.h"
#include "os/os.h"

namespace qel::board {

namespace {

// The kernel moves no more in one call.
constexpr size_t kMostBytes = 0x7ffff000;

const qel_os_ops &kernel() { return os::linux_ops(); }

bool is_relative(const char *path) { return path[0] != '/'; }

// A request and its reply, reused by every call of the thread so that none of them allocates.
class Call {
public:
    explicit Call(Op op) : request(slot().request), reply(slot().reply) {
        request.op = op;
        request.handle = request.code = request.out_bytes = 0;
        request.offset = 0;
        request.nonblocking = false;
        request.path.clear();
        request.in.clear();
        request.waiting.started_ms = request.waiting.deadline_ms = request.waiting.hold_until_ms = -1;
        request.waiting.error = 0;
        request.waiting.short_bytes = -1;
        request.waiting.flips.clear();
        reply.value = 0;
        reply.opened = Opened::kDevice;
        reply.handle = 0;
        reply.class_index = 0;
        reply.drained = reply.killed = false;
        reply.fd = -1;
        reply.path.clear();
        reply.out.clear();
    }
    Call(Op op, const Descriptor &descriptor) : Call(op) {
        request.handle = descriptor.handle;
        request.nonblocking = descriptor.nonblocking;
    }
    Call(PathOp op, const char *path) : Call(Op::kPath) {
        request.code = static_cast<uint32_t>(op);
        request.path = path;
    }

    // 0 or more, or -errno.
    int64_t run() {
        Link *link = current_link();
        if (link == nullptr) return -ENODEV;
        link->call(request, reply);
        return settle(reply.value);
    }
    int64_t run_open() {
        Link *link = current_link();
        if (link == nullptr) return -ENODEV;
        return settle(link->open(request, reply));
    }
    // After a request on a device: it may have taken what made the descriptor readable.
    int64_t run(int fd) {
        const int64_t value = run();
        if (reply.drained) take_token(fd);
        return value;
    }
    bool on_host() const { return reply.opened == Opened::kHostFile; }
    const char *host_path() const { return reply.path.c_str(); }

    Request &request;
    Reply &reply;

private:
    struct Slot {
        Request request;
        Reply reply;
    };
    static void take_token(int fd) {
        uint64_t token = 0;
        // Fails when another thread was faster; then there is nothing left to do.
        [[maybe_unused]] const ssize_t got = ::read(fd, &token, sizeof(token));
    }
    static Slot &slot() {
        static thread_local Slot slot;
        return slot;
    }
    int64_t settle(int64_t value) const {
        if (reply.killed) ::kill(::getpid(), SIGKILL);  // the power is gone
        return value;
    }
};

int opened_fd(int fd, const Call &call, int flags) {
    const Descriptor descriptor{.handle = call.reply.handle,
                                .class_index = call.reply.class_index,
                                .is_tty = call.reply.opened == Opened::kTty,
                                .nonblocking = (flags & O_NONBLOCK) != 0};
    if (set_descriptor(fd, descriptor)) return fd;
    current_link()->closing(descriptor.handle);
    ::close(fd);
    return -EMFILE;
}

int board_open(const char *path, int flags, unsigned mode) {
    int fd = -1;
    if (is_relative(path)) {
        fd = kernel().open(path, flags, mode);
    } else {
        Call call(Op::kOpen);
        call.request.path = path;
        call.request.code = static_cast<uint32_t>(flags);
        call.request.offset = mode;
        const auto result = static_cast<int>(call.run_open());
        if (result < 0) return result;
        if (call.reply.opened == Opened::kDevice) return opened_fd(result, call, flags);
        if (call.reply.opened == Opened::kTty) {
            fd = kernel().open(call.host_path(), flags | O_NOCTTY, mode);
            if (fd >= 0) return opened_fd(fd, call, flags);
            current_link()->closing(call.reply.handle);
            return fd;
        }
        fd = kernel().open(call.host_path(), flags, mode);
    }
    if (fd >= 0) clear_descriptor(fd);  // the number may have been a device's that was closed behind our back
    return fd;
}

int board_close(int fd) {
    const Descriptor descriptor = find_descriptor(fd);
    if (descriptor.handle != 0) {
        clear_descriptor(fd);
        Link *link = current_link();
        if (link != nullptr) link->closing(descriptor.handle);
    }
    return kernel().close(fd);
}

ssize_t board_read(int fd, void *buffer, size_t bytes) {
    const Descriptor descriptor = find_descriptor(fd);
    if (descriptor.handle == 0 || descriptor.is_tty) return kernel().read(fd, buffer, bytes);
    Call call(Op::kRead, descriptor);
    call.request.out_bytes = static_cast<uint32_t>(std::min(bytes, kMostBytes));
    const int64_t value = call.run(fd);
    if (value < 0) return static_cast<ssize_t>(value);
    const size_t got = std::min(call.reply.out.size(), bytes);
    if (got > 0 && buffer == nullptr) return -EFAULT;
    if (got > 0) memcpy(buffer, call.reply.out.data(), got);
    return static_cast<ssize_t>(got);
}

ssize_t board_write(int fd, const void *buffer, size_t bytes) {
    const Descriptor descriptor = find_descriptor(fd);
    if (descriptor.handle == 0) return kernel().write(fd, buffer, bytes);
    if (descriptor.is_tty) {
        const ssize_t written = kernel().write(fd, buffer, bytes);
        if (written > 0) count_written(fd, static_cast<uint64_t>(written));
        return written;
    }
    if (buffer == nullptr && bytes > 0) return -EFAULT;
    Call call(Op::kWrite, descriptor);
    const auto *first = static_cast<const uint8_t *>(buffer);
    call.request.in.assign(first, first + std::min(bytes, kMostBytes));
    return static_cast<ssize_t>(call.run(fd));
}

int64_t board_seek(int fd, int64_t offset, int whence) {
    const Descriptor descriptor = find_descriptor(fd);
    if (descriptor.handle == 0 || descriptor.is_tty) return kernel().seek(fd, offset, whence);
    Call call(Op::kSeek, descriptor);
    call.request.offset = offset;
    call.request.code = static_cast<uint32_t>(whence);
    return call.run(fd);
}

// ---- ioctl: records in and out ----

const RequestSpec *find_spec(uint16_t class_index, uint32_t code) {
    const auto classes = device_classes();
    if (class_index >= classes.size()) return nullptr;
    for (const RequestSpec &spec : classes[class_index]->requests) {
        if (spec.code == code) return &spec;
    }
    return nullptr;
}

bool pack(const RequestSpec &spec, const void *argument, Buffer &in) {
    if (spec.pack != nullptr) return spec.pack(argument, in);
    if (spec.in_bytes == 0) return true;
    if (argument == nullptr) return false;
    const auto *first = static_cast<const uint8_t *>(argument);
    in.assign(first, first + spec.in_bytes);
    return true;
}

bool unpack(const RequestSpec &spec, void *argument, const Buffer &out) {
    if (spec.unpack != nullptr) return spec.unpack(argument, out);
    const size_t bytes = std::min<size_t>(out.size(), spec.out_bytes);
    if (bytes == 0) return true;
    if (argument == nullptr) return false;
    memcpy(argument, out.data(), bytes);
    return true;
}

int board_ioctl(int fd, uint32_t code, void *argument) {
    const Descriptor descriptor = find_descriptor(fd);
    if (descriptor.handle == 0) return kernel().ioctl(fd, code, argument);
    Call call(Op::kIoctl, descriptor);
    call.request.code = code;
    // One that the class does not know crosses without a record: the device's answer is the answer.
    const RequestSpec *spec = find_spec(descriptor.class_index, code);
    if (spec != nullptr && !pack(*spec, argument, call.request.in)) return -EFAULT;
    const int64_t value = descriptor.is_tty ? call.run() : call.run(fd);
    if (value >= 0 && spec != nullptr && !unpack(*spec, argument, call.reply.out)) return -EFAULT;
    return static_cast<int>(value);
}

int board_map(int fd, size_t bytes, int protection, int flags, int64_t offset, void **out) {
    const Descriptor descriptor = find_descriptor(fd);
    if (descriptor.handle == 0) return kernel().map(fd, bytes, protection, flags, offset, out);
    if (bytes == 0 || bytes > kMostBytes) return -EINVAL;
    Call call(Op::kMap, descriptor);
    call.request.offset = offset;
    call.request.out_bytes = static_cast<uint32_t>(bytes);
    const int64_t value = call.run();
    if (value < 0) return static_cast<int>(value);
    if (call.reply.fd < 0) return -ENODEV;
    const int result = kernel().map(call.reply.fd, bytes, protection, flags, value, out);
    ::close(call.reply.fd);
    return result;
}

// A virtual device holds nothing back: what it answered is on its medium.
int board_sync(int fd) { return find_descriptor(fd).handle == 0 ? kernel().sync(fd) : 0; }

int board_truncate(int fd, int64_t bytes) {
    return find_descriptor(fd).handle == 0 ? kernel().truncate(fd, bytes) : -EINVAL;
}

int board_set_mode(int fd, unsigned mode) {
    return find_descriptor(fd).handle == 0 ? kernel().set_mode(fd, mode) : -EPERM;
}

// ---- paths ----

int board_stat(const char *path, qel_os_file_info *out) {
    if (is_relative(path)) return kernel().stat(path, out);
    Call call(PathOp::kStat, path);
    const int64_t value = call.run();
    if (value < 0) return static_cast<int>(value);
    if (call.on_host()) return kernel().stat(call.host_path(), out);
    *out = {.size_bytes = 0, .mtime_ms = 0, .mode = static_cast<uint32_t>(value)};
    return 0;
}

// Passes on the files of a folder that are not hidden behind a node of the same name.
struct FileWalk {
    const std::set<std::string> *nodes;
    qel_os_visit visit;
    void *context;
};

int visit_file(void *context, const char *name, const qel_os_file_info *info) {
    const auto *walk = static_cast<const FileWalk *>(context);
    if (walk->nodes->count(name) != 0) return 0;
    return walk->visit(walk->context, name, info);
}

int board_list(const char *path, qel_os_visit visit, void *context) {
    if (is_relative(path)) return kernel().list(path, visit, context);
    Call call(PathOp::kList, path);
    const int64_t value = call.run();
    if (value < 0) return static_cast<int>(value);
    // Visitors may call the gate themselves, which uses the thread's call again.
    const std::string host = call.host_path();
    const Buffer packed = call.reply.out;
    std::set<std::string> nodes;
    for (size_t at = 0; at + 5 <= packed.size() && at + 5 + packed[at + 4] <= packed.size();) {
        const size_t length = packed[at + 4];
        qel_os_file_info info{};
        for (unsigned i = 0; i < 4; ++i) info.mode |= uint32_t{packed[at + i]} << 8 * i;
        const std::string name(packed.begin() + static_cast<ptrdiff_t>(at + 5),
                               packed.begin() + static_cast<ptrdiff_t>(at + 5 + length));
        if (visit(context, name.c_str(), &info) != 0) return 0;
        nodes.insert(name);
        at += 5 + length;
    }
    FileWalk walk{&nodes, visit, context};
    return kernel().list(host.c_str(), visit_file, &walk);
}

int board_make_dir(const char *path, unsigned mode) {
    if (is_relative(path)) return kernel().make_dir(path, mode);
    Call call(PathOp::kMakeDir, path);
    const int64_t value = call.run();
    return value < 0 ? static_cast<int>(value) : kernel().make_dir(call.host_path(), mode);
}

int board_remove(const char *path) {
    if (is_relative(path)) return kernel().remove(path);
    Call call(PathOp::kRemove, path);
    const int64_t value = call.run();
    return value < 0 ? static_cast<int>(value) : kernel().remove(call.host_path());
}

int board_rename(const char *from, const char *to) {
    if (is_relative(from) != is_relative(to)) return -EXDEV;
    if (is_relative(from)) return kernel().rename(from, to);
    Call call(PathOp::kRename, from);
    call.request.in.assign(to, to + strlen(to));
    const int64_t value = call.run();
    if (value < 0) return static_cast<int>(value);
    const std::string host_to(call.reply.out.begin(), call.reply.out.end());
    return kernel().rename(call.host_path(), host_to.c_str());
}

// ---- terminals: the pty does the work, the board is told ----

// True: this descriptor is a line of the board, and `call` asks for it.
bool report_term(int fd, const Descriptor &descriptor, TermOp op, int value, Call &call) {
    const uint64_t written = written_bytes(fd);
    const TermAction action{.written_low = static_cast<uint32_t>(written),
                            .written_high = static_cast<uint32_t>(written >> 32),
                            .value = static_cast<uint32_t>(value)};
    call.request.handle = descriptor.handle;
    call.request.nonblocking = false;  // of reads and writes, not of these
    call.request.code = static_cast<uint32_t>(op);
    call.request.offset = value;
    const auto *first = reinterpret_cast<const uint8_t *>(&action);
    call.request.in.assign(first, first + sizeof(action));
    return descriptor.handle != 0;
}

int board_term_get(int fd, termios *out) {
    const Descriptor descriptor = find_descriptor(fd);
    if (descriptor.handle != 0 && !descriptor.is_tty) return -ENOTTY;
    const int result = kernel().term_get(fd, out);
    Call call(Op::kTerm);
    if (result < 0 || !report_term(fd, descriptor, TermOp::kGet, 0, call)) return result;
    // What a pty cannot hold (data bits, parity), a line remembers once it was set.
    TermSettings kept{};
    const int64_t told = call.run();
    if (told < 0 && told != -ENODATA) return static_cast<int>(told);
    if (call.reply.out.size() != sizeof(kept)) return result;
    memcpy(&kept, call.reply.out.data(), sizeof(kept));
    out->c_cflag =
        (out->c_cflag & static_cast<tcflag_t>(CBAUD)) | (kept.control_flags & ~static_cast<tcflag_t>(CBAUD));
    return result;
}

int board_term_set(int fd, int when, const termios *settings) {
    const Descriptor descriptor = find_descriptor(fd);
    if (descriptor.handle != 0 && !descriptor.is_tty) return -ENOTTY;
    int result = kernel().term_set(fd, when, settings);
    // A pty keeps neither data bits nor parity, and where nothing else was new the C library says so.
    const bool is_moment = when == TCSANOW || when == TCSADRAIN || when == TCSAFLUSH;
    if (result == -EINVAL && descriptor.is_tty && is_moment) result = 0;
    Call call(Op::kTerm);
    if (result < 0 || !report_term(fd, descriptor, TermOp::kSet, when, call)) return result;
    const TermSettings made{.input_flags = settings->c_iflag,
                            .output_flags = settings->c_oflag,
                            .control_flags = settings->c_cflag & ~static_cast<tcflag_t>(CBAUD),
                            .local_flags = settings->c_lflag,
                            .input_speed = cfgetispeed(settings),
                            .output_speed = cfgetospeed(settings)};
    const auto *first = reinterpret_cast<const uint8_t *>(&made);
    call.request.in.assign(first, first + sizeof(made));
    return static_cast<int>(std::min<int64_t>(call.run(), 0));
}

// The calls that only pass a number: done on the pty, then told to the board.
template <typename Kernel>
int term_action(int fd, TermOp op, int value, Kernel act) {
    const Descriptor descriptor = find_descriptor(fd);
    if (descriptor.handle != 0 && !descriptor.is_tty) return -ENOTTY;
    const int result = act();
    Call call(Op::kTerm);
    if (result < 0 || !report_term(fd, descriptor, op, value, call)) return result;
    return static_cast<int>(std::min<int64_t>(call.run(), 0));
}

int board_term_flush(int fd, int queue) {
    return term_action(fd, TermOp::kFlush, queue, [=] { return kernel().term_flush(fd, queue); });
}

int board_term_drain(int fd) {
    return term_action(fd, TermOp::kDrain, 0, [=] { return kernel().term_drain(fd); });
}

int board_term_flow(int fd, int action) {
    return term_action(fd, TermOp::kFlow, action, [=] { return kernel().term_flow(fd, action); });
}

int board_line_status(int fd, uint32_t *out) {
    const Descriptor descriptor = find_descriptor(fd);
    if (descriptor.handle == 0) return kernel().line_status(fd, out);
    Call call(Op::kTerm);
    report_term(fd, descriptor, TermOp::kLineStatus, 0, call);
    const int64_t value = call.run();
    if (value < 0) return static_cast<int>(value);
    if (call.reply.out.size() != sizeof(*out)) return -EIO;
    memcpy(out, call.reply.out.data(), sizeof(*out));
    return 0;
}

// ---- the machine: told to the board, never done ----

int board_unmount(const char *path) { return static_cast<int>(Call(PathOp::kUnmount, path).run()); }

int board_run(const char *command) { return static_cast<int>(Call(PathOp::kRun, command).run()); }

int board_reboot(int command) {
    Call call(PathOp::kReboot, "");
    call.request.offset = command;
    return static_cast<int>(call.run());
}

int board_poll(pollfd *fds, unsigned count, int timeout_ms) { return kernel().poll(fds, count, timeout_ms); }

int board_unmap(void *address, size_t bytes) { return kernel().unmap(address, bytes); }

}  // namespace

constinit const qel_os_ops kBoardOps = {
    .open = board_open,
    .close = board_close,
    .read = board_read,
    .write = board_write,
    .seek = board_seek,
    .ioctl = board_ioctl,
    .poll = board_poll,
    .map = board_map,
    .unmap = board_unmap,
    .sync = board_sync,
    .truncate = board_truncate,
    .set_mode = board_set_mode,
    .stat = board_stat,
    .list = board_list,
    .make_dir = board_make_dir,
    .remove = board_remove,
    .rename = board_rename,
    .term_get = board_term_get,
    .term_set = board_term_set,
    .term_flush = board_term_flush,
    .term_drain = board_term_drain,
    .term_flow = board_term_flow,
    .line_status = board_line_status,
    .unmount = board_unmount,
    .run = board_run,
    .reboot = board_reboot,
};

}  // namespace qel::board
